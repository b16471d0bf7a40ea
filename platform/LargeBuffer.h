// Memory for data that may be larger than memory.
#pragma once

#include "common/ZELError.h"

#include <QByteArrayView>
#include <QString>

namespace zel {

/// One block, given back to the system as a whole. Moved, never copied.
class LargeBuffer
{
public:
    LargeBuffer() = default;
    LargeBuffer(LargeBuffer &&other) noexcept;
    LargeBuffer &operator=(LargeBuffer &&other) noexcept;
    ~LargeBuffer();

    /// Reserves `size` bytes of zeros: memory up to `memoryLimit`, beyond that a file in `folder` that has no
    /// name and goes with the buffer. The file's space is taken at once, so that no later access can fail for
    /// want of it. An error where there is too little memory or space.
    static ZELError reserve(qint64 size, qint64 memoryLimit, const QString &folder, LargeBuffer &result);

    char *data() { return m_data; }
    QByteArrayView view() const { return {m_data, m_size}; }

private:
    char *m_data = nullptr;
    qint64 m_size = 0;
};

} // namespace zel

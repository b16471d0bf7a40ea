// A file that is replaced together with another.
#pragma once

#include "ZELError.h"

#include <QByteArray>
#include <QSaveFile>

#include <optional>

namespace zel {

/// One file while it is replaced: its new content is written aside, moved into place, and taken back if need be.
/// What was written aside and not moved goes with the object.
class SealFile
{
public:
    /// Remembers what is in the file, in memory, unless that is larger than `rememberedSize` bytes.
    SealFile(const QString &path, qint64 rememberedSize);

    ZELError writeAside(const QByteArray &bytes);

    ZELError moveIntoPlace();

    /// Undoes `moveIntoPlace`, as well as the disk lets it: the file is what it was before, or gone where none was.
    void putBack();

private:
    ZELError failure() const;

    QSaveFile m_file;
    std::optional<QByteArray> m_previous;
    bool m_moved = false;
};

} // namespace zel

// MD5FromData of data that is not in memory as a whole.
#pragma once

#include <QByteArrayView>
#include <QString>

#include <memory>
#include <optional>

namespace zel {

/// `MD5FromData` of data that comes in pieces.
class MD5Digest
{
public:
    /// Data of 0 or a whole multiple of so many bytes has the empty text for a digest.
    static constexpr qint64 ChunkSize = 32768;

    MD5Digest();
    ~MD5Digest();
    void add(QByteArrayView data);

    /// To be asked once. Nothing where the system refuses MD5, as one that allows approved algorithms only
    /// does: not even the empty text of whole chunks, which would then stand for any data.
    std::optional<QString> result();

private:
    struct Context;
    std::unique_ptr<Context> m_context; // null once something was refused
    qint64 m_length = 0;
};

/// `MD5FromData` of a file's content, read piece by piece; nothing where it cannot be read or has no digest.
std::optional<QString> MD5FromFile(const QString &path);

} // namespace zel

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
    MD5Digest();
    ~MD5Digest();
    void add(QByteArrayView data);
    QString result(); ///< may be asked once

private:
    struct Context;
    std::unique_ptr<Context> m_context;
    qint64 m_length = 0;
};

/// `MD5FromData` of a file's content, read piece by piece; nothing where it cannot be read.
std::optional<QString> MD5FromFile(const QString &path);

} // namespace zel

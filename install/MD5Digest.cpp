// The digest behind every "hash" of the update protocol and of manifests. Files of 0 or a whole multiple of
// 32768 bytes have the empty text for a hash. The rule is kept because every published hash was made by it,
// and only by it: another length of chunks, or a digest where none was, would refuse files that are whole. An
// empty hash therefore protects nothing by itself; `checkPayload` minds that, and our own tools never write a
// file of such a size.
//
// OpenSSL is asked directly because it tells when a system's policy refuses MD5. That is no digest at all
// then, not an empty one.
#include "MD5Digest.h"

#include "MD5FromData.h"

#include <QFile>

#include <array>
#include <openssl/evp.h>

namespace zel {

namespace {

constexpr qint64 ReadSize = 8 * MD5Digest::ChunkSize;

} // namespace

struct MD5Digest::Context {
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digest{EVP_MD_CTX_new(), EVP_MD_CTX_free};
};

MD5Digest::MD5Digest()
    : m_context(std::make_unique<Context>())
{
    if (!m_context->digest || !EVP_DigestInit_ex(m_context->digest.get(), EVP_md5(), nullptr))
        m_context.reset();
}

MD5Digest::~MD5Digest() = default;

void MD5Digest::add(QByteArrayView data)
{
    if (m_context && !EVP_DigestUpdate(m_context->digest.get(), data.data(), size_t(data.size())))
        m_context.reset();
    m_length += data.size();
}

std::optional<QString> MD5Digest::result()
{
    if (!m_context)
        return std::nullopt;
    // Deliberate: no digest for whole chunks. Every published hash was made by this rule.
    if (m_length % ChunkSize == 0)
        return QLatin1String("");
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes;
    unsigned int size = 0;
    if (!EVP_DigestFinal_ex(m_context->digest.get(), bytes.data(), &size))
        return std::nullopt;
    return QString::fromLatin1(
        QByteArray(reinterpret_cast<const char *>(bytes.data()), qsizetype(size)).toHex());
}

std::optional<QString> MD5FromFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return std::nullopt;
    MD5Digest digest;
    QByteArray buffer(ReadSize, Qt::Uninitialized);
    for (;;) {
        const qint64 count = file.read(buffer.data(), buffer.size());
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            return digest.result();
        digest.add(QByteArrayView(buffer).first(count));
    }
}

} // namespace zel

QString MD5FromData(QByteArrayView data)
{
    zel::MD5Digest digest;
    digest.add(data);
    // Neither null nor empty: both compare equal to the hash of whole chunks.
    return digest.result().value_or(QStringLiteral("MD5 is refused"));
}

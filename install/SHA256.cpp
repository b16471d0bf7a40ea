#include "SHA256.h"

#include "base/FileDescriptor.h"

#include <QFile>

#include <array>
#include <memory>
#include <openssl/evp.h>
#include <vector>

namespace zel {

namespace {

// OpenSSL uses what the processor has for it.
class Digest
{
public:
    Digest()
    {
        if (m_context && !EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr))
            m_context.reset();
    }

    void add(const char *data, size_t size)
    {
        if (m_context && !EVP_DigestUpdate(m_context.get(), data, size))
            m_context.reset();
    }

    // Null where the system has no such digest.
    QByteArray bytes()
    {
        std::array<unsigned char, EVP_MAX_MD_SIZE> bytes;
        unsigned int size = 0;
        if (!m_context || !EVP_DigestFinal_ex(m_context.get(), bytes.data(), &size))
            return {};
        return QByteArray(reinterpret_cast<const char *>(bytes.data()), qsizetype(size));
    }

    QString result()
    {
        const QByteArray digest = bytes();
        return digest.isNull() ? QString() : QString::fromLatin1(digest.toHex());
    }

private:
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> m_context{EVP_MD_CTX_new(), EVP_MD_CTX_free};
};

} // namespace

QString sha256Of(QByteArrayView data)
{
    Digest digest;
    digest.add(data.data(), size_t(data.size()));
    return digest.result();
}

QByteArray sha256BytesOf(QByteArrayView data)
{
    Digest digest;
    digest.add(data.data(), size_t(data.size()));
    return digest.bytes();
}

std::optional<QString> sha256OfFile(int file)
{
    if (::lseek(file, 0, SEEK_SET) != 0)
        return std::nullopt;
    Digest digest;
    std::vector<char> buffer(1 << 18);
    ssize_t count = 0;
    while ((count = readSome(file, buffer.data(), buffer.size())) > 0)
        digest.add(buffer.data(), size_t(count));
    const QString result = digest.result();
    return count < 0 || result.isNull() ? std::nullopt : std::optional(result);
}

std::optional<QString> sha256OfFile(const QString &path)
{
    const FileDescriptor file(::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC));
    return file ? sha256OfFile(file.get()) : std::nullopt;
}

} // namespace zel

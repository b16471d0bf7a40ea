#include "BundleScan.h"

#include "platform/RealFolder.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>

namespace zel {

namespace {

constexpr qsizetype MaxPathBytes = 64 << 20; // of all items: a seal's list, which holds them, is no larger
constexpr qsizetype PieceSize = 256 << 10;
constexpr int FileFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC; // never waits for a pipe's writer

struct FreeDigest {
    void operator()(EVP_MD_CTX *digest) const { EVP_MD_CTX_free(digest); }
};

ZELError cannotRead(const QByteArray &path, int number)
{
    return ZELError::fromErrno(QLatin1String("cannot read ") + shownPath(path), number);
}

ZELError refusal(const QByteArray &path, const char *why)
{
    return ZELError::withMessage(shownPath(path) + u' ' + QLatin1String(why));
}

class Scanner
{
public:
    explicit Scanner(SealedItems &items)
        : m_items(items)
    {
    }

    ZELError scanFolder(FolderListing folder, const QByteArray &prefix, int depth)
    {
        if (!folder)
            return cannotRead(prefix, errno);
        while (const char *name = folder.next()) {
            if (const ZELError error = scanEntry(folder.folder(), name, prefix + name, depth))
                return error;
        }
        return errno == 0 ? ZELError() : cannotRead(prefix, errno);
    }

private:
    ZELError scanEntry(int folder, const QByteArray &name, const QByteArray &path, int depth)
    {
        struct stat status;
        if (::fstatat(folder, name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            return cannotRead(path, errno);
        m_pathBytes += path.size();
        if (++m_seen > MaxItems || m_pathBytes > MaxPathBytes)
            return refusal(path, "is one item too many");
        if (S_ISDIR(status.st_mode))
            return depth < MaxFolderDepth
                ? scanFolder(FolderListing(folder, name.constData()), path + '/', depth + 1)
                : refusal(path, "is nested too deeply");
        if (S_ISREG(status.st_mode))
            return addFile(folder, name, path);
        if (S_ISLNK(status.st_mode))
            return addLink(folder, name, path);
        return refusal(path, "is neither a file, a folder nor a link");
    }

    ZELError addFile(int folder, const QByteArray &name, const QByteArray &path)
    {
        const FileDescriptor file(::openat(folder, name.constData(), FileFlags));
        if (!file)
            return cannotRead(path, errno);
        EVP_DigestInit_ex(m_digest.get(), EVP_sha256(), nullptr);
        ssize_t count = 0;
        while ((count = readSome(file.get(), m_piece.data(), size_t(m_piece.size()))) > 0)
            EVP_DigestUpdate(m_digest.get(), m_piece.constData(), size_t(count));
        if (count < 0)
            return cannotRead(path, errno);
        QByteArray digest(32, Qt::Uninitialized);
        EVP_DigestFinal_ex(m_digest.get(), reinterpret_cast<unsigned char *>(digest.data()), nullptr);
        m_items.files.insert(path, digest);
        return {};
    }

    ZELError addLink(int folder, const QByteArray &name, const QByteArray &path)
    {
        QByteArray target(PATH_MAX, Qt::Uninitialized);
        const ssize_t size = ::readlinkat(folder, name.constData(), target.data(), size_t(target.size()));
        if (size < 0)
            return cannotRead(path, errno);
        m_items.links.insert(path,
                             QByteArray(target.constData(), size)); // a copy of its own, not a whole page
        return {};
    }

    SealedItems &m_items;
    qsizetype m_seen = 0;
    qsizetype m_pathBytes = 0;
    QByteArray m_piece{PieceSize, Qt::Uninitialized};
    std::unique_ptr<EVP_MD_CTX, FreeDigest> m_digest{EVP_MD_CTX_new()};
};

// Opens folder after folder, so that no link in between is followed.
FileDescriptor openBelow(int root, const QByteArray &path, int flags)
{
    QByteArrayList names = path.split('/');
    const QByteArray last = names.takeLast();
    FileDescriptor folder(::openat(root, ".", RealFolderFlags));
    for (const QByteArray &name : names) {
        if (folder)
            folder = FileDescriptor(::openat(folder.get(), name.constData(), RealFolderFlags));
    }
    return folder ? FileDescriptor(::openat(folder.get(), last.constData(), flags)) : FileDescriptor();
}

} // namespace

ZELError BundleFolder::open(const QString &bundle)
{
    m_folder = openRealFolder(bundle);
    if (m_folder)
        return {};
    if (errno == ENOTDIR || errno == ELOOP)
        return ZELError::withMessage(QStringLiteral("it is not a folder itself, but a file or a link"));
    return ZELError::fromErrno(QStringLiteral("cannot open the folder"), errno);
}

ZELError BundleFolder::scan(SealedItems &items) const
{
    return Scanner(items).scanFolder(FolderListing(m_folder.get(), "."), {}, 0);
}

bool BundleFolder::hasFolder(const QByteArray &path) const
{
    return bool(openBelow(m_folder.get(), path, RealFolderFlags));
}

ZELError BundleFolder::read(const QByteArray &path, qint64 limit, QByteArray &bytes) const
{
    const FileDescriptor file = openBelow(m_folder.get(), path, FileFlags);
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0)
        return cannotRead(path, errno);
    if (!S_ISREG(status.st_mode))
        return refusal(path, "is no file");
    if (status.st_size > limit)
        return refusal(path, "is too large");
    bytes.resize(status.st_size);
    qsizetype filled = 0;
    ssize_t count = 0;
    while ((count = readSome(file.get(), bytes.data() + filled, size_t(bytes.size() - filled))) > 0)
        filled += count;
    if (count < 0)
        return cannotRead(path, errno);
    bytes.truncate(filled);
    return {};
}

} // namespace zel

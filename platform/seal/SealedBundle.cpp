// A bundle is hostile until its seal is known to be valid, and somebody may change it while it is read. So it
// is opened once, and everything below is reached from that descriptor, folder by folder, without ever
// following a link or waiting for a pipe; what is compared is what was scanned, not what a path leads to
// later.
//
// The whole bundle is scanned once, and the seals of all bundles in it are compared with parts of that one
// scan: time is linear in what is on the disk, however deeply bundles are nested. What a small archive could
// blow up (lists in lists, links through links, signatures in each) is counted down by one `SealBudget` for
// all of them together, since limits per bundle would multiply with the number of bundles. Nested bundles are
// found by what is there, not by what the outer seal says: whatever looks like a seal or part of one must be
// valid.
#include "SealedBundle.h"

#include "platform/FileTree.h"
#include "SealSignature.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <openssl/evp.h>
#include <optional>
#include <set>
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

QByteArray joined(const QByteArray &folder, const QByteArray &name)
{
    return folder.isEmpty() ? name : folder + '/' + name;
}

QByteArray parentOf(const QByteArray &path)
{
    return path.left(qMax(path.lastIndexOf('/'), qsizetype(0)));
}

QByteArray nameOf(const QByteArray &path)
{
    return path.mid(path.lastIndexOf('/') + 1);
}

// The folder whose `_CodeSignature` an item belongs to. A link in place of a seal counts: such a bundle was
// meant to be sealed and is not valid.
std::optional<QByteArray> holderOfSeal(const QByteArray &path, bool isLink)
{
    const QByteArray name = nameOf(path);
    const QByteArray parent = parentOf(path);
    if (isLink && name == "_CodeSignature")
        return parent;
    if ((name == "CodeResources" || name == "CodeSignature") && nameOf(parent) == "_CodeSignature")
        return parentOf(parent);
    return std::nullopt;
}

// That folder is the bundle, or the bundle's `Contents`. Where a folder has `Contents`, its seal can only be
// in there: a `_CodeSignature` beside it is a folder like any other.
std::optional<QByteArray> ownerOfSeal(const BundleFolder &folder, const QByteArray &holder)
{
    if (nameOf(holder) == "Contents")
        return parentOf(holder);
    if (folder.hasFolder(joined(holder, "Contents")))
        return std::nullopt;
    return holder;
}

std::set<QByteArray> holdersOfSeals(const SealedItems &items)
{
    std::set<QByteArray> holders;
    for (auto file = items.files.begin(); file != items.files.end(); ++file) {
        if (const std::optional<QByteArray> holder = holderOfSeal(file.key(), false))
            holders.insert(*holder);
    }
    for (auto link = items.links.begin(); link != items.links.end(); ++link) {
        if (const std::optional<QByteArray> holder = holderOfSeal(link.key(), true))
            holders.insert(*holder);
    }
    return holders;
}

std::set<QByteArray> nestedBundles(const BundleFolder &folder, const std::set<QByteArray> &holders)
{
    std::set<QByteArray> bundles;
    for (const QByteArray &holder : holders) {
        if (const std::optional<QByteArray> owner = ownerOfSeal(folder, holder))
            bundles.insert(*owner);
    }
    bundles.erase(QByteArray()); // the outermost bundle is not nested in itself
    return bundles;
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

SealedBundle::SealedBundle(const BundleFolder &folder, const QByteArray &path)
    : m_folder(folder)
    , m_path(path)
    , m_sealPath(folder.hasFolder(joined(path, "Contents")) ? "Contents/_CodeSignature" : "_CodeSignature")
{
}

ZELError SealedBundle::readSeal(SealedItems &sealed, SealBudget &budget, const SignerPins &pins) const
{
    const QByteArrayList paths = sealFiles();
    const qint64 maxResourcesSize = qMin(MaxResourcesSize, budget.listBytes);
    QByteArray resources;
    QByteArray signature;
    if (const ZELError error = m_folder.read(joined(m_path, paths[0]), maxResourcesSize, resources))
        return error;
    if (const ZELError error =
            m_folder.read(joined(m_path, paths[1]), qMin(MaxSignatureSize, budget.signatureBytes), signature))
        return error;
    budget.listBytes -= resources.size();
    budget.signatureBytes -= signature.size();
    if (const ZELError error = verifySignature(resources, signature, pins, &budget.signers))
        return error;
    std::optional<SealedItems> items = fromPropertyList(resources);
    if (!items)
        return ZELError::withMessage(shownPath(paths[0]) + QLatin1String(" is malformed"));
    sealed = std::move(*items);
    return {};
}

ZELError SealedBundle::compare(const SealedItems &sealed, const SealedItems &all, SealBudget &budget) const
{
    if (const ZELError error = compareItems(sealed, all, m_path, sealFiles()))
        return error;
    return checkLinks(all, m_path, budget.linkNames);
}

ZELError verifyNested(const BundleFolder &folder, const SealedItems &items, SealBudget &budget)
{
    const std::set<QByteArray> holders = holdersOfSeals(items);
    if (holders.size() > MaxNestedBundles)
        return ZELError::withMessage(QStringLiteral("it has too many nested bundles"));
    for (const QByteArray &path : nestedBundles(folder, holders)) {
        const SealedBundle bundle(folder, path);
        SealedItems sealed;
        ZELError error = bundle.readSeal(sealed, budget);
        if (!error)
            error = bundle.compare(sealed, items, budget);
        if (error)
            return ZELError::withMessage(QLatin1String("the nested bundle ") + shownPath(path)
                                         + QLatin1String(" is not valid: ") + error.message);
    }
    return {};
}

} // namespace zel

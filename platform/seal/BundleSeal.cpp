// Making a seal is the dangerous half: it replaces two files that only together are valid, in a bundle that
// people use. So both are written aside and brought to the disk first, then moved into place one right after
// the other, and the result is verified as anybody would verify it. Whatever goes wrong, both are put back as
// they were; what a killed process leaves aside has a name that the next run knows and removes. A seal that
// is half new can be seen for an instant only, and does not verify then.
//
// The list is made from the same scan as verification compares with (SealedBundle.h), and refuses up front
// what verification would refuse: a publisher hears of it, not the users.
#include "BundleSeal.h"

#include "platform/BundleInfo.h"
#include "SealedBundle.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace zel {

namespace {

// The folder of a seal, open: what is written there cannot be led elsewhere by a link.
class SealFolder
{
public:
    // Makes the folder where it is missing, and removes what an earlier run that was killed left in it.
    ZELError open(const QString &path);

    int descriptor() const { return m_folder.get(); }
    const QString &path() const { return m_path; }

    // Brings the names in the folder, and its own, to the disk.
    ZELError settle() const;

private:
    QString m_path;
    FileDescriptor m_folder;
};

// One file of a seal while it is replaced: its new content is written aside, to the disk, moved into place,
// and taken back if need be. What was written aside and not moved goes with the object, or with the next
// `SealFolder::open`.
class SealFile
{
public:
    // Remembers what is in the file, in memory, unless that is larger than `rememberedSize` bytes. The
    // folder must outlive the object.
    SealFile(const SealFolder &folder, const QByteArray &name, qint64 rememberedSize);
    ~SealFile();
    SealFile(const SealFile &) = delete;
    SealFile &operator=(const SealFile &) = delete;

    ZELError writeAside(const QByteArray &bytes);

    ZELError moveIntoPlace();

    // Undoes `moveIntoPlace`, as well as the disk lets it: the file is what it was before, or gone where
    // none was.
    void putBack();

private:
    ZELError failure() const;

    const SealFolder &m_folder;
    const QByteArray m_name;
    std::optional<QByteArray> m_previous;
    bool m_moved = false;
};

// Always the same name, so that what a killed process left is known for what it is: sealed in, it could never
// go.
QByteArray asideOf(const QByteArray &name)
{
    return '.' + name + ".new";
}

ZELError SealFolder::open(const QString &path)
{
    m_path = path;
    const QByteArray name = QFile::encodeName(path);
    const auto cannot = [&path](const char *what) {
        return ZELError::fromErrno(QLatin1String("cannot ") + QLatin1String(what) + u' ' + path, errno);
    };
    if (::mkdir(name.constData(), 0777) != 0 && errno != EEXIST)
        return cannot("make");
    m_folder = FileDescriptor(::open(name.constData(), RealFolderFlags));
    if (!m_folder)
        return cannot("open");
    for (const char *file : {"CodeResources", "CodeSignature"}) {
        if (::unlinkat(m_folder.get(), asideOf(file).constData(), 0) != 0 && errno != ENOENT)
            return cannot("write to");
    }
    return {};
}

ZELError SealFolder::settle() const
{
    const FileDescriptor above(::openat(m_folder.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return ::fsync(m_folder.get()) == 0 && above && ::fsync(above.get()) == 0
        ? ZELError()
        : ZELError::fromErrno(QLatin1String("cannot write to ") + m_path, errno);
}

SealFile::SealFile(const SealFolder &folder, const QByteArray &name, qint64 rememberedSize)
    : m_folder(folder)
    , m_name(name)
{
    const FileDescriptor file(
        ::openat(folder.descriptor(), name.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    QFile previous;
    if (file && previous.open(file.get(), QIODevice::ReadOnly) && previous.size() <= rememberedSize)
        m_previous = previous.readAll();
}

SealFile::~SealFile()
{
    ::unlinkat(m_folder.descriptor(), asideOf(m_name).constData(), 0);
}

ZELError SealFile::writeAside(const QByteArray &bytes)
{
    // Known before the other file is moved, which would have to be put back.
    struct stat status;
    if (::fstatat(m_folder.descriptor(), m_name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0
        && S_ISDIR(status.st_mode)) {
        errno = EISDIR;
        return failure();
    }
    FileDescriptor file(::openat(m_folder.descriptor(), asideOf(m_name).constData(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    return file && writeAll(file.get(), bytes.constData(), size_t(bytes.size())) && ::fsync(file.get()) == 0
            && file.close()
        ? ZELError()
        : failure();
}

ZELError SealFile::moveIntoPlace()
{
    const int folder = m_folder.descriptor();
    m_moved = ::renameat(folder, asideOf(m_name).constData(), folder, m_name.constData()) == 0;
    return m_moved ? ZELError() : failure();
}

void SealFile::putBack()
{
    if (m_moved && !m_previous)
        ::unlinkat(m_folder.descriptor(), m_name.constData(), 0);
    else if (m_moved && !writeAside(*m_previous))
        moveIntoPlace();
}

ZELError SealFile::failure() const
{
    return ZELError::fromErrno(
        QLatin1String("cannot write ") + m_folder.path() + u'/' + QFile::decodeName(m_name), errno);
}

struct Seal {
    QByteArray resources;
    QByteArray signature;
};

ZELError verifyAll(const QString &bundle, const SignerPins &pins)
{
    BundleFolder folder;
    SealedItems sealed;
    SealedItems found;
    SealBudget budget;
    if (const ZELError error = folder.open(bundle))
        return error;
    if (const ZELError error = SealedBundle(folder).readSeal(sealed, budget, pins))
        return error;
    if (const ZELError error = folder.scan(found))
        return error;
    if (const ZELError error = SealedBundle(folder).compare(sealed, found, budget))
        return error;
    return verifyNested(folder, found, budget);
}

ZELError makeSeal(const BundleFolder &folder, const QList<Signer> &signers, Seal &seal)
{
    SealedItems items;
    SealBudget budget;
    if (const ZELError error = folder.scan(items))
        return error;
    if (const ZELError error = verifyNested(folder, items, budget))
        return error;
    for (const QByteArray &file : SealedBundle(folder).sealFiles())
        items.files.remove(file);
    if (const ZELError error = checkNames(items))
        return error;
    if (const ZELError error = checkLinks(items, {}, budget.linkNames))
        return error;
    seal.resources = toPropertyList(items);
    if (seal.resources.size() > MaxResourcesSize)
        return ZELError::withMessage(QStringLiteral("it has too many items"));
    return signWith(signers, seal.resources, SignatureKind::Detached, seal.signature);
}

// A link here would lead the new seal out of the bundle.
ZELError refuseLinks(const QString &sealFolder)
{
    for (const QString &path : {sealFolder, sealFolder + QLatin1String("/CodeResources"),
                                sealFolder + QLatin1String("/CodeSignature")}) {
        if (QFileInfo(path).isSymLink())
            return ZELError::withMessage(path + QLatin1String(" is a link"));
    }
    return {};
}

ZELError tryToReplace(const QString &bundle, const Seal &seal, const SealFolder &folder, SealFile &resources,
                      SealFile &signature)
{
    if (const ZELError error = resources.writeAside(seal.resources))
        return error;
    if (const ZELError error = signature.writeAside(seal.signature))
        return error;
    if (const ZELError error = resources.moveIntoPlace())
        return error;
    if (const ZELError error = signature.moveIntoPlace())
        return error;
    if (const ZELError error = folder.settle())
        return error;
    return verifyAll(bundle, {});
}

ZELError replaceSeal(const QString &bundle, const SealFolder &folder, const Seal &seal)
{
    SealFile resources(folder, "CodeResources", MaxResourcesSize);
    SealFile signature(folder, "CodeSignature", MaxSignatureSize);
    const ZELError error = tryToReplace(bundle, seal, folder, resources, signature);
    if (error) {
        signature.putBack();
        resources.putBack();
    }
    return error;
}

ZELError because(const QString &what, const QString &bundle, const ZELError &reason)
{
    if (!reason)
        return {};
    return ZELError::withMessage(what + u' ' + bundle + QLatin1String(": ") + reason.message);
}

} // namespace

ZELError sealBundle(const QString &bundle, const QList<Signer> &signers)
{
    const QString attempt = QStringLiteral("cannot seal");
    BundleFolder folder;
    SealFolder sealFolder;
    Seal seal;
    if (const ZELError error = folder.open(bundle))
        return because(attempt, bundle, error);
    const QString sealPath = bundle + u'/' + QFile::decodeName(SealedBundle(folder).sealPath());
    ZELError error = refuseLinks(sealPath);
    if (!error)
        error = sealFolder.open(sealPath);
    if (!error)
        error = makeSeal(folder, signers, seal);
    if (!error)
        error = replaceSeal(bundle, sealFolder, seal);
    if (error)
        QDir().rmdir(sealPath); // goes only when it is empty: when the bundle had no seal
    return because(attempt, bundle, error);
}

ZELError verifySeal(const QString &bundle, const SignerPins &pins)
{
    return because(QStringLiteral("no valid seal on"), bundle, verifyAll(bundle, pins));
}

QList<SealSigner> sealSigners(const QString &bundle)
{
    QFile file(contentsFolder(bundle) + QLatin1String("/_CodeSignature/CodeSignature"));
    return file.open(QIODevice::ReadOnly) ? namedSigners(file.read(MaxSignatureSize)) : QList<SealSigner>();
}

} // namespace zel

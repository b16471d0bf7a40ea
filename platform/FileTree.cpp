// Walks by descriptors: each folder is opened from the one above it, without following a link, and its
// entries are reached from there. No link that somebody puts in the way meanwhile leads elsewhere, and no
// path grows too long for the system.
//
// A copy holds a descriptor for each level, two in fact, which the limit on the depth bounds; a bundle that
// is deeper is refused everywhere. Removal has to take away whatever can exist, so it goes without recursion
// and with one folder open at a time. Its way back up is "..", which must be the folder that the walk came
// from: whoever moves folders about meanwhile ends it. What is kept for a level is its name and the names of
// the folders in it that are still to be removed.
#include "FileTree.h"

#include "base/SystemCalls.h"
#include "FileContents.h"

#include <QByteArrayList>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;

namespace zel {

namespace {

// Copies by descriptors, which no link can lead elsewhere and no depth makes too long; as deeply as bundles
// may be nested.
class TreeCopy
{
public:
    TreeCopy(const QByteArray &from, const QByteArray &to)
        : m_from(from)
        , m_to(to)
    {
    }

    ZELError run() { return copyItem({AT_FDCWD, m_from.constData()}, {AT_FDCWD, m_to.constData()}); }

private:
    struct Item {
        int folder;
        const char *name;
    };

    ZELError copyItem(Item from, Item to)
    {
        struct stat status;
        if (::fstatat(from.folder, from.name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            return failure("cannot read", m_from);
        if (S_ISLNK(status.st_mode))
            return copyLink(from, to, status);
        if (S_ISDIR(status.st_mode))
            return copyFolder(from, to);
        if (S_ISREG(status.st_mode))
            return copyRegular(from, to);
        return problem("is neither a file, a folder nor a link");
    }

    ZELError copyLink(Item from, Item to, const struct stat &status)
    {
        QByteArray target(PATH_MAX, '\0');
        if (::readlinkat(from.folder, from.name, target.data(), size_t(target.size() - 1)) < 0)
            return failure("cannot read link", m_from);
        if (::symlinkat(target.constData(), to.folder, to.name) != 0)
            return failure("cannot make link", m_to);
        // Not looked at: a link's own times matter to nobody.
        ::utimensat(to.folder, to.name, timesOf(status).data(), AT_SYMLINK_NOFOLLOW);
        return {};
    }

    ZELError copyFolder(Item from, Item to)
    {
        if (m_names.size() > MaxFolderDepth)
            return problem("is nested too deeply");
        FolderListing source(from.folder, from.name);
        struct stat status;
        if (!source || ::fstat(source.folder(), &status) != 0)
            return failure("cannot read folder", m_from);
        if (::mkdirat(to.folder, to.name, S_IRWXU) != 0)
            return failure("cannot make folder", m_to);
        const FileDescriptor copy(::openat(to.folder, to.name, RealFolderFlags));
        if (!copy)
            return failure("cannot open folder", m_to);
        while (const char *name = source.next()) {
            m_names.append(name);
            if (const ZELError failed = copyItem({source.folder(), name}, {copy.get(), name}))
                return failed;
            m_names.removeLast();
        }
        if (errno != 0)
            return failure("cannot read folder", m_from);
        // The folder's own attributes come last: its mode may forbid writing, and each new entry changes its
        // time.
        return copyAttributes(source.folder(), copy.get(), status)
            ? ZELError()
            : failure("cannot set attributes of", m_to);
    }

    ZELError copyRegular(Item from, Item to)
    {
        const FileDescriptor source(
            ::openat(from.folder, from.name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat status;
        if (!source || ::fstat(source.get(), &status) != 0)
            return failure("cannot read", m_from);
        FileDescriptor copy(
            ::openat(to.folder, to.name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
        if (!copy)
            return failure("cannot create", m_to);
        if (!copyData(source.get(), copy.get()) || !copyAttributes(source.get(), copy.get(), status)
            || !copy.close())
            return failure("cannot write", m_to);
        return {};
    }

    QString shown(const QByteArray &top) const
    {
        return QFile::decodeName((QByteArrayList{top} + m_names).join('/'));
    }
    ZELError failure(const char *what, const QByteArray &top) const
    {
        return ZELError::fromErrno(QLatin1String(what) + u' ' + shown(top), errno);
    }
    ZELError problem(const char *what) const
    {
        return ZELError::withMessage(shown(m_from) + u' ' + QLatin1String(what));
    }

    QByteArray m_from;
    QByteArray m_to;
    QByteArrayList m_names; // the way from the top to the item that is being copied
};

bool isMissing(int number)
{
    return number == ENOENT || number == ENOTDIR;
}

bool isFolder(int folder, const char *name)
{
    struct stat status;
    return ::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
}

// Each step gives false, with errno, when it failed.
class Remover
{
public:
    Remover(int folder, const char *name)
        : m_top(folder)
        , m_name(name)
    {
    }

    bool run()
    {
        if (::unlinkat(m_top, m_name, 0) == 0 || isMissing(errno))
            return true;
        const int number = errno;
        if (!isFolder(m_top, m_name)) {
            errno = number;
            return false;
        }
        if (!enter(m_name))
            return false;
        while (!m_levels.empty()) {
            std::vector<QByteArray> &folders = m_levels.back().folders;
            if (folders.empty() ? !leave() : !enterOneOf(folders))
                return false;
        }
        return true;
    }

private:
    struct Level {
        QByteArray name;
        dev_t device;
        ino_t number;
        std::vector<QByteArray> folders; // those still to be removed
    };

    bool enterOneOf(std::vector<QByteArray> &folders)
    {
        const QByteArray name = std::move(folders.back());
        folders.pop_back();
        return enter(name);
    }

    bool enter(const QByteArray &name)
    {
        const int parent = m_levels.empty() ? m_top : m_folder.get();
        FileDescriptor folder(::openat(parent, name.constData(), RealFolderFlags));
        if (!folder && errno == EACCES
            && ::fchmodat(parent, name.constData(), 0700, AT_SYMLINK_NOFOLLOW) == 0)
            folder = FileDescriptor(::openat(parent, name.constData(), RealFolderFlags));
        struct stat status;
        if (!folder || ::fstat(folder.get(), &status) != 0)
            return false;
        // A copied or unpacked folder may forbid its owner to change it; it must still go when its time has
        // come.
        if ((status.st_mode & S_IRWXU) != S_IRWXU)
            ::fchmod(folder.get(), S_IRWXU);
        m_folder = std::move(folder);
        m_levels.push_back({name, status.st_dev, status.st_ino, {}});
        return removeFiles();
    }

    // Everything but folders, which are only noted.
    bool removeFiles()
    {
        FolderListing listing(m_folder.get(), ".");
        if (!listing)
            return false;
        while (const char *name = listing.next()) {
            if (::unlinkat(m_folder.get(), name, 0) == 0 || isMissing(errno))
                continue;
            const int number = errno;
            if (!isFolder(m_folder.get(), name)) {
                errno = number;
                return false;
            }
            m_levels.back().folders.emplace_back(name);
        }
        return errno == 0;
    }

    bool leave()
    {
        const QByteArray name = m_levels.back().name;
        m_levels.pop_back();
        if (m_levels.empty()) {
            m_folder = FileDescriptor();
            return removeFolder(m_top, name);
        }
        m_folder = FileDescriptor(::openat(m_folder.get(), "..", RealFolderFlags));
        return isWhereItWas() && removeFolder(m_folder.get(), name);
    }

    bool isWhereItWas() const
    {
        struct stat status;
        if (!m_folder || ::fstat(m_folder.get(), &status) != 0)
            return false;
        errno = ESTALE;
        return status.st_dev == m_levels.back().device && status.st_ino == m_levels.back().number;
    }

    static bool removeFolder(int parent, const QByteArray &name)
    {
        return ::unlinkat(parent, name.constData(), AT_REMOVEDIR) == 0 || errno == ENOENT;
    }

    int m_top;
    const char *m_name;
    FileDescriptor m_folder; // the innermost of the levels
    std::vector<Level> m_levels;
};

} // namespace

QByteArray itemPath(const QString &path)
{
    QByteArray name = QFile::encodeName(path);
    while (name.size() > 1 && (name.endsWith('/') || name.endsWith("/.")))
        name.chop(1);
    return name.contains('\0') ? QByteArray() : name;
}

FileDescriptor openRealFolder(const QString &path)
{
    return FileDescriptor(::open(itemPath(path).constData(), RealFolderFlags));
}

FolderListing::FolderListing(int folder, const char *name)
    : FolderListing(FileDescriptor(::openat(folder, name, RealFolderFlags)))
{
}

FolderListing::FolderListing(FileDescriptor folder)
    : m_entries(folder ? ::fdopendir(folder.get()) : nullptr)
{
    if (m_entries)
        folder.release();
}

const char *FolderListing::next()
{
    for (;;) {
        errno = 0;
        const dirent *entry = ::readdir(m_entries.get());
        if (!entry)
            return nullptr;
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            return entry->d_name;
    }
}

ZELError copyTree(const QString &from, const QString &to)
{
    std::error_code error;
    const fs::path source = fs::canonical(QFile::encodeName(from).toStdString(), error);
    if (error)
        return ZELError::fromErrno(QLatin1String("cannot read ") + from, error.value());
    return TreeCopy(QByteArray::fromStdString(source.string()), QFile::encodeName(to)).run();
}

qint64 treeSize(const QString &path)
{
    const fs::path top = QFile::encodeName(path).toStdString();
    std::error_code error;
    if (!fs::is_directory(top, error))
        return QFileInfo(path).size();
    qint64 size = 0;
    for (fs::recursive_directory_iterator entries(top, error), end; !error && entries != end;
         entries.increment(error)) {
        struct stat status;
        if (::lstat(entries->path().c_str(), &status) == 0 && S_ISREG(status.st_mode))
            size += status.st_size;
    }
    return size;
}

ZELError makePrivateFolder(const QString &path)
{
    const QString clean = QDir::cleanPath(path);
    const QByteArray name = QFile::encodeName(clean);
    if (::mkdir(name.constData(), 0700) == 0)
        return {};
    int number = errno;
    const qsizetype slash = clean.lastIndexOf(u'/');
    if (number == ENOENT && slash > 0) {
        if (const ZELError failed = makePrivateFolder(clean.left(slash)))
            return failed;
        if (::mkdir(name.constData(), 0700) == 0)
            return {};
        number = errno;
    }
    if (number == EEXIST && QDir(clean).exists())
        return {};
    return ZELError::fromErrno(QLatin1String("cannot make folder ") + path, number);
}

bool removeItem(int folder, const char *name)
{
    return Remover(folder, name).run();
}

ZELError removeTree(const QString &path)
{
    const bool removed = removeItem(AT_FDCWD, itemPath(path).constData());
    return removed ? ZELError() : ZELError::fromErrno(QLatin1String("cannot remove ") + path, errno);
}

} // namespace zel

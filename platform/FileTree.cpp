#include "FileTree.h"

#include "base/FileDescriptor.h"
#include "CopyFile.h"
#include "RealFolder.h"

#include <QByteArrayList>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUuid>

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>

namespace fs = std::filesystem;

namespace zel {

namespace {

// Copies by descriptors, which no link can lead elsewhere and no depth makes too long; as deeply as bundles may be nested.
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
        const timespec times[] = {status.st_atim, status.st_mtim};
        // Not looked at: a link's own times matter to nobody.
        ::utimensat(to.folder, to.name, times, AT_SYMLINK_NOFOLLOW);
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
        // The folder's own attributes come last: its mode may forbid writing, and each new entry changes its time.
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

// As for `replaceFile`, with errno. ENOTSUP: a user who names a device wants the bytes to go into it, and root could
// take it away from everybody.
bool moveIntoPlace(int folder, const QByteArray &aside, const QByteArray &name)
{
    struct stat status;
    if (::fstatat(folder, name.constData(), &status, 0) == 0 && !S_ISREG(status.st_mode)
        && !S_ISDIR(status.st_mode)) {
        errno = ENOTSUP;
        return false;
    }
    return ::renameat(folder, aside.constData(), folder, name.constData()) == 0;
}

// Empty where that is not possible.
fs::path resolved(const QString &path)
{
    std::error_code error;
    // Before links are resolved: of a relative path whose first name does not exist, nothing would be.
    const fs::path absolute = fs::absolute(QFile::encodeName(path).toStdString(), error);
    const fs::path result = error ? fs::path() : fs::weakly_canonical(absolute, error);
    return result.has_filename() ? result : result.parent_path(); // no slash behind the last name
}

} // namespace

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

bool liesWithin(const QString &path, const QString &folder)
{
    const fs::path inner = resolved(path);
    const fs::path outer = resolved(folder);
    return std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end();
}

std::optional<QByteArray> readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return std::nullopt;
    return bytes;
}

bool writeFileAtomically(int folder, const QByteArray &name, QByteArrayView bytes)
{
    // Not made of the file's own name, which may be as long as names can be.
    const QByteArray above = name.left(name.lastIndexOf('/') + 1);
    const QByteArray aside = above + '.' + QUuid::createUuid().toByteArray(QUuid::Id128);
    FileDescriptor file(::openat(folder, aside.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!file)
        return false;
    if (writeAll(file.get(), bytes.data(), size_t(bytes.size())) && file.close()
        && moveIntoPlace(folder, aside, name))
        return true;
    const int number = errno;
    ::unlinkat(folder, aside.constData(), 0);
    errno = number;
    return false;
}

ZELError replaceFile(const QString &aside, const QString &path)
{
    return moveIntoPlace(AT_FDCWD, QFile::encodeName(aside), QFile::encodeName(path))
        ? ZELError()
        : ZELError::fromErrno(QLatin1String("cannot write ") + path, errno);
}

ZELError writeFileAtomically(const QString &path, QByteArrayView bytes)
{
    return writeFileAtomically(AT_FDCWD, QFile::encodeName(path), bytes)
        ? ZELError()
        : ZELError::fromErrno(QLatin1String("cannot write ") + path, errno);
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

} // namespace zel

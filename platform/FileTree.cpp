#include "FileTree.h"

#include "CopyFile.h"
#include "FileDescriptor.h"

#include <QDir>
#include <QFile>
#include <QUuid>

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>

namespace fs = std::filesystem;

namespace zel {

namespace {

QString text(const fs::path &path)
{
    return QFile::decodeName(path.c_str());
}

ZELError failure(const char *what, const fs::path &path, int number)
{
    return ZELError::fromErrno(QLatin1String(what) + u' ' + text(path), number);
}

ZELError copyItem(const fs::path &from, const fs::path &to);

ZELError copyLink(const fs::path &from, const fs::path &to, const struct stat &status)
{
    std::error_code error;
    const fs::path target = fs::read_symlink(from, error);
    if (error)
        return failure("cannot read link", from, error.value());
    if (::symlink(target.c_str(), to.c_str()) != 0)
        return failure("cannot make link", to, errno);
    const timespec times[] = {status.st_atim, status.st_mtim};
    ::utimensat(AT_FDCWD, to.c_str(), times, AT_SYMLINK_NOFOLLOW); // a link's own times matter to nobody
    return {};
}

ZELError copyFolder(const fs::path &from, const fs::path &to, const struct stat &status)
{
    if (::mkdir(to.c_str(), 0700) != 0)
        return failure("cannot make folder", to, errno);
    std::error_code error;
    for (fs::directory_iterator entries(from, error), end; !error && entries != end;
         entries.increment(error)) {
        const fs::path name = entries->path().filename();
        if (const ZELError failed = copyItem(from / name, to / name))
            return failed;
    }
    if (error)
        return failure("cannot read folder", from, error.value());
    // The folder's own attributes come last: its mode may forbid writing, and each new entry changes its time.
    const FileDescriptor source(::open(from.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const FileDescriptor folder(::open(to.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!source || !folder)
        return failure("cannot open folder", source ? to : from, errno);
    if (!copyAttributes(source.get(), folder.get(), status))
        return failure("cannot set attributes of", to, errno);
    return {};
}

ZELError copyRegular(const fs::path &from, const fs::path &to, const struct stat &status)
{
    const FileDescriptor source(::open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!source)
        return failure("cannot read", from, errno);
    FileDescriptor copy(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!copy)
        return failure("cannot create", to, errno);
    if (!copyData(source.get(), copy.get()) || !copyAttributes(source.get(), copy.get(), status)
        || !copy.close())
        return failure("cannot write", to, errno);
    return {};
}

ZELError copyItem(const fs::path &from, const fs::path &to)
{
    struct stat status;
    if (::lstat(from.c_str(), &status) != 0)
        return failure("cannot read", from, errno);
    if (S_ISLNK(status.st_mode))
        return copyLink(from, to, status);
    if (S_ISDIR(status.st_mode))
        return copyFolder(from, to, status);
    if (S_ISREG(status.st_mode))
        return copyRegular(from, to, status);
    return ZELError::withMessage(text(from) + QLatin1String(" is neither a file, a folder nor a link"));
}

// A copied or unpacked folder may forbid its owner to change it; it must still go when its time has come.
void allowRemoval(const fs::path &path)
{
    std::error_code error;
    if (fs::symlink_status(path, error).type() != fs::file_type::directory)
        return;
    fs::permissions(path, fs::perms::owner_all, fs::perm_options::add, error);
    for (fs::directory_iterator entries(path, error), end; !error && entries != end; entries.increment(error))
        allowRemoval(entries->path());
}

bool writeAll(int descriptor, QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const ssize_t written = ::write(descriptor, bytes.data(), size_t(bytes.size()));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        bytes = bytes.sliced(written);
    }
    return true;
}

} // namespace

ZELError copyTree(const QString &from, const QString &to)
{
    std::error_code error;
    const fs::path source = fs::canonical(QFile::encodeName(from).toStdString(), error);
    if (error)
        return ZELError::fromErrno(QLatin1String("cannot read ") + from, error.value());
    return copyItem(source, QFile::encodeName(to).toStdString());
}

ZELError removeTree(const QString &path)
{
    const fs::path item = QFile::encodeName(path).toStdString();
    std::error_code error;
    fs::remove_all(item, error);
    if (error == std::errc::permission_denied) {
        allowRemoval(item);
        fs::remove_all(item, error);
    }
    return error ? ZELError::fromErrno(QLatin1String("cannot remove ") + path, error.value()) : ZELError();
}

bool liesWithin(const QString &path, const QString &folder)
{
    std::error_code error; // what cannot be resolved becomes an empty path, and everything lies within that
    const fs::path inner = fs::weakly_canonical(QFile::encodeName(path).toStdString(), error);
    const fs::path outer = fs::weakly_canonical(QFile::encodeName(folder).toStdString(), error);
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

ZELError writeFileAtomically(const QString &path, QByteArrayView bytes)
{
    // Not made of the file's own name, which may be as long as names can be.
    const QString aside =
        path.left(path.lastIndexOf(u'/') + 1) + u'.' + QUuid::createUuid().toString(QUuid::Id128);
    const QByteArray asideName = QFile::encodeName(aside);
    FileDescriptor file(::open(asideName.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!file)
        return ZELError::fromErrno(QLatin1String("cannot create ") + path, errno);
    if (writeAll(file.get(), bytes) && file.close()
        && ::rename(asideName.constData(), QFile::encodeName(path).constData()) == 0)
        return {};
    const int number = errno;
    ::unlink(asideName.constData());
    return ZELError::fromErrno(QLatin1String("cannot write ") + path, number);
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

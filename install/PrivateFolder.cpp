#include "PrivateFolder.h"

#include <QDir>
#include <QFile>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace zel {

ZELError openPrivateFolder(const QString &path, const QString &purpose, FileDescriptor &folder)
{
    // A trailing slash would have a link followed.
    folder = FileDescriptor(::open(QFile::encodeName(QDir::cleanPath(path)).constData(), RealFolderFlags));
    struct stat status;
    if (!folder || ::fstat(folder.get(), &status) != 0)
        return ZELError::fromErrno(QStringLiteral("cannot use the %1 %2").arg(purpose, path), errno);
    if (status.st_uid != ::geteuid())
        return ZELError::withMessage(QStringLiteral("the %1 belongs to another user: %2").arg(purpose, path));
    if (status.st_mode & (S_IWGRP | S_IWOTH))
        return ZELError::withMessage(QStringLiteral("other users can write to the %1 %2").arg(purpose, path));
    return {};
}

Lock lock(const FileDescriptor &item)
{
    if (::flock(item.get(), LOCK_EX | LOCK_NB) == 0)
        return Lock::Ours;
    return errno == EWOULDBLOCK ? Lock::Others : Lock::Unsupported;
}

bool isStillThere(const FileDescriptor &folder, const QByteArray &name, const FileDescriptor &item)
{
    struct stat named;
    struct stat open;
    return ::fstatat(folder.get(), name.constData(), &named, AT_SYMLINK_NOFOLLOW) == 0
        && ::fstat(item.get(), &open) == 0 && named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

QString folderOfUpdater(const QString &name)
{
    const QString home = qEnvironmentVariable("HOME");
    return QDir::isAbsolutePath(home)
        ? QDir::cleanPath(home) + QLatin1String("/Library/Application Support/Wexmoor 7/") + name
        : QString();
}

} // namespace zel

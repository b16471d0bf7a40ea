#include "ProgramFile.h"

#include "BundleInfo.h"
#include "RealFolder.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace zel {

namespace {

// The name is one component, or a hostile plist could name any file.
QByteArray programName(const QString &bundle)
{
    const QVariantMap info = bundleInfo(bundle).value_or(QVariantMap());
    const QString name = info.value(QStringLiteral("CFBundleExecutable")).toString();
    return name.contains(u'/') ? QByteArray() : QFile::encodeName(name);
}

// What is no file or folder of its own: there is nothing to be made executable.
bool isAbsence(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG || error == ENXIO;
}

// Without a descriptor the reason is in `errno`.
FileDescriptor openProgram(const QString &bundle, const QByteArray &name)
{
    FileDescriptor folder = openRealFolder(bundle);
    for (const char *step : {"Contents", "MacOS"}) {
        if (folder)
            folder = FileDescriptor(::openat(folder.get(), step, RealFolderFlags));
    }
    // A pipe in its place must not be waited for.
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    return folder ? FileDescriptor(::openat(folder.get(), name.constData(), flags)) : std::move(folder);
}

} // namespace

QString programPath(const QString &bundle)
{
    const QByteArray name = programName(bundle);
    return name.isEmpty() ? QString() : QLatin1String("Contents/MacOS/") + QFile::decodeName(name);
}

ZELError ensureProgramIsExecutable(const QString &bundle)
{
    const QByteArray name = programName(bundle);
    if (name.isEmpty())
        return {};
    const QString what = QLatin1String("cannot make the program of ") + bundle + QLatin1String(" executable");
    const FileDescriptor program = openProgram(bundle, name);
    if (!program)
        return isAbsence(errno) ? ZELError() : ZELError::fromErrno(what, errno);
    struct stat status;
    if (::fstat(program.get(), &status) != 0)
        return ZELError::fromErrno(what, errno);
    const mode_t before = status.st_mode & 07777;
    const mode_t wanted = before | 0500 | (before & 0444) >> 2;
    if (!S_ISREG(status.st_mode) || wanted == before || ::fchmod(program.get(), wanted) == 0)
        return {};
    return ZELError::fromErrno(what, errno);
}

} // namespace zel

// These functions read bundles that may not have been verified yet. A property list is bounded before it is
// parsed, what stands in it names no file outside the bundle, and a mode is changed through descriptors that
// no link leads elsewhere.
#include "BundleInfo.h"

#include "common/WireValues.h"
#include "FileTree.h"
#include "PropertyList.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace zel {

namespace {

constexpr qint64 MaxInfoSize = 4 << 20;
const QString InnerInfo = QStringLiteral("/Contents/Info.plist");
const QString OuterInfo = QStringLiteral("/Info.plist");

QVariantMap readInfo(const QString &path)
{
    if (!QFileInfo(path).isFile()) // opening a pipe would wait for its writer
        return {};
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.read(MaxInfoSize + 1);
    if (bytes.size() > MaxInfoSize)
        return {};
    return readPropertyList(bytes).value_or(QVariantMap());
}

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

bool isRealBundle(const QString &path)
{
    return bool(openRealFolder(path));
}

QString contentsFolder(const QString &bundle)
{
    const QString contents = bundle + QLatin1String("/Contents");
    return QFileInfo(contents).isDir() ? contents : bundle;
}

std::optional<QVariantMap> bundleInfo(const QString &bundle)
{
    if (!QFileInfo(bundle).isDir())
        return std::nullopt;
    return readInfo(bundle + (QFileInfo::exists(bundle + InnerInfo) ? InnerInfo : OuterInfo));
}

bool hasInfo(const QString &bundle)
{
    const auto stands = [](const QFileInfo &item) { return item.exists() || item.isSymLink(); };
    return stands(QFileInfo(bundle + InnerInfo)) || stands(QFileInfo(bundle + OuterInfo));
}

std::optional<qint64> bundleBuild(const QString &bundle)
{
    const std::optional<QVariantMap> info = bundleInfo(bundle);
    if (!info)
        return std::nullopt;
    return integerValue(info->value(QStringLiteral("CFBundleVersion")));
}

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

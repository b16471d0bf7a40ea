#include "PatchRunner.h"

#include "common/DDLog.h"
#include "delta/bspatch2.h"
#include "MD5Digest.h"
#include "PatchLog.h"
#include "platform/FileContents.h"
#include "platform/FileTree.h"

#include <QFile>
#include <QFileInfo>

#include <array>
#include <cerrno>
#include <climits>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace zel {

namespace {

// ENOENT stands twice, and is written twice. Deliberate: readers of the system log count on the order of this list.
constexpr std::array<std::pair<int, const char *>, 10> ErrorNames = {{
    {ENOENT, "ENOENT"},
    {EACCES, "EACCES"},
    {EEXIST, "EEXIST"},
    {EIO, "EIO"},
    {ELOOP, "ELOOP"},
    {ENAMETOOLONG, "ENAMETOOLONG"},
    {ENOENT, "ENOENT"},
    {ENOSPC, "ENOSPC"},
    {ENOTDIR, "ENOTDIR"},
    {EROFS, "EROFS"},
}};

void writeErrorNames(int number)
{
    for (const auto &[value, name] : ErrorNames) {
        if (value == number)
            systemLog(QLatin1String(name));
    }
}

// For what takes a path: a delta is applied by a published function of paths, to a file that keeps its mode. The path
// is free of links, and stays so, since the bundles lie in folders of the user's own.
QString pathOf(const QString &bundle, const BundleItem &item)
{
    return bundle + u'/' + QFile::decodeName(item.path);
}

// The content of a file for the log; nothing of one that is large.
std::optional<QByteArray> smallFile(const QString &path)
{
    constexpr qint64 limit = 1 << 20;
    return QFileInfo(path).size() <= limit ? readFile(path) : std::nullopt;
}

} // namespace

bool PatchRunner::perform(const PatchCommand &command)
{
    if (command.action == PatchAction::None)
        return true;
    const auto last = command.action == PatchAction::Patch ? FinalLink::Follow : FinalLink::Keep;
    if (std::optional<BundleItem> target = m_new.find(command.path, last))
        return perform(command, *target);
    DDLogDebug(QLatin1String("Path is not inside the bundle: ") + command.path.left(PATH_MAX));
    appendEntry(m_log, QStringLiteral("Error: path is not inside the bundle"),
                {{QStringLiteral("file"), command.path.left(PATH_MAX)}});
    return false;
}

bool PatchRunner::perform(const PatchCommand &command, BundleItem &target)
{
    switch (command.action) {
    case PatchAction::DeleteSymlink:
        deleteSymlink(command, target);
        return true;
    case PatchAction::CreateSymlink:
        createSymlink(command, target);
        return true;
    case PatchAction::Delete:
        m_new.forgetFolders();
        if (target.missing.isEmpty())
            removeItem(target.folder, target.name.constData());
        return true;
    case PatchAction::AddDirectory:
        if (m_new.makeFolders(target))
            ::mkdirat(target.folder, target.name.constData(), 0777);
        return true;
    case PatchAction::Add:
        return add(command, target);
    case PatchAction::Patch:
        return patch(command, pathOf(m_newPath, target));
    case PatchAction::None:
        break;
    }
    return true;
}

void PatchRunner::deleteSymlink(const PatchCommand &command, const BundleItem &target)
{
    if (target.error != 0)
        symlinkFailed(target.error, "Error deleting symlink", command);
    else if (::unlinkat(target.folder, target.name.constData(), 0) != 0)
        symlinkFailed(errno, "Error deleting symlink", command);
}

void PatchRunner::createSymlink(const PatchCommand &command, const BundleItem &target)
{
    const QByteArray text = QFile::encodeName(command.symlink);
    if (target.error != 0)
        symlinkFailed(target.error, "Error creating symlink", command);
    else if (::symlinkat(text.constData(), target.folder, target.name.constData()) != 0)
        symlinkFailed(errno, "Error creating symlink", command);
}

void PatchRunner::symlinkFailed(int number, const char *description, const PatchCommand &command)
{
    DDLogDebug(QLatin1String(description) + QLatin1String(": ") + command.path);
    appendEntry(m_log, QLatin1String(description), {{QStringLiteral("file"), command.path}});
    writeErrorNames(number);
}

bool PatchRunner::add(const PatchCommand &command, BundleItem &target)
{
    const auto slice = m_patch.slice(command);
    if (slice && m_new.makeFolders(target) && writeFileAtomically(target.folder, target.name, *slice))
        return true;
    DDLogDebug(QLatin1String("Error adding file at path ") + command.path);
    appendEntry(m_log, QStringLiteral("Error creating file"), {{QStringLiteral("file"), command.path}});
    return false;
}

bool PatchRunner::patch(const PatchCommand &command, const QString &target)
{
    const std::optional<BundleItem> source = m_old.find(command.path, FinalLink::Follow);
    const QString original = source ? pathOf(m_oldPath, *source) : QString();
    if (!applyDelta(command, original, target)) {
        DDLogDebug(QLatin1String("Error patching file: ") + command.path);
        appendContents("Error patching file", command, original, target);
        return false;
    }
    const std::optional<QString> hash = MD5FromFile(target);
    if (hash && command.hash && *hash == *command.hash)
        return true;
    DDLogDebug(QLatin1String("Hash error: ") + command.path);
    appendContents("Hash error", command, original, target);
    return false;
}

bool PatchRunner::applyDelta(const PatchCommand &command, const QString &original, const QString &target)
{
    const auto slice = m_patch.slice(command);
    if (!slice || original.isNull())
        return false;
    // Each file is patched once at most, so that all old bytes are read once at most.
    m_readable -= QFileInfo(original).size();
    if (m_readable < 0)
        return false;
    return bspatch2(QFile::encodeName(original).toStdString(), QFile::encodeName(target).toStdString(),
                    std::as_bytes(std::span(slice->data(), size_t(slice->size()))))
        == 0;
}

void PatchRunner::appendContents(const char *description, const PatchCommand &command,
                                 const QString &original, const QString &target)
{
    QVariantMap keys{{QStringLiteral("file"), command.path}};
    if (const auto bytes = original.isNull() ? std::nullopt : smallFile(original))
        keys[QStringLiteral("original")] = *bytes;
    if (const auto bytes = smallFile(target))
        keys[QStringLiteral("new")] = *bytes;
    appendEntry(m_log, QLatin1String(description), keys);
}

} // namespace zel

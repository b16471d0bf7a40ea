#include "PatchRunner.h"

#include "bspatch2.h"
#include "BundlePath.h"
#include "DDLog.h"
#include "FileTree.h"
#include "MD5Digest.h"
#include "PatchLog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <array>
#include <cerrno>
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

} // namespace

bool PatchRunner::perform(const PatchCommand &command)
{
    if (command.action == PatchAction::None)
        return true;
    const auto last = command.action == PatchAction::Patch ? FinalLink::Follow : FinalLink::Keep;
    const QString target = pathInBundle(m_new, command.path, last);
    if (target.isNull()) {
        DDLogDebug(QLatin1String("Path is not inside the bundle: ") + command.path);
        return false;
    }
    switch (command.action) {
    case PatchAction::DeleteSymlink:
        return deleteSymlink(command, target);
    case PatchAction::CreateSymlink:
        return createSymlink(command, target);
    case PatchAction::Delete:
        removeTree(target);
        return true;
    case PatchAction::AddDirectory:
        QDir().mkpath(target);
        return true;
    case PatchAction::Add:
        return add(command, target);
    case PatchAction::Patch:
        return patch(command, target);
    case PatchAction::None:
        break;
    }
    return true;
}

bool PatchRunner::deleteSymlink(const PatchCommand &command, const QString &target)
{
    if (::unlink(QFile::encodeName(target).constData()) != 0)
        symlinkFailed(errno, "Error deleting symlink", command);
    return true;
}

bool PatchRunner::createSymlink(const PatchCommand &command, const QString &target)
{
    const QByteArray text = QFile::encodeName(command.symlink);
    if (::symlink(text.constData(), QFile::encodeName(target).constData()) != 0)
        symlinkFailed(errno, "Error creating symlink", command);
    return true;
}

void PatchRunner::symlinkFailed(int number, const char *description, const PatchCommand &command)
{
    DDLogDebug(QLatin1String(description) + QLatin1String(": ") + command.path);
    appendEntry(m_log, QLatin1String(description), {{QStringLiteral("file"), command.path}});
    writeErrorNames(number);
}

bool PatchRunner::add(const PatchCommand &command, const QString &target)
{
    QDir().mkpath(QFileInfo(target).path());
    const auto slice = m_patch.slice(command);
    if (slice && !writeFileAtomically(target, *slice))
        return true;
    DDLogDebug(QLatin1String("Error adding file at path ") + command.path);
    appendEntry(m_log, QStringLiteral("Error creating file"), {{QStringLiteral("file"), command.path}});
    return false;
}

bool PatchRunner::patch(const PatchCommand &command, const QString &target)
{
    const QString original = pathInBundle(m_old, command.path, FinalLink::Follow);
    const auto slice = m_patch.slice(command);
    if (!slice || original.isNull()
        || bspatch2(QFile::encodeName(original).toStdString(), QFile::encodeName(target).toStdString(),
                    std::as_bytes(std::span(slice->data(), size_t(slice->size()))))
            != 0) {
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

void PatchRunner::appendContents(const char *description, const PatchCommand &command,
                                 const QString &original, const QString &target)
{
    QVariantMap keys{{QStringLiteral("file"), command.path}};
    if (const auto bytes = original.isNull() ? std::nullopt : readFile(original))
        keys[QStringLiteral("original")] = *bytes;
    if (const auto bytes = readFile(target))
        keys[QStringLiteral("new")] = *bytes;
    appendEntry(m_log, QLatin1String(description), keys);
}

} // namespace zel

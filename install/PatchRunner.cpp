// A manifest is a stranger's text that ends in system calls, so three rules stand before any of its commands:
//
// - Where: every path is walked name by name from the bundle's root (BundleWalk.h), by descriptors. One that
//   leaves the bundle is refused in `perform`, before anything is touched, and ends the patch. Rejected was
//   to compare resolved paths: between the look and the act a command of the same patch may have put a link
//   there.
// - How much: `judgeWrites` adds up what the commands will write, from their slices alone, and compares it
//   with the payload and with the disk. A small file that fills a disk is found before its first byte.
// - How often: each old byte is read once at most, in format 2 about as often as bytes may be written
//   (`m_readable`), and all walks share one bound of names, so that 200,000 commands on one large file take
//   no longer than an honest patch does.
//
// The formats differ in how files come to be. Format 1 writes a delta's result into the copied file, which
// keeps its mode. Format 2 builds each file aside from the old bundle alone (`build`), judges it, sets its
// mode and then moves it into place: the order of the commands does not matter, and a file that has its name
// is the right one.
//
// Links that cannot be made or removed, and items that cannot be deleted, are no failures: what matters of
// them shows in the seal of the result.
#include "PatchRunner.h"

#include "common/DDLog.h"
#include "delta/bspatch2.h"
#include "DeltaFile.h"
#include "MD5Digest.h"
#include "move/movedelta.h"
#include "PatchLog.h"
#include "platform/FileTree.h"
#include "SHA256.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace zel {

namespace {

// ENOENT stands twice, and is written twice. Deliberate: readers of the system log count on the order of this
// list.
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

// For what takes a path: a delta is applied by a published function of paths, to a file that keeps its mode.
// The path is free of links, and stays so, since the bundles lie in folders of the user's own.
QString pathOf(const QString &bundle, const WalkedItem &item)
{
    return bundle + u'/' + QFile::decodeName(item.path);
}

// The content of a file for the log; nothing of one that is large.
std::optional<QByteArray> smallFile(const QString &path)
{
    constexpr qint64 limit = 1 << 20;
    return QFileInfo(path).size() <= limit ? readFile(path) : std::nullopt;
}

constexpr qint64 DiskBlock = 4096;

bool makesFolders(PatchAction action)
{
    return action == PatchAction::AddDirectory || buildsFile(action);
}

// What a command takes of the payload and gives, in bytes; nothing for one that has to fail by itself.
struct Work {
    qint64 content = 0;
    qint64 outcome = 0;
};

Work workOf(const PatchFile &patch, const PatchCommand &command)
{
    if (command.action == PatchAction::Copy)
        return {0, command.size.value_or(0)};
    const std::optional<qint64> content = patch.sizeOfContent(command);
    if (!content || command.action == PatchAction::Add)
        return {content.value_or(0), content.value_or(0)};
    if (command.size)
        return {*content, *command.size};
    // What claims more is corrupt, which is found before anything is written.
    return {*content, std::min(outcomeOf(*patch.contentOf(command)), 2 * *content)};
}

// How many names of a path are not those that the path before begins with, too: no fewer than it adds
// folders.
qint64 newNames(QStringView path, QStringView before)
{
    const auto shared = std::mismatch(path.begin(), path.end(), before.begin(), before.end()).first;
    return std::count(shared, path.end(), QChar(u'/')) + 1;
}

} // namespace

ZELError judgeWrites(const PatchFile &patch, const QString &folder, qint64 oldSize)
{
    const bool first = patch.manifest.format == 1;
    const qint64 limit = first ? 2 * qint64(patch.payload.size()) + SmallChange : patch.changeLimit(oldSize);
    qint64 used = 0;
    qint64 space = 0;
    QStringView before;
    for (const PatchCommand &command : patch.manifest.commands) {
        if (makesFolders(command.action)) {
            space += DiskBlock * newNames(command.path, before);
            before = command.path;
        }
        const Work work = workOf(patch, command);
        used += std::max(work.outcome, work.content);
        space += (work.outcome + DiskBlock - 1) / DiskBlock * DiskBlock;
        if (used > limit)
            return ZELError::withMessage(
                first
                    ? QStringLiteral("its commands use more than twice its payload of %1 bytes")
                          .arg(patch.payload.size())
                    : QStringLiteral("its commands build more than the %1 bytes that a patch of its size may")
                          .arg(limit));
    }
    return requireSpace(folder, space);
}

bool PatchRunner::perform(const PatchCommand &command)
{
    if (command.action == PatchAction::None)
        return true;
    const bool intoFile = command.action == PatchAction::Patch && m_patch.manifest.format == 1;
    const auto last = intoFile ? FinalLink::Follow : FinalLink::Keep;
    if (std::optional<WalkedItem> target = m_new.find(command.path, last))
        return perform(command, *target);
    DDLogDebug(QLatin1String("Path is not inside the bundle: ") + command.path.left(PATH_MAX));
    appendEntry(m_log, QStringLiteral("Error: path is not inside the bundle"),
                {{QStringLiteral("file"), command.path.left(PATH_MAX)}});
    return false;
}

bool PatchRunner::perform(const PatchCommand &command, WalkedItem &target)
{
    if (buildsFile(command.action) && m_patch.manifest.format > 1)
        return build(command, target);
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
    case PatchAction::Mode:
        return setMode(command, target);
    case PatchAction::Copy:
    case PatchAction::None:
        break;
    }
    return true;
}

void PatchRunner::deleteSymlink(const PatchCommand &command, const WalkedItem &target)
{
    if (target.error != 0)
        symlinkFailed(target.error, "Error deleting symlink", command);
    else if (::unlinkat(target.folder, target.name.constData(), 0) != 0)
        symlinkFailed(errno, "Error deleting symlink", command);
}

void PatchRunner::createSymlink(const PatchCommand &command, const WalkedItem &target)
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

bool PatchRunner::add(const PatchCommand &command, WalkedItem &target)
{
    const auto content = m_patch.contentOf(command);
    if (content && m_new.makeFolders(target) && writeFileAtomically(target.folder, target.name, *content))
        return true;
    DDLogDebug(QLatin1String("Error adding file at path ") + command.path);
    appendEntry(m_log, QStringLiteral("Error creating file"), {{QStringLiteral("file"), command.path}});
    return false;
}

bool PatchRunner::patch(const PatchCommand &command, const QString &target)
{
    const std::optional<WalkedItem> source = m_old.find(command.path, FinalLink::Follow);
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
    const auto delta = m_patch.contentOf(command);
    if (!delta || original.isNull())
        return false;
    // Each file is patched once at most, so that all old bytes are read once at most.
    m_readable -= QFileInfo(original).size();
    if (m_readable < 0)
        return false;
    return bspatch2(QFile::encodeName(original).toStdString(), QFile::encodeName(target).toStdString(),
                    std::as_bytes(std::span(delta->data(), size_t(delta->size()))))
        == 0;
}

bool PatchRunner::build(const PatchCommand &command, WalkedItem &target)
{
    if (!m_new.makeFolders(target))
        return failed("Error creating file", command);
    FileAside file(target.folder, target.name);
    if (!file)
        return failed("Error creating file", command);
    const QString path = QFileInfo(pathOf(m_newPath, target)).path() + u'/' + QFile::decodeName(file.name());
    if (!fill(command, file, path))
        return command.action == PatchAction::Patch ? patchFailed("Error patching file", command, path)
                                                    : failed("Error creating file", command);
    if ((command.sha256 && sha256OfFile(file.descriptor()) != command.sha256)
        || (command.hash && MD5FromFile(path) != command.hash))
        return patchFailed("Hash error", command, path);
    if (command.mode && ::fchmod(file.descriptor(), mode_t(*command.mode)) != 0)
        return failed("Error setting mode", command);
    return file.moveIntoPlace() || failed("Error creating file", command);
}

bool PatchRunner::fill(const PatchCommand &command, const FileAside &file, const QString &path)
{
    const bool copies = command.action == PatchAction::Copy;
    const auto content = copies ? QByteArray() : m_patch.contentOf(command);
    if (!content)
        return false;
    if (command.action == PatchAction::Add)
        return writeAll(file.descriptor(), content->data(), size_t(content->size()));
    const std::optional<WalkedItem> source = m_old.find(command.from, FinalLink::Follow);
    const auto old = source ? openOld(command, *source) : std::nullopt;
    if (!old)
        return false;
    if (copies)
        return copyData(old->get(), file.descriptor());
    if (outcomeOf(*content) != command.size)
        return false;
    if (isMoveDelta({reinterpret_cast<const unsigned char *>(content->data()), size_t(content->size())}))
        return applyMoveDeltaFile(old->get(), *content, file.descriptor());
    return bspatch2(QFile::encodeName(pathOf(m_oldPath, *source)).toStdString(),
                    QFile::encodeName(path).toStdString(),
                    std::as_bytes(std::span(content->data(), size_t(content->size()))))
        == 0;
}

// A file of the old bundle, as far as there may be read on. A copy has its size, too.
std::optional<FileDescriptor> PatchRunner::openOld(const PatchCommand &command, const WalkedItem &item)
{
    FileDescriptor file(
        ::openat(item.folder, item.name.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!item.missing.isEmpty() || !file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    m_readable -= status.st_size;
    const bool suits = command.action == PatchAction::Copy ? status.st_size == command.size
                                                           : status.st_size <= PatchManifest::DeltaFileLimit;
    return suits && m_readable >= 0 ? std::optional(std::move(file)) : std::nullopt;
}

bool PatchRunner::setMode(const PatchCommand &command, const WalkedItem &target)
{
    struct stat status;
    const char *const name = target.name.constData();
    const bool set = target.missing.isEmpty() && command.mode
        && ::fstatat(target.folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode)
        && ::fchmodat(target.folder, name, mode_t(*command.mode), AT_SYMLINK_NOFOLLOW) == 0;
    return set || failed("Error setting mode", command);
}

bool PatchRunner::failed(const char *description, const PatchCommand &command)
{
    DDLogDebug(QLatin1String(description) + QLatin1String(": ") + command.path);
    appendEntry(m_log, QLatin1String(description), {{QStringLiteral("file"), command.path}});
    return false;
}

bool PatchRunner::patchFailed(const char *description, const PatchCommand &command, const QString &path)
{
    DDLogDebug(QLatin1String(description) + QLatin1String(": ") + command.path);
    const auto source =
        command.action == PatchAction::Add ? std::nullopt : m_old.find(command.from, FinalLink::Follow);
    appendContents(description, command, source ? pathOf(m_oldPath, *source) : QString(), path);
    return false;
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

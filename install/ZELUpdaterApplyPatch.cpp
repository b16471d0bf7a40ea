// From an old bundle and a patch file to a new bundle, and the small exported functions beside it. The order
// of the steps is what makes it safe:
//
// 1. `clearPlace` refuses two bundles that hold each other, before anything is removed, and asks for the
//    disk's space.
// 2. The patch file is read on a thread of its own while the old bundle is copied (`PatchReading`): unpacking
//    and copying need different parts of the machine. How large the payload may be is computed in
//    `PatchFile::Reading::payloadLimit`; one of more than `Reading::memory`, a quarter of the machine's, goes
//    to a file without a name (`LargeBuffer`).
// 3. Modes are set before the commands: what "add" of format 1 writes keeps its default mode, as publishers
//    expect.
// 4. `judgeWrites` looks at all commands before `PatchRunner` performs the first.
//
// The log's entries and their order are read by those who make patches, and stay as they are.
#include "ZELUpdaterApplyPatch.h"

#include "base/FileDescriptor.h"
#include "base/SignalShield.h"
#include "common/DDLog.h"
#include "MD5Digest.h"
#include "PatchFile.h"
#include "PatchLog.h"
#include "PatchRunner.h"
#include "platform/BundleInfo.h"
#include "platform/Containment.h"
#include "platform/FileContents.h"
#include "platform/FileTree.h"
#include "seal/BundleSeal.h"
#include "StagingFolder.h"
#include "ZELUpdaterValidateCodeSigning.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

#include <algorithm>
#include <array>
#include <filesystem>
#include <future>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zel;

namespace {

void appendItem(QVariantList &log, const char *description, const QString &path)
{
    appendEntry(log, QLatin1String(description),
                {{QStringLiteral("path"), path}, {QStringLiteral("exists"), QFileInfo::exists(path)}});
}

// The path of the new bundle itself: what stands there is replaced, never what it points at.
struct Place {
    explicit Place(QString newPath)
    {
        while (newPath.endsWith(u'/')) // behind a link's name they would mean what it points at
            newPath.chop(1);
        path = newPath;
        folder = QFileInfo(newPath).path();
    }

    QString path;
    QString folder;
};

// Removing what stands at the new path must never remove the old bundle, and a copy cannot hold itself.
bool overlap(const QString &oldPath, const Place &place)
{
    const bool isLink = QFileInfo(place.path).isSymLink();
    return liesWithin(isLink ? place.folder : place.path, oldPath)
        || (!isLink && liesWithin(oldPath, place.path));
}

ZELError clearPlace(const QString &oldPath, const Place &place, qint64 oldSize)
{
    if (overlap(oldPath, place))
        return ZELError::withMessage(place.path + QLatin1String(" and ") + oldPath
                                     + QLatin1String(" must not contain each other"));
    removeTree(place.path);
    return requireSpace(place.folder, oldSize);
}

bool copyFailed(const ZELError &error, const QString &newPath, QVariantList &log)
{
    const QString description = QLatin1String("Error copying old app: ") + error.message;
    appendEntry(log, description, {{QStringLiteral("path"), newPath}});
    DDLogDebug(description);
    return false;
}

// A patch file that is read and decompressed on a thread of its own, where there can be one.
class PatchReading
{
public:
    PatchReading(const QString &path, const PatchFile::Reading &reading)
    {
        const BlockedSignals blocked(BlockedSignals::asynchronous()); // on the thread, which inherits it
        // Without a policy: where there is no thread to be had, `error` reads on the caller's.
        m_error = std::async([this, path, reading] { return PatchFile::read(path, reading, m_patch); });
    }

    PatchReading(const PatchReading &) = delete;
    PatchReading &operator=(const PatchReading &) = delete;

    // Waits; to be called once.
    ZELError error() { return m_error.get(); }
    const PatchFile &patch() const { return m_patch; }

private:
    PatchFile m_patch;
    std::future<ZELError> m_error;
};

// Deliberate: nothing uses the folder. It marks in the temporary folder that a patch was applied.
void makeMarkerFolder()
{
    QDir(QDir::tempPath()).mkdir(newUUID());
}

bool performCommands(const QString &oldPath, const Place &place, qint64 oldSize, const PatchFile &patch,
                     QVariantList &log, const std::stop_token &stop)
{
    if (const ZELError error = judgeWrites(patch, place.folder, oldSize)) {
        DDLogDebug(error.message);
        appendEntry(log, QLatin1String("Error: ") + error.message);
        return false;
    }
    PatchRunner runner(oldPath, place.path, oldSize, patch, log);
    return std::ranges::all_of(patch.manifest.commands, [&](const PatchCommand &command) {
        return !stop.stop_requested() && runner.perform(command);
    });
}

// Sets the mode of a folder and of all below it to 755, by running "/bin/chmod -R 755" on it directly: the
// path is an argument, never text for a shell. Whether it worked shows in what follows.
void makeExecutableTree(const QString &path)
{
    QByteArray name = QFile::encodeName(path);
    char program[] = "/bin/chmod";
    char recursive[] = "-R";
    char mode[] = "755";
    char endOfOptions[] = "--";
    const std::array<char *, 6> arguments = {program, recursive, mode, endOfOptions, name.data(), nullptr};
    pid_t child = 0;
    if (::posix_spawn(&child, program, nullptr, nullptr, arguments.data(), environ) != 0)
        return;
    uninterrupted([child] { return ::waitpid(child, nullptr, 0); });
}

// Files keep the modes that they were copied with, folders are open to be changed.
void openFolders(const QString &path)
{
    namespace fs = std::filesystem;
    constexpr auto mode = fs::perms(0755);
    const fs::path root = QFile::encodeName(path).toStdString();
    std::error_code error; // whether it worked shows in what follows
    fs::permissions(root, mode, error);
    for (fs::recursive_directory_iterator items(root, error), end; !error && items != end;
         items.increment(error)) {
        if (items->symlink_status(error).type() == fs::file_type::directory)
            fs::permissions(items->path(), mode, fs::perm_options::replace, error);
    }
}

bool applyPatchFile(const QString &oldPath, const Place &place, qint64 oldSize, PatchReading &reading,
                    QVariantList &log, const std::stop_token &stop)
{
    if (const ZELError error = reading.error()) {
        DDLogDebug(error.message);
        return false;
    }
    // Before the commands: what "add" writes keeps its default mode.
    if (reading.patch().manifest.format == 1)
        makeExecutableTree(place.path);
    else
        openFolders(place.path);
    makeMarkerFolder();
    if (!performCommands(oldPath, place, oldSize, reading.patch(), log, stop))
        return false;
    const ZELError error = ensureProgramIsExecutable(place.path);
    if (error)
        DDLogDebug(error.message);
    return !error;
}

bool buildBundle(const QString &oldPath, const QString &newPath, const QString &patchPath, QVariantList &log,
                 const std::stop_token &stop)
{
    const Place place(newPath);
    const qint64 oldSize = treeSize(oldPath);
    // Deliberate: a copy that fails ends the log with its own entry, without "Patch failed".
    if (const ZELError error = clearPlace(oldPath, place, oldSize))
        return copyFailed(error, newPath, log);
    // Begins here, because a patch that lies at the new path must be gone by now.
    PatchReading reading(patchPath, {.oldBundle = oldSize, .folder = place.folder});
    if (const ZELError error = copyTree(oldPath, place.path))
        return copyFailed(error, newPath, log);
    appendItem(log, "New file", newPath);
    appendEntry(log, QStringLiteral("chmod'ing new file"));
    const bool applied = applyPatchFile(oldPath, place, oldSize, reading, log, stop);
    DDLogDebug(applied ? QStringLiteral("patch succeeded") : QStringLiteral("patch failed"));
    appendEntry(log, applied ? QStringLiteral("Patch succeeded") : QStringLiteral("Patch failed"));
    return applied;
}

bool applyPatch(const QString &oldPath, const QString &newPath, const QString &patchPath, QVariantList &log,
                const std::stop_token &stop)
{
    if (oldPath.isNull() || newPath.isNull() || patchPath.isNull()) {
        appendEntry(log, QStringLiteral("Missing one or more paths"));
        return false;
    }
    appendEntry(log, QStringLiteral("Starting Patch"));
    appendItem(log, "Old file", oldPath);
    appendItem(log, "Patch file", patchPath);
    DDLogDebug(QStringLiteral("Applying patch"));
    DDLogDebug(QLatin1String("Old File: ") + oldPath);
    DDLogDebug(QLatin1String("New File: ") + newPath);
    DDLogDebug(QLatin1String("Patch File: ") + patchPath);
    return buildBundle(oldPath, newPath, patchPath, log, stop);
}

QString hashOrEmpty(const QString &path)
{
    return zel::MD5FromFile(path).value_or(QString());
}

} // namespace

bool zel::applyBundlePatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                           QVariantList &log, const std::stop_token &stop)
{
    const SignalShield shield;
    try {
        try {
            return applyPatch(oldPath, newPath, patchPath, log, stop);
        } catch (const std::exception &error) {
            // Memory is exhausted, most likely; by now much of it is free again.
            DDLogDebug(QLatin1String("patch failed: ") + QLatin1String(error.what()));
            appendEntry(log, QStringLiteral("Patch failed"));
        }
    } catch (const std::bad_alloc &) {
        // Not even enough for the log.
    }
    return false;
}

bool ZELUpdaterApplyPatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                          QVariantList &log)
{
    return applyBundlePatch(oldPath, newPath, patchPath, log, {});
}

bool ZELUpdaterTestPatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                         const QString &expectedPath)
{
    QVariantList log;
    ZELUpdaterApplyPatch(oldPath, newPath, patchPath, log);
    bool result = MD5Digest().result().has_value(); // without digests nothing is known to be equal
    const QDir expected(expectedPath);
    QDirIterator items(expectedPath, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                       QDirIterator::Subdirectories);
    while (items.hasNext()) {
        const QString item = items.next();
        const QString relative = expected.relativeFilePath(item);
        const QString built = newPath + u'/' + relative;
        if (QFileInfo(built).isSymLink() || QFileInfo(item).isDir()
            || hashOrEmpty(item) == hashOrEmpty(built))
            continue;
        DDLogDebug(QStringLiteral("hash error"));
        DDLogDebug(relative);
        result = false;
    }
    systemLog(result ? QStringLiteral("Successfully patched") : QStringLiteral("Patching failed"));
    return result;
}

QString ZELUpdaterEscapeString(const QString &string)
{
    QString escaped = string;
    for (const char16_t character : {u'(', u')', u' ', u'&'})
        escaped.replace(QChar(character), QString(u'\\') + QChar(character));
    return escaped;
}

bool ZELUpdaterValidateCodeSigning(const QUrl &bundle)
{
    if (!bundle.isLocalFile() || !bundle.host().isEmpty()) // a host would become the first part of the path
        return false;
    const ZELError error = verifySeal(bundle.toLocalFile());
    if (error)
        systemLog(error.message);
    return !error;
}

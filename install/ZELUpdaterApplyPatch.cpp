#include "ZELUpdaterApplyPatch.h"

#include "DDLog.h"
#include "FileTree.h"
#include "PatchFile.h"
#include "PatchLog.h"
#include "PatchRunner.h"
#include "Permissions.h"
#include "StagingFolder.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <future>

using namespace zel;

namespace {

void appendItem(QVariantList &log, const char *description, const QString &path)
{
    appendEntry(log, QLatin1String(description),
                {{QStringLiteral("path"), path}, {QStringLiteral("exists"), QFileInfo::exists(path)}});
}

// Removing what stands at the new path must never remove the old bundle, and a copy cannot hold itself.
bool overlap(const QString &oldPath, const QString &newPath)
{
    return liesWithin(oldPath, newPath) || liesWithin(newPath, oldPath);
}

ZELError makeRoom(const QString &oldPath, const QString &newPath)
{
    if (overlap(oldPath, newPath))
        return ZELError::withMessage(newPath + QLatin1String(" and ") + oldPath
                                     + QLatin1String(" must not contain each other"));
    removeTree(newPath);
    return {};
}

bool copyFailed(const ZELError &error, const QString &newPath, QVariantList &log)
{
    const QString description = QLatin1String("Error copying old app: ") + error.message;
    appendEntry(log, description, {{QStringLiteral("path"), newPath}});
    DDLogDebug(description);
    return false;
}

/// A patch file that is read and decompressed on a thread of its own, where there can be one.
class PatchReading
{
public:
    explicit PatchReading(const QString &path)
        : m_error(std::async([this, path] { return PatchFile::read(path, m_patch); }))
    {
    }

    PatchReading(const PatchReading &) = delete;
    PatchReading &operator=(const PatchReading &) = delete;

    /// Waits; to be called once.
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

bool performCommands(const QString &oldPath, const QString &newPath, const PatchFile &patch,
                     QVariantList &log)
{
    PatchRunner runner(oldPath, newPath, patch, log);
    return std::ranges::all_of(patch.commands,
                               [&runner](const PatchCommand &command) { return runner.perform(command); });
}

bool applyPatchFile(const QString &oldPath, const QString &newPath, PatchReading &reading, QVariantList &log)
{
    if (const ZELError error = reading.error()) {
        DDLogDebug(error.message);
        return false;
    }
    makeMarkerFolder();
    return performCommands(oldPath, newPath, reading.patch(), log);
}

} // namespace

bool ZELUpdaterApplyPatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                          QVariantList &log)
{
    if (newPath.isNull() || oldPath.isNull() || patchPath.isNull()) {
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
    // Deliberate: a copy that fails ends the log with its own entry, without "Patch failed".
    if (const ZELError error = makeRoom(oldPath, newPath))
        return copyFailed(error, newPath, log);
    // Begins here, because a patch that lies at the new path must be gone by now.
    PatchReading reading(patchPath);
    if (const ZELError error = copyTree(oldPath, newPath))
        return copyFailed(error, newPath, log);
    appendItem(log, "New file", newPath);
    appendEntry(log, QStringLiteral("chmod'ing new file"));
    // Before the commands: what "add" writes keeps its default mode.
    makeExecutableTree(newPath);
    const bool applied = applyPatchFile(oldPath, newPath, reading, log);
    DDLogDebug(applied ? QStringLiteral("patch succeeded") : QStringLiteral("patch failed"));
    appendEntry(log, applied ? QStringLiteral("Patch succeeded") : QStringLiteral("Patch failed"));
    return applied;
}

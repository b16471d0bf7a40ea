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

bool copyOldBundle(const QString &oldPath, const QString &newPath, QVariantList &log)
{
    ZELError error;
    if (overlap(oldPath, newPath)) {
        error = ZELError::withMessage(newPath + QLatin1String(" and ") + oldPath
                                      + QLatin1String(" must not contain each other"));
    } else {
        removeTree(newPath);
        error = copyTree(oldPath, newPath);
    }
    if (!error)
        return true;
    const QString description = QLatin1String("Error copying old app: ") + error.message;
    appendEntry(log, description, {{QStringLiteral("path"), newPath}});
    DDLogDebug(description);
    return false;
}

// Deliberate: nothing uses the folder. It marks in the temporary folder that a patch was applied.
void makeMarkerFolder()
{
    QDir(QDir::tempPath()).mkdir(newUUID());
}

bool applyPatchFile(const QString &oldPath, const QString &newPath, const QString &patchPath,
                    QVariantList &log)
{
    PatchFile patch;
    if (const ZELError error = PatchFile::read(patchPath, patch)) {
        DDLogDebug(error.message);
        return false;
    }
    makeMarkerFolder();
    PatchRunner runner(oldPath, newPath, patch, log);
    for (const PatchCommand &command : patch.commands) {
        if (!runner.perform(command))
            return false;
    }
    return true;
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
    if (!copyOldBundle(oldPath, newPath, log))
        return false;
    appendItem(log, "New file", newPath);
    appendEntry(log, QStringLiteral("chmod'ing new file"));
    // Before the commands: what "add" writes keeps its default mode.
    makeExecutableTree(newPath);
    const bool applied = applyPatchFile(oldPath, newPath, patchPath, log);
    DDLogDebug(applied ? QStringLiteral("patch succeeded") : QStringLiteral("patch failed"));
    appendEntry(log, applied ? QStringLiteral("Patch succeeded") : QStringLiteral("Patch failed"));
    return applied;
}

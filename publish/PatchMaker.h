// Making a bundle patch out of two bundles.
#pragma once

#include "base/SystemCalls.h"
#include "BundleTree.h"
#include "common/ZELError.h"

#include <QString>
#include <QStringList>
#include <QVariantList>

#include <functional>

namespace zel {

struct PatchMakerOptions {
    /// 1, for readers of every version, or 2, for those that know it: smaller, and with the files' modes.
    int format = 2;
    /// Of format 1: make the patch although executables lose their executable bit by it.
    bool allowLostModes = false;
    /// Bytes that deltas and encoders made at the same time may take together.
    qint64 memory = machineMemory() / 2;
    /// Bytes; may be left out. Called on any thread, one call at a time.
    std::function<void(const QString &step, qint64 done, qint64 total)> progress = {};
};

struct PatchSummary {
    qint64 size = 0; ///< of the patch file, in bytes
    int removed = 0;
    int folders = 0;
    int links = 0;
    int added = 0; ///< files that travel whole
    int patched = 0; ///< files that travel as deltas
    int copied = 0; ///< files that are in the old bundle under another name
    int modes = 0; ///< files of which the mode alone changes
    QStringList requirements; ///< what a reader of the format must know besides
    QStringList lostModes; ///< executables that arrive without their executable bit
};

/// Why `ZELUpdaterApplyPatch` did not apply a patch, given the log of it, in words for a person.
QString whyNotApplied(const QVariantList &log, const QString &oldPath, const QString &patchPath);

/// Why a patch does not turn the bundle `oldPath` into the bundle `newPath`; no error when it does, byte by
/// byte. The patch may be hostile. It is applied at `built`, where what stands is replaced, and which stays.
ZELError provePatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                    const QString &built, Modes modes);

/// Writes the patch file that turns the bundle `oldPath` into the bundle `newPath`, and proves it: the patch
/// is applied to a copy and the outcome compared item by item, byte by byte, in format 2 with the modes,
/// before the file gets its name. On an error nothing is left at `patchPath` that was not there before. Works
/// on all processors. Peak memory: the payload, and besides `options.memory` or, if that is more, what the
/// largest changed file takes by itself (nine bytes per old byte, three per new byte and 90 MiB) or the
/// encoder of one block (370 MiB).
ZELError makePatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                   const PatchMakerOptions &options, PatchSummary &summary);

} // namespace zel

#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QString>

/// Applies a patch as `ZELUpdaterApplyPatch` does and compares the result with a reference bundle: true when every
/// regular file of `expectedPath` has the same `MD5FromData` in `newPath`. Files that the reference does not have,
/// links and folders are not looked at, and a file that cannot be read counts as empty; nor can files be told apart
/// whose length is a multiple of 32768. An empty or missing reference gives true. Blocks the calling thread.
ZEL_EXPORT bool ZELUpdaterTestPatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                                    const QString &expectedPath);

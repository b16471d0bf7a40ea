// Which old file each new one is built from, where patches may name any.
#pragma once

#include "BundleTree.h"

namespace zel {

/// A plan as `planPatch` makes it, refined for format 2: files with the bytes of an old one become copies of
/// it, others deltas of the old file that they resemble most; all get their SHA-256 and their mode, files
/// that stay and change their mode included. What is read of old files stays within what a reader allows. An
/// error when a file cannot be read. Reads both bundles, on all processors; memory: the files that are read
/// at the time, and about 5 KiB for each file of the old bundle.
ZELError planMovedFiles(const QString &oldBundle, const BundleTree &oldTree, const QString &newBundle,
                        const BundleTree &newTree, PatchPlan &plan);

} // namespace zel

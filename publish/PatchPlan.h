// Which commands turn one bundle into another. Decides only: no file is read.
#pragma once

#include "BundleTree.h"
#include "install/PatchFile.h"

#include <set>
#include <vector>

namespace zel {

/// How a new file's content travels.
enum class Transport {
    Whole, ///< no old file at its path
    Delta, ///< as a delta, always: only a delta's result keeps the file and with it the executable mode
    Smaller, ///< as a delta or whole, whichever is smaller
};

struct PlannedFile {
    QString path;
    Transport transport;
};

struct PatchPlan {
    std::vector<PatchCommand> removals; ///< to be performed first: they make room for what follows
    std::vector<PatchCommand> folders; ///< parents before their contents
    std::vector<PlannedFile> files;
    std::vector<PatchCommand> links; ///< to be performed last: nothing is written through a new link
    std::vector<QString> lostModes; ///< executables that would arrive without their executable bit
};

/// `changed` holds the paths of those files, present in both trees, whose content differs. `program` is the
/// one that is made executable wherever the patch is applied; it may be null.
PatchPlan planPatch(const BundleTree &oldTree, const BundleTree &newTree, const std::set<QString> &changed,
                    const QString &program);

} // namespace zel

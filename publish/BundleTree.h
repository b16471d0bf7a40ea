// What a bundle holds, item by item, how two bundles differ, and which commands turn one into the other.
#pragma once

#include "common/ZELError.h"
#include "install/PatchFile.h"

#include <QString>

#include <map>
#include <set>
#include <vector>

namespace zel {

struct TreeItem {
    enum Kind { File, Folder, Link };
    Kind kind = File;
    int mode = 0; ///< of a file: its permission bits
    qint64 size = 0; ///< of a file, in bytes
    QString target; ///< of a link

    bool isExecutable() const { return (mode & 0111) != 0; }
};

/// Items by their path below the bundle's root; a folder comes before what it holds.
using BundleTree = std::map<QString, TreeItem>;

/// Reads a bundle's tree. An error when `bundle` is no folder, when something cannot be read, has a name that
/// is not UTF-8, or is neither file, folder nor link: none of these can travel in a patch.
ZELError readBundleTree(const QString &bundle, BundleTree &tree);

enum class Modes { Ignored, Compared };

/// The paths at which two bundles differ: in kind, in a link's target, in a file's bytes or, if those are
/// compared, its mode. An error when one of them cannot be read.
ZELError compareBundles(const QString &first, const QString &second, Modes modes,
                        std::vector<QString> &differences);

/// Whether two files hold the same bytes; files that cannot be read are not equal to anything.
bool haveSameContent(const QString &first, const QString &second);

/// How a new file's content travels.
enum class Transport {
    Whole, ///< no old file at its path
    Delta, ///< as a delta, always: only a delta's result keeps the file and with it the executable mode
    Smaller, ///< as a delta or whole, whichever is smaller
    Copy, ///< as the name of an old file with the same bytes
};

struct PlannedFile {
    QString path;
    Transport transport;
    QString from = {}; ///< the old file, unless it is `Whole`
    QString sha256 = {}; ///< where `planMovedFiles` was asked, as the next one
    std::optional<int> mode = {};
};

struct PatchPlan {
    std::vector<PatchCommand> removals; ///< to be performed first: they make room for what follows
    std::vector<PatchCommand> folders; ///< parents before their contents
    std::vector<PlannedFile> files;
    std::vector<PatchCommand> modes; ///< of files that stay
    std::vector<PatchCommand> links; ///< to be performed last: nothing is written through a new link
    std::vector<QString> lostModes; ///< executables that would arrive without their executable bit
};

/// Which commands turn one bundle into another. Decides only: no file is read. `changed` holds the paths of
/// those files, present in both trees, whose content differs. `program` is the one that is made executable
/// wherever the patch is applied; it may be null.
PatchPlan planPatch(const BundleTree &oldTree, const BundleTree &newTree, const std::set<QString> &changed,
                    const QString &program);

} // namespace zel

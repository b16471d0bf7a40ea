// What a bundle holds, item by item.
#pragma once

#include "common/ZELError.h"

#include <QString>

#include <map>
#include <vector>

namespace zel {

struct BundleItem {
    enum Kind { File, Folder, Link };
    Kind kind = File;
    bool executable = false;
    qint64 size = 0; ///< of a file, in bytes
    QString target; ///< of a link
};

/// Items by their path below the bundle's root; a folder comes before what it holds.
using BundleTree = std::map<QString, BundleItem>;

/// Reads a bundle's tree. An error when `bundle` is no folder, when something cannot be read, has a name that
/// is not UTF-8, or is neither file, folder nor link: none of these can travel in a patch.
ZELError readBundleTree(const QString &bundle, BundleTree &tree);

/// The paths at which two bundles differ: in kind, in a link's target or in a file's bytes. Modes are not
/// compared. An error when one of them cannot be read.
ZELError compareBundles(const QString &first, const QString &second, std::vector<QString> &differences);

/// Whether two files hold the same bytes; files that cannot be read are not equal to anything.
bool haveSameContent(const QString &first, const QString &second);

} // namespace zel

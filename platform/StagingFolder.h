// Where downloads and new bundles are put until the host has used them.
#pragma once

#include "ZELError.h"

#include <QString>

namespace zel {

/// The folder that holds the staging folders: "~/Library/Application Support/Wexmoor 7/Patch" of the user.
QString stagingRoot();

/// The path of a new staging folder below `root`, named by a new UUID and not made yet. Ends in "/".
QString newStagingPath(const QString &root);

/// A new UUID as the file names of the updater bear it: upper case, without braces.
QString newUUID();

} // namespace zel

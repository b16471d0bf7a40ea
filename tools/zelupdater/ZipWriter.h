#pragma once

#include "ZELError.h"

#include <QString>

namespace zel {

/// Writes a zip archive of a bundle: the bundle's folder is the archive's one item at the top. Modes, times and
/// symbolic links are kept. What stood at `zipPath` is replaced once the archive is whole.
ZELError writeBundleZip(const QString &bundle, const QString &zipPath);

} // namespace zel

#pragma once

#include "common/ZELError.h"

#include <QString>

namespace zel {

/// Writes a zip archive of a bundle: the bundle's folder is the archive's one item at the top. Times and
/// symbolic links are kept; the modes are 0755 for folders and programs and 0644 for other files, whatever
/// they were. The size is never a multiple of 32768, which would leave the archive without a hash
/// (MD5FromData.h). The same bundle always gives the same bytes. What stood at `zipPath` is replaced once the
/// archive is whole.
ZELError writeBundleZip(const QString &bundle, const QString &zipPath);

} // namespace zel

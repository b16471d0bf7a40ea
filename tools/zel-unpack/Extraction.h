// The writing of a judged archive.
#pragma once

#include "ZipDirectory.h"

namespace zel {

/// Extracts all entries of an archive that the survey has let through into the folder open as `root`: first the
/// files, by two threads, then the links, so that no file is ever written while there is a link that could
/// redirect it, and the folders' modes and times last. What was written before a problem stays.
Problem extractAll(const ZipDirectory &directory, int archive, int root);

} // namespace zel

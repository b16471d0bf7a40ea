// The writing of a judged archive.
#pragma once

#include "ZipDirectory.h"

#include <functional>

namespace zel {

/// Called whenever some of the work is done, at the latest after each 256 KiB that are written; by any
/// thread.
using Progress = std::function<void()>;

/// Extracts all entries of an archive that the safety check has let through into the folder open as `root`:
/// first the files, by two threads where there are two to be had, then the links, so that no file is ever
/// written while there is a link that could redirect it, and the folders' times last. Whatever the archive
/// says, programs and folders get the mode 0755 and other files 0644. What was written before a problem
/// stays.
Problem extractAll(const ZipDirectory &directory, int archive, int root, const Progress &progress);

} // namespace zel

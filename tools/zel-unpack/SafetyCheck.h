// Whether an archive can be unpacked safely: which paths, links and sizes are refused. Judged over the whole
// archive, before anything of it is written.
#pragma once

#include "EntryReader.h"
#include "ZipDirectory.h"

namespace zel {

/// Whether an archive can be extracted without leaving the destination, and whole. Refused are
/// - names that are empty or absolute or have empty, "." or ".." components or a NUL byte;
/// - names that are longer or lie deeper than the limits in ZipDirectory.h;
/// - names that occur twice or differ only by case, as whole names or as folders above others;
/// - entries below a file or a symbolic link;
/// - symbolic links whose target is empty, absolute, longer than a path can be, has ".." after a name (what
///   that leaves depends on other links) or more leading ".." than there are folders above the link;
/// - data that overlaps other data, and more data in all than `MaximumTotalSize`, or than the archive's size
///   makes likely.
Problem checkSafety(const ZipDirectory &directory, EntryReader &reader);

/// Whether what an archive declares fits into the bytes that may be written, counted in blocks of 4 KiB as
/// file systems do. The problem says how many are missing.
Problem judgeRoom(const ZipDirectory &directory, uint64_t writable);

/// A symbolic link's target, judged as above.
Problem readTarget(const ZipEntry &link, EntryReader &reader, std::string &target);

} // namespace zel

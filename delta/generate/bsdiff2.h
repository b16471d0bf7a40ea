// Making a binary delta.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <cstddef>
#include <filesystem>
#include <optional>
#include <vector>

/// Makes the delta that `bspatch2` turns the old file into the new one with; docs/delta-format.md has its
/// format and the exact rules of the scan (the published bsdiff scheme, by C. Percival, with its blocks
/// stored raw). The same two files always give the same bytes.
///
/// `oldPath`, `newPath`: the two files, each below 2 GiB.
///
/// Returns the delta, or nothing after a message on standard error: a file is unreadable or too large (found
/// before anything is allocated), or memory is missing. Any thread, any number of calls at once. Peak memory:
/// 9 bytes per byte of the old file and 3 per byte of the new one, which hold the delta's blocks too, then up
/// to three times the delta.
ZEL_EXPORT std::optional<std::vector<std::byte>> bsdiff2(const std::filesystem::path &oldPath,
                                                         const std::filesystem::path &newPath);

/// As `bsdiff2`, in the manner of a command: `argc` must be 4, `argv` the program's name, the old file, the
/// new file and the patch file to write. The patch file is opened once the old file's suffixes are sorted;
/// its control data is flushed value by value.
///
/// Returns 0 on success; otherwise -1 after a message on standard error, with the patch file as far as it was
/// written.
ZEL_EXPORT int bsdiff(int argc, char *argv[]);

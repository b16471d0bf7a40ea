// Applying a binary delta.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <cstddef>
#include <filesystem>
#include <span>

/// Builds a new file from an old file and a delta in the format of docs/delta-format.md (the published bsdiff
/// scheme with its blocks stored raw).
///
/// `oldPath`: the file that the delta starts from; only read.
/// `newPath`: the file to write. It is opened only once the new contents are complete in memory, then
/// truncated in place, so that an existing file keeps its mode; it may be the old file. Its folder must
/// exist.
/// `patch`: the whole delta; read where it lies, never changed. Its first eight bytes are not looked at.
///
/// Returns 0 when the new file has been written and closed, otherwise -1 after one message on standard error:
/// - the delta is shorter than its header ("header error" then also goes to standard output), or a length in
///   it is negative, carries a position past its bounds or needs more bytes than there are: "Corrupt patch";
/// - a block begins beyond the delta's end: "fseeko(patch, offset)";
/// - the old file cannot be read, or memory for the new one is missing;
/// - the new file cannot be opened, written or closed. Only then may it have changed: it is left as far as it
///   was written, and never deleted here.
///
/// Any thread, any number of calls at once on different new files. Peak memory: the old file and the new
/// file, beside the delta; a size that a hostile delta merely claims is reserved but not touched.
ZEL_EXPORT int bspatch2(const std::filesystem::path &oldPath, const std::filesystem::path &newPath,
                        std::span<const std::byte> patch);

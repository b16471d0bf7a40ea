// The archive on disk: a pipe cannot be read from its end, where a zip archive keeps its directory.
#pragma once

#include "base/FileDescriptor.h"
#include "Problem.h"

#include <cstdint>

namespace zel {

/// Bytes of an archive: what may be in it, stored, and the headers.
constexpr uint64_t maximumInputSize = uint64_t(17) << 30;

/// The whole input, in a file without a name, which is gone when the process is, however it ends.
struct Spool {
    FileDescriptor file;
    uint64_t size = 0;
};

/// Reads `input` to its end into a spool below `folder`, so that it lies in the destination's file system and
/// not in a temporary folder, which may be memory. An input that is larger than any archive may be, or than what may
/// be written to the disk, is a problem like any other.
Problem spoolInput(int input, const char *folder, Spool &spool);

/// Reads exactly `length` bytes at `offset`; may be called from several threads.
Problem readAt(int file, void *buffer, size_t length, uint64_t offset);

} // namespace zel

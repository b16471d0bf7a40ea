// Whole files in memory.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <cstdint>

/// Reads a whole file into memory.
///
/// `path`: NUL-terminated path in the file system's bytes. The file must be seekable; its size is where its
/// end is.
/// `size`: where to store the size in bytes, or null. It is stored before the memory is asked for, so it may
/// be set even when the call then fails.
///
/// Returns size + 1 bytes, the last of them unset (it is no terminator); the caller owns them and releases
/// them with free(). Null, with errno set, when the file cannot be opened, has no position, does not fit into
/// memory or ends early. Prints nothing. Any thread; peak memory is the result.
ZEL_EXPORT unsigned char *readfile(const char *path, std::int64_t *size);

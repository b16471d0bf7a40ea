// What systems do differently about files, each behind a function that says what it stands for.
#pragma once

#include "FileDescriptor.h"

#include <cstdint>
#include <optional>
#include <string>

namespace zel {

/// Bytes that may still be written to the file system of an open file or folder: what is free for this user, less a
/// reserve of 64 MiB (a twentieth of a smaller file system), so that an update never takes the last of it. Never
/// negative; nothing where the system does not say.
std::optional<std::int64_t> writableBytes(int descriptor);

/// A new file in a folder, readable and writable for its user alone, that has no name and goes with its last descriptor,
/// however the process ends. None, with `errno`, on failure.
FileDescriptor unnamedFile(const std::string &folder);

/// Takes the space of an open file that is `size` bytes long from now on, so that no later write or access to mapped
/// memory can fail for want of it. 0, else an `errno` value.
int takeSpace(int file, std::int64_t size);

/// Gives a pipe more room than the usual 64 KiB, where that is possible: fewer switches between writer and reader.
void widenPipe(int pipe);

/// The file that this code was linked into, the program's or the library's; empty where the system does not say.
std::string ownBinary();

} // namespace zel

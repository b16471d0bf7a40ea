// What systems do differently, each behind a function that says what it stands for. Code that asks which
// system it is compiled for stands here, in the other headers of this folder and in platform/, and nowhere
// else.
#pragma once

#include "FileDescriptor.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <sys/types.h>

struct stat;

namespace zel {

/// Bytes that may still be written to the file system of an open file or folder: what is free for this user,
/// less a reserve of 64 MiB (a twentieth of a smaller file system), so that an update never takes the last of
/// it. Never negative; nothing where the system does not say.
std::optional<std::int64_t> writableBytes(int descriptor);

/// A new file in a folder, readable and writable for its user alone, that has no name and goes with its last
/// descriptor, however the process ends. None, with `errno`, on failure.
FileDescriptor unnamedFile(const std::string &folder);

/// Takes the space of an open file that is `size` bytes long from now on, so that no later write or access to
/// mapped memory can fail for want of it. 0, else an `errno` value.
int takeSpace(int file, std::int64_t size);

/// Makes a pipe that no program inherits; false, with `errno`, where none is to be had. Where the system
/// cannot do both at once, a program that another thread starts at that moment may inherit it.
bool makePipe(FileDescriptor &reading, FileDescriptor &writing);

/// Gives a pipe more room than the usual 64 KiB, where that is possible: fewer switches between writer and
/// reader.
void widenPipe(int pipe);

/// The machine's memory in bytes, whatever part of it a container may take.
std::int64_t machineMemory();

/// When a file was last read and written, as `futimens` takes them.
std::array<timespec, 2> timesOf(const struct stat &status);

/// Limits the memory that another process may take from now on, where that is possible.
void limitMemory(pid_t process, std::uint64_t bytes);

/// The file that this code was linked into, the program's or the library's; empty where the system does not
/// say.
std::string ownBinary();

} // namespace zel

// The two steps of copying a file that differ between systems.
#pragma once

struct stat;

namespace zel {

/// Copies all data of one open file to another, empty one: cloned where the file system can, else copied inside the
/// kernel, else through memory. False, with errno, on failure.
bool copyData(int from, int to);

/// Gives `to` the extended attributes of `from`, then the mode and times in `status`. Attributes that the
/// destination's file system or the user's rights do not allow are left out. False, with errno, on failure.
bool copyAttributes(int from, int to, const struct stat &status);

} // namespace zel

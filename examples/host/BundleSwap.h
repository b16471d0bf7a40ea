// Puts a new bundle in the place of the installed one.
#pragma once

#include <filesystem>
#include <system_error>

// What is promised:
//
// - Where the file system can exchange two names in one step (ext4, XFS, Btrfs, tmpfs and others), a whole
//   bundle is at the installed path at every moment, whether the program is killed or the power fails: the
//   new bundle is on the disk before the exchange.
// - Elsewhere (some network file systems) the old bundle is put aside before the new one takes its place.
//   Killed between the two, there is none at the installed path until the next swap or `installedBundle`, of
//   the program started from `previousBundle`, brings the old one back.
// - Success means that the new bundle is at the installed path and the old one at `previousBundle`. After a
//   failure both are what they were, and nothing else is left; after being killed the next swap removes what
//   is.
// - Modes and symbolic links of a bundle that is copied from another file system are kept, times and owners
//   are not.

/// Brings `newBundle` beside `installed` and exchanges the two. The old bundle is kept until
/// `dropPreviousBundle`, for a program that still runs from it. Both must be real folders, no links to one. A
/// bundle that was copied stays where it was, too. Takes as long as copying and flushing takes.
std::error_code swapBundles(const std::filesystem::path &newBundle, const std::filesystem::path &installed);

/// Why `installed` could not be replaced, as far as that can be told beforehand: whether its folder takes a
/// new one.
std::error_code swapObstacle(const std::filesystem::path &installed);

/// Where the bundle belongs that a program runs from, which asks for it when it starts: `running`, or the
/// installed path where a swap that was killed had put the bundle aside. It is back there then.
std::filesystem::path installedBundle(const std::filesystem::path &running);

/// Where the old bundle is kept.
std::filesystem::path previousBundle(const std::filesystem::path &installed);

/// Removes the old bundle: the new one has started. Whether there was one.
bool dropPreviousBundle(const std::filesystem::path &installed);

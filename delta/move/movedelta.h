// Applying a move delta: docs/move-delta-format.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

namespace zel {

/// Writes the SHA-256 of `bytes` to `hash`, which has 32 bytes.
using PageHasher = std::function<void(std::span<const unsigned char> bytes, unsigned char *hash)>;

/// Whether the bytes are meant to be a move delta: they begin with its mark.
bool isMoveDelta(std::span<const unsigned char> delta);

/// The size of the file that the delta gives, as its header claims; nothing when it has no whole header.
std::optional<std::uint64_t> moveDeltaNewSize(std::span<const unsigned char> delta);

/// Rebuilds the new file in `newBytes`, which is as large as moveDeltaNewSize says. `hasher` computes what
/// the delta leaves to be computed.
///
/// Returns false when the delta is corrupt or belongs to another old file (which only its size tells: whoever
/// wants to know hashes the outcome); `newBytes` then holds anything. Throws std::bad_alloc. Takes a time
/// that is linear in the sizes of both files and the delta. Memory: 36 bytes for each copy of the delta
/// (2^20 at most), 4 MiB for each of its images (4 at most), 256 KiB for each range of words (64 at most),
/// and a 40th of the old file. Any thread.
bool applyMoveDelta(std::span<const unsigned char> oldBytes, std::span<const unsigned char> delta,
                    std::span<unsigned char> newBytes, const PageHasher &hasher);

} // namespace zel

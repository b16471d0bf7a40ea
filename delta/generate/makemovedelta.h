// Making a move delta.
#pragma once

#include "makedelta.h"
#include "move/movedelta.h"

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace zel {

/// A delta in the format of docs/move-delta-format.md that rebuilds the new bytes from the old ones. What
/// refers to other places is left out of the search for what the files share, so that code whose calls have
/// changed is still found whole; of each part of a program the prediction is chosen that leaves least to be
/// corrected. The same input always gives the same bytes.
///
/// `hasher` computes hashes of pages, which the delta then leaves out; `progress` as for makeDelta, and may
/// be empty. Nothing when a file has more bytes than the format allows, or memory for the suffixes is
/// missing; throws std::bad_alloc. Memory: ten bytes per old byte, three per new one and 90 MiB, beside the
/// files. Works on all processors.
std::optional<std::vector<std::byte>> makeMoveDelta(std::span<const unsigned char> oldBytes,
                                                    std::span<const unsigned char> newBytes,
                                                    const PageHasher &hasher, const DeltaProgress &progress);

} // namespace zel

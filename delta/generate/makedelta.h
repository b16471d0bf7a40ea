// What the generator offers within this tree beyond its exported functions: the same work, watched; and for
// tests one level of the sort by itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <vector>

namespace zel {

using DeltaProgress = std::function<void(std::int64_t done, std::int64_t total)>;

/// As `bsdiff2`, with the same bytes. `progress` may be empty; it hears, on the calling thread, how many
/// bytes are done of those of both files: first the old one's are sorted, in a few steps, then the new one's
/// are searched, by about a hundredth at a time.
std::optional<std::vector<std::byte>> makeDelta(const std::filesystem::path &oldPath,
                                                const std::filesystem::path &newPath,
                                                const DeltaProgress &progress);

/// Sorts the suffixes of T (`n` symbols of 0 to k - 1) into SA, behind whose `n` entries lie `fs` more that
/// serve as work space. With `isbwt`, SA receives the transform's symbols instead. `n` is at most what an int
/// holds.
/// Returns 0, or the transform's primary index, or -2 when memory is exhausted.
std::int64_t sais_main(const unsigned char *T, std::int32_t *SA, std::int64_t fs, std::int64_t n,
                       std::int64_t k, bool isbwt);

/// As above, for a text of integers: the names of the level above.
std::int64_t sais_main(const std::int32_t *T, std::int32_t *SA, std::int64_t fs, std::int64_t n,
                       std::int64_t k, bool isbwt);

/// As `sais`. `progress` may be empty; it hears, within the call, how many hundredths of the work are done:
/// some numbers that never fall.
std::int64_t sortSuffixes(const unsigned char *T, std::int64_t *SA, int n,
                          const std::function<void(int percent)> &progress);

} // namespace zel

// One level of suffix sorting, for `sais` and its tests.
#pragma once

#include <cstdint>
#include <functional>

namespace zel {

/// Sorts the suffixes of T (`n` symbols of 0 to k - 1) into SA, behind whose `n` entries lie `fs` more that serve
/// as work space. With `isbwt`, SA receives the transform's symbols instead. `n` is at most what an int holds.
/// Returns 0, or the transform's primary index, or -2 when memory is exhausted.
std::int64_t sais_main(const unsigned char *T, std::int32_t *SA, std::int64_t fs, std::int64_t n,
                       std::int64_t k, bool isbwt);

/// As above, for a text of integers: the names of the level above.
std::int64_t sais_main(const std::int32_t *T, std::int32_t *SA, std::int64_t fs, std::int64_t n,
                       std::int64_t k, bool isbwt);

/// As `sais`. `progress` may be empty; it hears, within the call, how many hundredths of the work are done: some
/// numbers that never fall.
std::int64_t sortSuffixes(const unsigned char *T, std::int64_t *SA, int n,
                          const std::function<void(int percent)> &progress);

} // namespace zel

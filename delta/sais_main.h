// One level of suffix sorting, for `sais` and its tests.
#pragma once

#include <cstdint>

namespace zel {

/// Sorts the suffixes of T (`n` symbols of 0 to k - 1, 64-bit integers when `cs` is 8, else bytes) into SA,
/// behind whose `n` entries lie `fs` more that serve as work space. With `isbwt`, SA receives the transform's
/// symbols instead.
/// Returns 0, or the transform's primary index, or -2 when memory is exhausted.
std::int64_t sais_main(const void *T, std::int64_t *SA, std::int64_t fs, std::int64_t n, std::int64_t k,
                       int cs, bool isbwt);

} // namespace zel

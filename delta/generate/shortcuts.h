// From where on the generator's short cuts pay.
#pragma once

#include <cstdint>

namespace zel {

/// None of them shows in a delta. Tests take them earlier.
struct ShortCuts {
    std::int64_t longMatch = 256; ///< bytes that are compared without a thought
    std::int64_t worthLearning = 4096; ///< bytes that have to be compared before a period is looked for
    std::int64_t chunkSize = std::int64_t(1) << 16; ///< new bytes that a thread walks through by itself
    std::int64_t reach = 4096; ///< bytes of a match that are looked at ahead of the scan
    int prefixWidth = -1; ///< of the prefix table: 0, 2 or 3 bytes; below 0 what fits the old file
};

} // namespace zel

// Where the header of a delta keeps its fields; docs/delta-format.md has the whole layout.
#pragma once

#include <cstddef>
#include <string_view>

namespace zel {

inline constexpr std::string_view deltaMagic = "BSDIFN40";
inline constexpr std::size_t controlLengthOffset = 8;
inline constexpr std::size_t diffLengthOffset = 16;
inline constexpr std::size_t newSizeOffset = 24;
inline constexpr std::size_t headerSize = 32;

} // namespace zel

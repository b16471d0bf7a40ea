// The layout of a delta, which docs/delta-format.md describes: a header of a mark and three integers, then
// three blocks in a row. The control block is triples of integers (add, insert, seek), the diff block what is
// added to old bytes, the extra block what is inserted. An integer takes 8 bytes: a little-endian magnitude
// with the sign in its top bit, so that there are two zeros and no least number of 64 bits.
//
// Both sides of the engine and all that looks into deltas take these words from here, so that an offset is
// spelled once.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace zel {

inline constexpr std::string_view DeltaMagic = "BSDIFN40";
inline constexpr std::size_t ControlLengthOffset = 8;
inline constexpr std::size_t DiffLengthOffset = 16;
inline constexpr std::size_t NewSizeOffset = 24;
inline constexpr std::size_t DeltaHeaderSize = 32;

inline constexpr std::size_t DeltaIntegerSize = 8;

/// Any value but the least of 64 bits, whose magnitude has no room.
inline std::array<unsigned char, DeltaIntegerSize> encodeDeltaInteger(std::int64_t value)
{
    std::array<unsigned char, DeltaIntegerSize> bytes;
    auto magnitude = static_cast<std::uint64_t>(value < 0 ? -value : value);
    for (unsigned char &byte : bytes) {
        byte = static_cast<unsigned char>(magnitude & 0xFF);
        magnitude >>= 8;
    }
    if (value < 0)
        bytes.back() |= 0x80;
    return bytes;
}

inline std::int64_t decodeDeltaInteger(std::span<const unsigned char, DeltaIntegerSize> bytes)
{
    std::int64_t magnitude = bytes.back() & 0x7F;
    for (std::size_t i = DeltaIntegerSize - 1; i-- > 0;)
        magnitude = magnitude << 8 | bytes[i];
    return bytes.back() & 0x80 ? -magnitude : magnitude;
}

/// The one that begins at `offset`; all of it lies in `bytes`.
inline std::int64_t deltaIntegerAt(std::span<const unsigned char> bytes, std::size_t offset)
{
    return decodeDeltaInteger(bytes.subspan(offset).first<DeltaIntegerSize>());
}

} // namespace zel

// How numbers are written in a delta: 8 bytes, little-endian magnitude, sign in the top bit of the last byte.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace zel {

inline constexpr std::size_t deltaIntegerSize = 8;

/// Any value but the least of 64 bits, whose magnitude has no room.
inline std::array<unsigned char, deltaIntegerSize> encodeDeltaInteger(std::int64_t value)
{
    std::array<unsigned char, deltaIntegerSize> bytes;
    auto magnitude = static_cast<std::uint64_t>(value < 0 ? -value : value);
    for (unsigned char &byte : bytes) {
        byte = static_cast<unsigned char>(magnitude & 0xFF);
        magnitude >>= 8;
    }
    if (value < 0)
        bytes.back() |= 0x80;
    return bytes;
}

inline std::int64_t decodeDeltaInteger(std::span<const unsigned char, deltaIntegerSize> bytes)
{
    std::int64_t magnitude = bytes.back() & 0x7F;
    for (std::size_t i = deltaIntegerSize - 1; i-- > 0;)
        magnitude = magnitude << 8 | bytes[i];
    return bytes.back() & 0x80 ? -magnitude : magnitude;
}

/// The one that begins at `offset`; all of it lies in `bytes`.
inline std::int64_t deltaIntegerAt(std::span<const unsigned char> bytes, std::size_t offset)
{
    return decodeDeltaInteger(bytes.subspan(offset).first<deltaIntegerSize>());
}

} // namespace zel

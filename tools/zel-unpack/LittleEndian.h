// Numbers as zip archives write them, least byte first.
#pragma once

#include <cstdint>
#include <string_view>

namespace zel {

/// The number in the `sizeof(T)` bytes at `offset`, which the caller knows to be there.
template <typename T> T littleEndian(std::string_view bytes, size_t offset)
{
    T value = 0;
    for (size_t i = 0; i < sizeof(T); ++i)
        value |= T(T(static_cast<unsigned char>(bytes[offset + i])) << (8 * i));
    return value;
}

inline uint16_t le16(std::string_view bytes, size_t offset)
{
    return littleEndian<uint16_t>(bytes, offset);
}
inline uint32_t le32(std::string_view bytes, size_t offset)
{
    return littleEndian<uint32_t>(bytes, offset);
}
inline uint64_t le64(std::string_view bytes, size_t offset)
{
    return littleEndian<uint64_t>(bytes, offset);
}

} // namespace zel

// How far two texts agree, and in how many places: the loops that nearly all time goes to.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace zel {

/// The first position from `from` on where the bytes differ; `limit` when there is none, or when `from` is
/// beyond it.
inline std::int64_t matchLength(const unsigned char *a, const unsigned char *b, std::int64_t from,
                                std::int64_t limit)
{
    constexpr std::int64_t wordSize = sizeof(std::uint64_t);
    std::int64_t i = from;
    for (; i + wordSize <= limit; i += wordSize) {
        std::uint64_t left;
        std::uint64_t right;
        std::memcpy(&left, a + i, sizeof left);
        std::memcpy(&right, b + i, sizeof right);
        if (left != right) {
            const std::uint64_t differing = left ^ right;
            const int bits = std::endian::native == std::endian::little ? std::countr_zero(differing)
                                                                        : std::countl_zero(differing);
            return i + bits / 8;
        }
    }
    while (i < limit && a[i] == b[i])
        ++i;
    return i;
}

constexpr std::int64_t countedBlock = 64;

/// How many of `countedBlock` bytes are equal; one byte is enough for the count, which keeps it in vectors.
inline std::int64_t equalInBlock(const unsigned char *a, const unsigned char *b)
{
    unsigned char equal = 0;
    for (int i = 0; i < countedBlock; ++i)
        equal = static_cast<unsigned char>(equal + (a[i] == b[i]));
    return equal;
}

inline std::int64_t countEqual(const unsigned char *a, const unsigned char *b, std::int64_t count)
{
    std::int64_t equal = 0;
    std::int64_t i = 0;
    for (; i + countedBlock <= count; i += countedBlock)
        equal += equalInBlock(a + i, b + i);
    for (; i < count; ++i)
        equal += a[i] == b[i];
    return equal;
}

} // namespace zel

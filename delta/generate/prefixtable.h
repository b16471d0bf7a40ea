// Where the bisection of the sorted suffixes gets without looking at one.
#pragma once

#include "delta/owned.h"

#include <array>
#include <span>

namespace zel {

/// The indices into the sorted suffixes that a bisection works between.
struct Interval {
    std::int64_t st = 0;
    std::int64_t en = 0;
};

/// Knows for each first two or three bytes which suffixes begin with them. Three bytes take 64 MiB of memory, two
/// 256 KiB; it does without when there is no memory. Any thread may ask it.
class PrefixTable
{
public:
    /// Three bytes for an old file of 16 MiB and more, none for one that is searched sooner than counted.
    static int fittingWidth(std::size_t oldSize);

    /// `width`: 0, 2 or 3 bytes. `I`: the sorted suffixes of the old bytes, the empty one first.
    PrefixTable(std::span<const unsigned char> oldBytes, const std::int64_t *I, int width);

    /// The state of the bisection for these new bytes at the first suffix that begins like them; its steps up
    /// to there are the ones that it would have taken with every suffix looked at.
    Interval narrow(const unsigned char *newBytes, std::int64_t nlen) const;

private:
    static constexpr int widest = 3;

    void countPrefixes();
    void findTails(const std::int64_t *I);
    std::size_t keyAt(const unsigned char *bytes, std::int64_t available) const;

    std::span<const unsigned char> m_old;
    int m_width; ///< bytes of a prefix; 0 without table
    Array<std::uint32_t> m_starts;
    std::array<std::int64_t, widest> m_tails = {}; ///< the index of the suffix of each length below the width
};

} // namespace zel

// The longest match of new bytes among the old file's suffixes, as the bisection over them finds it.
//
// Which of several suffixes the bisection ends at decides bytes of the delta, so all that makes it quicker
// must lead to the very same end: the table of prefixes takes the first steps without looking at a suffix, a
// comparison begins behind what both neighbours are known to share, and many searches take their steps in
// turn, since each waits for memory at every step. A better search (the really longest match, found through a
// table of common prefixes) was left aside: it would make other deltas, and nobody could tell any more
// whether one is right by making it again.
#pragma once

#include "agreement.h"
#include "delta/owned.h"

#include <array>
#include <cstdint>
#include <span>

namespace zel {

/// The indices into the sorted suffixes that a bisection works between.
struct Interval {
    std::int64_t st = 0;
    std::int64_t en = 0;
};

/// Knows for each first two or three bytes which suffixes begin with them. Three bytes take 64 MiB of memory,
/// two 256 KiB; it does without when there is no memory. Any thread may ask it.
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
    static constexpr int Widest = 3;

    void countPrefixes();
    void findTails(const std::int64_t *I);
    std::size_t keyAt(const unsigned char *bytes, std::int64_t available) const;

    std::span<const unsigned char> m_old;
    int m_width; ///< bytes of a prefix; 0 without table
    Array<std::uint32_t> m_starts;
    std::array<std::int64_t, Widest> m_tails = {}; ///< the index of the suffix of each length below the width
};

struct Match {
    std::int64_t length = 0;
    std::int64_t position = 0; ///< in the old file; `BeyondReach` when the search was given up

    static constexpr std::int64_t BeyondReach = -1;
};

/// Answers where new bytes are found in the old file. Both files and `I` (old size + 1 entries, the sorted
/// suffixes with the empty one first) belong to the caller and outlive it. Any thread may ask.
class SuffixSearch
{
public:
    SuffixSearch(std::span<const unsigned char> oldBytes, const std::int64_t *I,
                 std::span<const unsigned char> newBytes, const ShortCuts &shortCuts = {});

    /// The suffix that the bisection ends at for the new bytes from `scan` on: of the two left over the first
    /// wins only when its match is strictly longer. That is not always the longest match: a suffix that is a
    /// prefix of the new bytes counts as not smaller than they.
    Match search(std::int64_t scan, Repeats &repeats) const;

    static constexpr std::size_t MostAtOnce = 32;

    /// Finds the matches for the places from `scan` on, at most `MostAtOnce`, all of them in the new file;
    /// their searches go forward together, so that they wait for memory together. A search that meets a
    /// match of `reach` bytes, and more left to compare, is given up: its result is `reach` bytes long.
    void searchTogether(std::int64_t scan, std::int64_t reach, std::span<Match> matches) const;

private:
    class Bisection;
    struct Lane;

    bool isSmaller(std::int64_t a, std::int64_t scan, std::int64_t equal) const;
    void bisectTogether(std::span<Lane> lanes) const;
    bool step(Lane &lane) const;
    void finishTogether(std::span<Lane> lanes, std::span<Match> matches) const;

    const unsigned char *m_old;
    std::int64_t m_oldSize;
    const std::int64_t *m_I;
    const unsigned char *m_new;
    std::int64_t m_newSize;
    PrefixTable m_table;
};

} // namespace zel

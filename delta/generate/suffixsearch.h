// The longest match of new bytes among the old file's suffixes, as the bisection over them finds it.
#pragma once

#include "prefixtable.h"
#include "agreement.h"

#include <cstdint>
#include <span>

namespace zel {

struct Match {
    std::int64_t length = 0;
    std::int64_t position = 0; ///< in the old file; `beyondReach` when the search was given up

    static constexpr std::int64_t beyondReach = -1;
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

    static constexpr std::size_t mostAtOnce = 32;

    /// Finds the matches for the places from `scan` on, at most `mostAtOnce`, all of them in the new file;
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

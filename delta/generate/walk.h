// Where in the new file the scan searches, and which of the matches it takes.
#pragma once

#include "matchlength.h"
#include "suffixsearch.h"

#include <algorithm>

namespace zel {

/// Goes through new bytes up to `end` in search of places where another part of the old file matches better than
/// the one gone on with so far, which at first is the part from `start` + `offset` on. Both files belong to the
/// caller.
class Walk
{
public:
    Walk(std::span<const unsigned char> oldBytes, std::span<const unsigned char> newBytes, std::int64_t start,
         std::int64_t end, std::int64_t offset)
        : m_old(oldBytes.data())
        , m_oldSize(static_cast<std::int64_t>(oldBytes.size()))
        , m_new(newBytes.data())
        , m_end(end)
        , m_scan(start)
        , m_offset(offset)
    {
    }

    bool isAtEnd() const { return m_scan >= m_end; }
    std::int64_t scan() const { return m_scan; }
    const Match &match() const { return m_match; }

    /// Moves on to the next place where another part matches better or where the same goes on matching.
    /// `find` returns the match for a place; the walk also stops where that is beyond reach.
    /// Returns whether the match at hand is another one, to be taken with `takeMatch`.
    template <typename Find> bool findMatch(Find find)
    {
        m_score = 0;
        m_scan += m_match.length;
        for (std::int64_t scored = m_scan; m_scan < m_end; ++m_scan) {
            m_match = find(m_scan);
            if (m_match.position == Match::beyondReach)
                return false;
            m_score += score(scored, m_scan + m_match.length);
            scored = std::max(scored, m_scan + m_match.length);
            if ((m_match.length == m_score && m_match.length != 0)
                || m_match.length > m_score + mismatchAllowance)
                break;
            m_score -= score(m_scan, m_scan + 1);
        }
        return m_match.length != m_score || m_scan == m_end;
    }

    void takeMatch() { m_offset = m_match.position - m_scan; }

private:
    /// By how many more bytes a new match must beat the going one to be worth a control triple.
    static constexpr std::int64_t mismatchAllowance = 8;

    /// How many of the new bytes are equal in the part gone on with. An old position is never negative: it began
    /// at a match's position for the scan position of that match, and scan positions only grow.
    std::int64_t score(std::int64_t from, std::int64_t to) const
    {
        const std::int64_t count = std::min(to, m_oldSize - m_offset) - from;
        return count > 0 ? countEqual(m_old + from + m_offset, m_new + from, count) : 0;
    }

    const unsigned char *m_old;
    std::int64_t m_oldSize;
    const unsigned char *m_new;
    std::int64_t m_end;
    std::int64_t m_scan;
    std::int64_t m_offset;
    std::int64_t m_score = 0;
    Match m_match;
};

} // namespace zel

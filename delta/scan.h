// Finding what a new file shares with an old one. `search` and the scan decide every byte of a delta: how
// they get at their results may change, the results may not.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace zel {

/// Finds new bytes in the old file by bisection of its sorted suffixes. `I` holds the suffixes, the empty one
/// first; `newBytes` and `nlen` are the bytes to find; `st` and `en` the indices into I to search between,
/// both included.
/// Returns the length of the match and stores where it lies in the old file; of the two suffixes the
/// bisection ends at, the first wins only when it is strictly longer.
std::int64_t search(const std::int64_t *I, const unsigned char *old, std::int64_t oldSize,
                    const unsigned char *newBytes, std::int64_t nlen, std::int64_t st, std::int64_t en,
                    std::int64_t *pos);

/// One control triple with the positions that its bytes come from.
struct Step {
    std::int64_t add; ///< new bytes from newStart, made of the old bytes from oldStart
    std::int64_t insert; ///< new bytes after those
    std::int64_t seek; ///< from the end of the added old bytes to the next step's oldStart; may be negative
    std::int64_t oldStart;
    std::int64_t newStart;
};

/// Walks through the new file and yields the steps that build it. The bytes and I (old size + 1 entries, see
/// `search`) belong to the caller and outlive the scan.
class Scan
{
public:
    Scan(std::span<const unsigned char> oldBytes, const std::int64_t *I,
         std::span<const unsigned char> newBytes);

    /// Nothing once the new file is covered.
    std::optional<Step> next();

private:
    void findMatch();
    Step takeStep();
    std::int64_t forwardLength() const;
    std::int64_t backwardLength() const;
    std::int64_t shareOfOverlap(std::int64_t lenf, std::int64_t lenb, std::int64_t overlap) const;
    bool continues(std::int64_t position) const;

    const unsigned char *m_old;
    const std::int64_t m_oldSize;
    const std::int64_t *m_I;
    const unsigned char *m_new;
    const std::int64_t m_newSize;

    std::int64_t m_scan = 0;
    std::int64_t m_len = 0;
    std::int64_t m_pos = 0;
    std::int64_t m_oldscore = 0;
    std::int64_t m_lastscan = 0;
    std::int64_t m_lastpos = 0;
    std::int64_t m_lastoffset = 0;
};

} // namespace zel

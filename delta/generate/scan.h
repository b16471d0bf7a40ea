// Finding what a new file shares with an old one. The scan decides every byte of a delta: how it gets at its
// results may change, the results may not.
#pragma once

#include "searchahead.h"

#include <functional>

namespace zel {

/// One control triple with the positions that its bytes come from.
struct ScanStep {
    std::int64_t add; ///< new bytes from newStart, made of the old bytes from oldStart
    std::int64_t insert; ///< new bytes after those
    std::int64_t seek; ///< from the end of the added old bytes to the next step's oldStart; may be negative
    std::int64_t oldStart;
    std::int64_t newStart;

    bool operator==(const ScanStep &) const = default;
};

/// Walks through the new file and yields the steps that build it. The bytes and I (old size + 1 entries, the
/// sorted suffixes with the empty one first) belong to the caller and outlive the scan.
/// `progress` may be empty; it hears how many new bytes are searched, now and then, within `next`.
class Scan
{
public:
    Scan(std::span<const unsigned char> oldBytes, const std::int64_t *I,
         std::span<const unsigned char> newBytes, const ShortCuts &shortCuts = {},
         std::function<void(std::int64_t scanned)> progress = {});

    /// Nothing once the new file is covered.
    std::optional<ScanStep> next();

private:
    Match find(std::int64_t scan);
    void report(std::int64_t scan);
    ScanStep takeStep();

    const std::int64_t m_oldSize;
    const std::function<void(std::int64_t)> m_progress;
    const std::int64_t m_reportStep;
    std::int64_t m_nextReport;
    SuffixSearch m_search;
    Repeats m_repeats;
    Extension m_extension;
    SearchAhead m_ahead;
    ScanWalk m_walk;
    std::int64_t m_lastscan = 0;
    std::int64_t m_lastpos = 0;
};

} // namespace zel

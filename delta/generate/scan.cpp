#include "scan.h"

#include <algorithm>
#include <limits>
#include <utility>

// The published scan, step by step (docs/delta-format.md gives its rules, tests/support/PlainScan.h the plain
// form): search each place of the new file until a match is better than going on with the old part at hand,
// then settle where that part ends and the new one begins. What is slow in it goes through units that
// remember: searches made ahead (SearchAhead), long agreements (Repeats), extensions counted in blocks
// (Extension). The result of each is what the plain form would compute; this is checked against it on
// thousands of repetitive pairs.

namespace zel {

using Index = std::int64_t;

Scan::Scan(std::span<const unsigned char> oldBytes, const Index *I, std::span<const unsigned char> newBytes,
           const ShortCuts &shortCuts, std::function<void(Index)> progress)
    : m_oldSize(static_cast<Index>(oldBytes.size()))
    , m_progress(std::move(progress))
    , m_reportStep(static_cast<Index>(newBytes.size()) / 100 + 1)
    , m_nextReport(m_progress ? m_reportStep : std::numeric_limits<Index>::max())
    , m_search(oldBytes, I, newBytes, shortCuts)
    , m_repeats(oldBytes, newBytes, shortCuts)
    , m_extension(oldBytes, newBytes, m_repeats)
    , m_ahead(oldBytes, newBytes, m_search, shortCuts)
    , m_walk(oldBytes, newBytes, 0, static_cast<Index>(newBytes.size()), 0)
{
}

std::optional<ScanStep> Scan::next()
{
    while (!m_walk.isAtEnd()) {
        if (m_walk.findMatch([this](Index scan) { return find(scan); }))
            return takeStep();
    }
    return std::nullopt;
}

Match Scan::find(Index scan)
{
    if (scan >= m_nextReport)
        report(scan);
    const std::optional<Match> known = m_ahead.at(scan);
    return known ? *known : m_search.search(scan, m_repeats);
}

void Scan::report(Index scan)
{
    m_nextReport = scan + m_reportStep;
    m_progress(scan);
}

// Splits the bytes between the last match and the new one: those that go on from the last, those that lead
// up to the new one, and those between.
ScanStep Scan::takeStep()
{
    const Index scan = m_walk.scan();
    const Index pos = m_walk.match().position;
    const Index covered = scan - m_lastscan;
    Index lenf = m_extension.forward(m_lastpos, m_lastscan, std::min(covered, m_oldSize - m_lastpos));
    Index lenb = m_walk.isAtEnd() ? 0 : m_extension.backward(pos, scan, std::min(covered, pos));
    const Index overlap = lenf + lenb - covered;
    if (overlap > 0) {
        const Index start = lenf - overlap;
        const Index lens =
            m_extension.shareOfFirst(m_lastscan + start, m_lastpos + start, pos - lenb, overlap);
        lenf += lens - overlap;
        lenb -= lens;
    }
    const ScanStep step{lenf, (scan - lenb) - (m_lastscan + lenf), (pos - lenb) - (m_lastpos + lenf),
                        m_lastpos, m_lastscan};
    m_lastscan = scan - lenb;
    m_lastpos = pos - lenb;
    m_walk.takeMatch();
    return step;
}

} // namespace zel

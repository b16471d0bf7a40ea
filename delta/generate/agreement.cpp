#include "agreement.h"

#include <algorithm>

// Invariants, on which every answer without a look at the bytes rests:
// - m_agreements: the new bytes from `begin` to `end` equal the old ones at `offset`, and the pair at `end`
//   differs or one file ends there. An offset has one slot, and a later one with the same slot takes its
//   place.
// - all runs repeat one pattern of m_period bytes: whoever adds a run has seen a whole period of it to be the
//   pattern's. A new period therefore forgets all runs of both files.
//
// Finding a period and the extent of a run costs time of its own, so it starts only when a match has cost
// more (ShortCuts::worthLearning), and the search for a period gives up after a few times the text's length.

namespace zel {
namespace {

using Index = std::int64_t;

constexpr Index LongestPeriodText = Index(1) << 20;
constexpr int HashShift = 54; // leaves ten bits, for as many agreements as are kept

std::size_t slotOf(Index offset)
{
    return static_cast<std::size_t>((static_cast<std::uint64_t>(offset) * 0x9E3779B97F4A7C15U) >> HashShift);
}

// The shortest period of a text, if it is at most half as long; 0 when there is none or when the search
// takes too long. A period p that is broken after p + t bytes rules out all others up to t.
Index shortPeriod(const unsigned char *text, Index length)
{
    Index work = 4 * length;
    for (Index p = 1; p <= length / 2 && work > 0;) {
        const Index t = matchLength(text, text + p, 0, length - p);
        if (t == length - p)
            return p;
        p = std::max(p, t) + 1;
        work -= t + 1;
    }
    return 0;
}

} // namespace

const Run *Runs::find(std::int64_t position) const
{
    const Run *const end = m_runs.data() + m_count;
    const Run *const run = std::upper_bound(
        m_runs.data(), end, position, [](std::int64_t place, const Run &other) { return place < other.end; });
    return run != end && run->begin <= position ? run : nullptr;
}

void Runs::add(const Run &run)
{
    if (m_count == m_runs.size())
        m_count = 0;
    Run *const end = m_runs.data() + m_count++;
    Run *const place = std::upper_bound(m_runs.data(), end, run,
                                        [](const Run &one, const Run &other) { return one.end < other.end; });
    std::move_backward(place, end, end + 1);
    *place = run;
    m_last = run;
}

Repeats::Repeats(std::span<const unsigned char> oldBytes, std::span<const unsigned char> newBytes,
                 const ShortCuts &shortCuts)
    : m_old(oldBytes)
    , m_new(newBytes)
    , m_shortCuts(shortCuts)
{
}

inline bool Repeats::inPhase(Index a, const Run &oldRun, Index s, const Run &newRun) const
{
    return m_period == 1 || (a + oldRun.phase - s - newRun.phase) % m_period == 0;
}

// As `length`, but 0 where the runs say nothing, as when both end at once: then all depends on what follows.
inline Index Repeats::lengthInRuns(Index a, Index s)
{
    const Run *const newRun = m_newRuns.at(s);
    const Run *const oldRun = newRun ? m_oldRuns.at(a) : nullptr;
    if (!oldRun || !inPhase(a, *oldRun, s, *newRun))
        return 0;
    const Index oldRest = oldRun->end - a;
    const Index newRest = newRun->end - s;
    return oldRest == newRest ? 0 : std::min(oldRest, newRest);
}

Index Repeats::length(Index a, Index s, Index from)
{
    if (const Index found = lengthInRuns(a, s); found > 0)
        return found;
    const Index limit = std::min(static_cast<Index>(m_old.size()) - a, static_cast<Index>(m_new.size()) - s);
    const Index near = std::min(from + m_shortCuts.longMatch, limit);
    const Index equal = matchLength(m_old.data() + a, m_new.data() + s, from, near);
    return equal < near || near == limit ? equal : longLength(a, s, equal);
}

Index Repeats::knownAfter(Index a, Index s)
{
    const Run *const newRun = m_newRuns.at(s);
    const Run *const oldRun = newRun ? m_oldRuns.at(a) : nullptr;
    return oldRun && inPhase(a, *oldRun, s, *newRun) ? std::min(oldRun->end - a, newRun->end - s) : 0;
}

Index Repeats::knownBefore(Index a, Index s)
{
    const Run *const newRun = m_newRuns.at(s - 1);
    const Run *const oldRun = newRun ? m_oldRuns.at(a - 1) : nullptr;
    return oldRun && inPhase(a, *oldRun, s, *newRun) ? std::min(a - oldRun->begin, s - newRun->begin) : 0;
}

Index Repeats::longLength(Index a, Index s, Index from)
{
    Agreement &known = m_agreements[slotOf(a - s)];
    if (known.offset == a - s && known.begin <= s + from && s < known.end)
        return known.end - s;
    const Index limit = std::min(static_cast<Index>(m_old.size()) - a, static_cast<Index>(m_new.size()) - s);
    const Index equal = matchLength(m_old.data() + a, m_new.data() + s, from, limit);
    known = {a - s, s, s + equal};
    if (equal - from >= m_shortCuts.worthLearning)
        learn(a, s, equal, equal - from);
    return equal;
}

// What is equal to a whole period of a known run in the other file belongs to a run of the same pattern;
// only without such a run a period is looked for.
void Repeats::learn(Index a, Index s, Index equal, Index compared)
{
    const Run *newRun = m_newRuns.over(s, m_period);
    const Run *oldRun = m_oldRuns.over(a, m_period);
    if (!newRun && (!oldRun || equal < 2 * m_period)) {
        if (!learnPeriod(s, compared))
            return;
        newRun = m_newRuns.over(s, m_period);
        oldRun = nullptr;
    }
    if (newRun && !oldRun && equal >= 2 * m_period)
        m_oldRuns.add(runAround(m_old, a, newRun->phase + s - a));
    else if (!newRun)
        m_newRuns.add(runAround(m_new, s, oldRun->phase + a - s));
}

bool Repeats::learnPeriod(Index s, Index length)
{
    const Index period = shortPeriod(m_new.data() + s, std::min(length, LongestPeriodText));
    if (period == 0)
        return false;
    m_period = period;
    m_oldRuns.clear();
    m_newRuns.clear();
    m_newRuns.add(runAround(m_new, s, 0));
    return true;
}

// The longest run with the period that begins at `at`, which is the pattern's.
Run Repeats::runAround(std::span<const unsigned char> text, Index at, Index phase) const
{
    const unsigned char *const bytes = text.data();
    const Index next = at + m_period;
    const Index end = next + matchLength(bytes + at, bytes + next, 0, static_cast<Index>(text.size()) - next);
    Index begin = at;
    while (begin > 0 && bytes[begin - 1] == bytes[begin - 1 + m_period])
        --begin;
    return {begin, end, phase};
}

// Goes on in pieces. A piece that is equal throughout is taken as a whole, and so is a block with too few
// equal bytes to make a better length.
template <Extension::Direction direction>
Index Extension::extend(Index oldStart, Index newStart, Index limit) const
{
    constexpr bool forward = direction == Direction::Forward;
    Index surplus = 0; // of equal over other bytes
    Index best = 0;
    Index length = 0;
    for (Index i = 0; i < limit;) {
        const Index known = forward ? m_repeats.knownAfter(oldStart + i, newStart + i)
                                    : m_repeats.knownBefore(oldStart - i, newStart - i);
        Index end = std::min(i + std::max(known, CountedBlock), limit);
        const Index size = end - i;
        const unsigned char *const oldBytes = m_old + (forward ? oldStart + i : oldStart - end);
        const unsigned char *const newBytes = m_new + (forward ? newStart + i : newStart - end);
        const Index equal = known >= size ? size : countEqual(oldBytes, newBytes, size);
        if (equal == size || surplus + equal <= best) {
            surplus += 2 * equal - size;
        } else {
            for (Index j = 0; j < size; ++j) {
                const Index at = forward ? j : size - 1 - j;
                surplus += oldBytes[at] == newBytes[at] ? 1 : -1;
                if (surplus > best) {
                    best = surplus;
                    length = i + j + 1;
                }
            }
        }
        i = end;
        if (surplus > best) {
            best = surplus;
            length = i;
        }
    }
    return length;
}

Index Extension::forward(Index oldStart, Index newStart, Index limit) const
{
    return extend<Direction::Forward>(oldStart, newStart, limit);
}

Index Extension::backward(Index oldStart, Index newStart, Index limit) const
{
    return extend<Direction::Backward>(oldStart, newStart, limit);
}

Index Extension::shareOfFirst(Index newStart, Index first, Index second, Index count) const
{
    Index lead = 0;
    Index best = 0;
    Index share = 0;
    for (Index i = 0; i < count;) {
        // Nothing changes where both are alike.
        const Index known = std::min(m_repeats.knownAfter(first + i, newStart + i),
                                     m_repeats.knownAfter(second + i, newStart + i));
        const Index piece = std::min(std::max(known, CountedBlock), count - i);
        const Index alike = matchLength(m_old + first + i, m_old + second + i, std::min(known, piece), piece);
        i += alike;
        if (alike == piece)
            continue;
        lead += (m_new[newStart + i] == m_old[first + i]) - (m_new[newStart + i] == m_old[second + i]);
        ++i;
        if (lead > best) {
            best = lead;
            share = i;
        }
    }
    return share;
}

} // namespace zel

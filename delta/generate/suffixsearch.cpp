#include "suffixsearch.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zel {
namespace {

using Index = std::int64_t;

constexpr std::size_t ShortestForTwoBytes = std::size_t(1) << 14;
constexpr std::size_t ShortestForThreeBytes = std::size_t(1) << 24;

} // namespace

int PrefixTable::fittingWidth(std::size_t oldSize)
{
    if (oldSize < ShortestForTwoBytes)
        return 0;
    return oldSize < ShortestForThreeBytes ? 2 : 3;
}

PrefixTable::PrefixTable(std::span<const unsigned char> oldBytes, const Index *I, int width)
    : m_old(oldBytes)
    , m_width(width)
{
    if (m_width == 0)
        return;
    const Index count = (Index(1) << (8 * m_width)) + 1;
    m_starts = allocateEntries<std::uint32_t>(count);
    if (!m_starts) {
        m_width = 0;
        return;
    }
    std::fill_n(m_starts.get(), count, 0);
    countPrefixes();
    findTails(I);
}

// The prefix as a number. One that the text's end cuts off is filled up with zeros, which keeps the order.
std::size_t PrefixTable::keyAt(const unsigned char *bytes, Index available) const
{
    std::size_t key = 0;
    for (int i = 0; i < m_width; ++i)
        key = key << 8 | (i < available ? bytes[i] : 0U);
    return key;
}

void PrefixTable::countPrefixes()
{
    const std::size_t keys = std::size_t(1) << (8 * m_width);
    std::size_t key = 0;
    for (std::size_t i = m_old.size(); i-- > 0;) {
        key = key >> 8 | std::size_t(m_old[i]) << (8 * (m_width - 1));
        ++m_starts[key];
    }
    std::uint32_t start = 1; // the empty suffix goes before all
    for (std::size_t i = 0; i <= keys; ++i)
        start += std::exchange(m_starts[i], start);
}

// A suffix shorter than a prefix is among the first with its key.
void PrefixTable::findTails(const Index *I)
{
    const auto size = static_cast<Index>(m_old.size());
    for (int length = 1; length < m_width && length <= size; ++length) {
        Index x = m_starts[keyAt(m_old.data() + size - length, length)];
        while (I[x] != size - length)
            ++x;
        m_tails[static_cast<std::size_t>(length)] = x;
    }
}

Interval PrefixTable::narrow(const unsigned char *newBytes, Index nlen) const
{
    const auto size = static_cast<Index>(m_old.size());
    Interval at{0, size};
    if (m_width == 0 || nlen < m_width)
        return at;
    // A suffix that the new bytes begin with goes before them, but the bisection takes it as not smaller.
    std::array<Index, Widest> notSmaller = {};
    for (int length = 1; length < m_width && length <= size; ++length) {
        if (std::memcmp(m_old.data() + size - length, newBytes, static_cast<std::size_t>(length)) == 0)
            notSmaller[static_cast<std::size_t>(length)] = m_tails[static_cast<std::size_t>(length)];
    }
    const std::size_t key = keyAt(newBytes, nlen);
    const Index first = m_starts[key];
    const Index end = m_starts[key + 1];
    while (at.en - at.st >= 2) {
        const Index x = at.st + (at.en - at.st) / 2;
        if (x >= first && x < end)
            break;
        if (x < first && x != notSmaller[1] && x != notSmaller[2])
            at.st = x;
        else
            at.en = x;
    }
    return at;
}

// Every suffix between two others begins with all that both of these share with the new bytes, so it need
// not be compared again. A bound that was not looked at is taken to share nothing.
class SuffixSearch::Bisection
{
public:
    Bisection() = default;
    explicit Bisection(Interval interval)
        : m_at(interval)
    {
    }

    bool isOpen() const { return m_at.en - m_at.st >= 2; }
    Index middle() const { return m_at.st + (m_at.en - m_at.st) / 2; }
    Index shared() const { return std::min(m_stLength, m_enLength); }
    Index st() const { return m_at.st; }
    Index en() const { return m_at.en; }
    Index stLength() const { return m_stLength; }
    Index enLength() const { return m_enLength; }

    void goOn(Index length, bool smaller)
    {
        const Index x = middle();
        (smaller ? m_at.st : m_at.en) = x;
        (smaller ? m_stLength : m_enLength) = length;
    }

private:
    Interval m_at;
    Index m_stLength = 0;
    Index m_enLength = 0;
};

struct SuffixSearch::Lane {
    Bisection bisection;
    Index scan = 0;
    Index limit = 0; // of the bytes to compare
    bool cut = false; // the limit is the reach, not the new file's end
    bool givenUp = false;
    Index a = 0;
    Index b = 0;
};

SuffixSearch::SuffixSearch(std::span<const unsigned char> oldBytes, const Index *I,
                           std::span<const unsigned char> newBytes, const ShortCuts &shortCuts)
    : m_old(oldBytes.data())
    , m_oldSize(static_cast<Index>(oldBytes.size()))
    , m_I(I)
    , m_new(newBytes.data())
    , m_newSize(static_cast<Index>(newBytes.size()))
    , m_table(oldBytes, I,
              shortCuts.prefixWidth < 0 ? PrefixTable::fittingWidth(oldBytes.size()) : shortCuts.prefixWidth)
{
}

bool SuffixSearch::isSmaller(Index a, Index scan, Index equal) const
{
    return a + equal < m_oldSize && scan + equal < m_newSize && m_old[a + equal] < m_new[scan + equal];
}

Match SuffixSearch::search(Index scan, Repeats &repeats) const
{
    Bisection bisection(m_table.narrow(m_new + scan, m_newSize - scan));
    while (bisection.isOpen()) {
        const Index a = m_I[bisection.middle()];
        const Index equal = repeats.length(a, scan, bisection.shared());
        bisection.goOn(equal, isSmaller(a, scan, equal));
    }
    const Index first = m_I[bisection.st()];
    const Index second = m_I[bisection.en()];
    const Index firstLength = repeats.length(first, scan, bisection.stLength());
    const Index secondLength = repeats.length(second, scan, bisection.enLength());
    return firstLength > secondLength ? Match{firstLength, first} : Match{secondLength, second};
}

void SuffixSearch::searchTogether(Index scan, Index reach, std::span<Match> matches) const
{
    std::array<Lane, MostAtOnce> room{};
    const std::span<Lane> lanes = std::span(room).first(matches.size());
    for (Lane &lane : lanes) {
        const Index rest = m_newSize - scan;
        lane = {Bisection(m_table.narrow(m_new + scan, rest)), scan, std::min(rest, reach), reach < rest};
        ++scan;
    }
    bisectTogether(lanes);
    finishTogether(lanes, matches);
}

// Each round takes every open search one step further.
void SuffixSearch::bisectTogether(std::span<Lane> lanes) const
{
    std::array<Lane *, MostAtOnce> room;
    std::size_t open = 0;
    for (Lane &lane : lanes) {
        if (lane.bisection.isOpen())
            room[open++] = &lane;
    }
    while (open > 0) {
        for (std::size_t i = 0; i < open; ++i)
            __builtin_prefetch(m_I + room[i]->bisection.middle());
        for (std::size_t i = 0; i < open; ++i) {
            room[i]->a = m_I[room[i]->bisection.middle()];
            __builtin_prefetch(m_old + room[i]->a + room[i]->bisection.shared());
        }
        for (std::size_t i = open; i-- > 0;) {
            if (!step(*room[i]))
                room[i] = room[--open];
        }
    }
}

bool SuffixSearch::step(Lane &lane) const
{
    const Index limit = std::min(m_oldSize - lane.a, lane.limit);
    const Index equal = matchLength(m_old + lane.a, m_new + lane.scan, lane.bisection.shared(), limit);
    lane.givenUp = lane.cut && equal == lane.limit;
    if (lane.givenUp)
        return false;
    lane.bisection.goOn(equal, isSmaller(lane.a, lane.scan, equal));
    return lane.bisection.isOpen();
}

void SuffixSearch::finishTogether(std::span<Lane> lanes, std::span<Match> matches) const
{
    for (const Lane &lane : lanes) {
        __builtin_prefetch(m_I + lane.bisection.st());
        __builtin_prefetch(m_I + lane.bisection.en());
    }
    for (Lane &lane : lanes) {
        lane.a = m_I[lane.bisection.st()];
        lane.b = m_I[lane.bisection.en()];
        __builtin_prefetch(m_old + lane.a + lane.bisection.stLength());
        __builtin_prefetch(m_old + lane.b + lane.bisection.enLength());
    }
    for (std::size_t i = 0; i < lanes.size(); ++i) {
        const Lane &lane = lanes[i];
        const auto length = [&](Index a, Index from) {
            return matchLength(m_old + a, m_new + lane.scan, from, std::min(m_oldSize - a, lane.limit));
        };
        const Index first = lane.givenUp ? lane.limit : length(lane.a, lane.bisection.stLength());
        const Index second = lane.givenUp ? lane.limit : length(lane.b, lane.bisection.enLength());
        if (lane.cut && std::max(first, second) == lane.limit)
            matches[i] = {lane.limit, Match::BeyondReach};
        else
            matches[i] = first > second ? Match{first, lane.a} : Match{second, lane.b};
    }
}

} // namespace zel

#include "copyindex.h"

#include <algorithm>
#include <numeric>
#include <queue>

// Copies overlap in the old file. A sweep over their beginnings and ends, with those at hand in a heap, cuts
// it into stretches of one copy each; that takes n log n steps however they lie. A table by blocks then leads
// to within a few stretches, and a bisection of these bounds what hostile copies, a byte each, can cost.

namespace zel {

namespace {

constexpr unsigned BlockBits = 8;
constexpr std::uint64_t Reach = 16; // in front of a copy

} // namespace

CopyIndex::CopyIndex(const std::vector<MovedCopy> &copies, std::uint64_t oldSize)
{
    std::vector<std::uint32_t> order(copies.size());
    std::iota(order.begin(), order.end(), 0u);
    std::ranges::sort(order, {}, [&](std::uint32_t i) { return std::pair(copies[i].oldStart, i); });
    const auto isWorse = [&](std::uint32_t a, std::uint32_t b) {
        return std::pair(copies[a].length, b) < std::pair(copies[b].length, a);
    };
    std::priority_queue<std::uint32_t, std::vector<std::uint32_t>, decltype(isWorse)> atHand(isWorse);
    m_stretches.reserve(2 * copies.size()); // where copies begin or end
    std::size_t next = 0;
    std::uint32_t at = 0;
    while (next < order.size() || !atHand.empty()) {
        if (atHand.empty())
            at = copies[order[next]].oldStart;
        for (; next < order.size() && copies[order[next]].oldStart == at; ++next)
            atHand.push(order[next]);
        const std::uint32_t best = atHand.top();
        append(at, static_cast<std::int32_t>(copies[best].newStart - copies[best].oldStart));
        at = copies[best].oldEnd();
        if (next < order.size())
            at = std::min(at, copies[order[next]].oldStart);
        while (!atHand.empty() && copies[atHand.top()].oldEnd() <= at)
            atHand.pop();
        if (atHand.empty())
            append(at, Stretch::NoCopy);
    }
    m_first.reserve((oldSize >> BlockBits) + 1);
    std::uint32_t stretch = 0;
    for (std::uint64_t start = 0; start <= oldSize; start += std::uint64_t(1) << BlockBits) {
        while (stretch + 1 < m_stretches.size() && m_stretches[stretch + 1].start <= start)
            ++stretch;
        m_first.push_back(stretch);
    }
}

void CopyIndex::append(std::uint32_t start, std::int32_t shift)
{
    if (!m_stretches.empty() && m_stretches.back().start == start)
        m_stretches.pop_back();
    if (m_stretches.empty() || m_stretches.back().shift != shift)
        m_stretches.push_back({start, shift});
}

std::optional<std::int64_t> CopyIndex::shiftAt(std::uint64_t place)
{
    if (m_last && m_stretches[*m_last].start <= place && place < m_stretches[*m_last + 1].start)
        return m_stretches[*m_last].shift;
    const std::size_t block = static_cast<std::size_t>(place >> BlockBits);
    if (m_stretches.empty() || block >= m_first.size())
        return std::nullopt;
    const auto begin = m_stretches.begin();
    const auto to = block + 1 < m_first.size() ? begin + m_first[block + 1] + 1 : m_stretches.end();
    const auto next = std::upper_bound(begin + m_first[block], to, place,
                                       [](std::uint64_t at, const Stretch &each) { return at < each.start; });
    if (next != begin && std::prev(next)->shift != Stretch::NoCopy) {
        m_last = static_cast<std::size_t>(std::prev(next) - begin);
        return std::prev(next)->shift;
    }
    if (next != m_stretches.end() && next->start - place <= Reach)
        return next->shift;
    if (next == begin)
        return std::nullopt;
    return std::prev(next, 2)->shift; // a stretch without a copy follows one with a copy
}

} // namespace zel

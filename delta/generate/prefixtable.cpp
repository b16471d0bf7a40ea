#include "prefixtable.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zel {
namespace {

using Index = std::int64_t;

constexpr std::size_t shortestForTwoBytes = std::size_t(1) << 14;
constexpr std::size_t shortestForThreeBytes = std::size_t(1) << 24;

} // namespace

int PrefixTable::fittingWidth(std::size_t oldSize)
{
    if (oldSize < shortestForTwoBytes)
        return 0;
    return oldSize < shortestForThreeBytes ? 2 : 3;
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

/// The prefix as a number. One that the text's end cuts off is filled up with zeros, which keeps the order.
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

/// A suffix shorter than a prefix is among the first with its key.
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
    std::array<Index, widest> notSmaller = {};
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

} // namespace zel

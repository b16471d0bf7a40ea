#include "scan.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace zel {
namespace {

using Index = std::int64_t;

/// By how many more bytes a new match must beat the going one to be worth a control triple.
constexpr Index mismatchAllowance = 8;

/// The first position from `from` on where the bytes differ; `limit` when there is none, or when `from` is
/// beyond it.
Index matchLength(const unsigned char *a, const unsigned char *b, Index from, Index limit)
{
    constexpr Index wordSize = sizeof(std::uint64_t);
    Index i = from;
    for (; i + wordSize <= limit; i += wordSize) {
        std::uint64_t left;
        std::uint64_t right;
        std::memcpy(&left, a + i, sizeof left);
        std::memcpy(&right, b + i, sizeof right);
        if (left != right) {
            const std::uint64_t differing = left ^ right;
            const int bits = std::endian::native == std::endian::little ? std::countr_zero(differing)
                                                                        : std::countl_zero(differing);
            return i + bits / 8;
        }
    }
    while (i < limit && a[i] == b[i])
        ++i;
    return i;
}

} // namespace

Index search(const Index *I, const unsigned char *old, Index oldSize, const unsigned char *newBytes,
             Index nlen, Index st, Index en, Index *pos)
{
    // Every suffix between two others begins with all that both of these share with the new bytes, so it need
    // not be compared again. A bound that was not compared yet is taken to share nothing.
    Index stLength = 0;
    Index enLength = 0;
    const auto limit = [&](Index x) { return std::min(oldSize - I[x], nlen); };
    const auto length = [&](Index x, Index from) {
        return matchLength(old + I[x], newBytes, from, limit(x));
    };
    while (en - st >= 2) {
        const Index x = st + (en - st) / 2;
        const Index shared = length(x, std::min(stLength, enLength));
        if (shared < limit(x) && old[I[x] + shared] < newBytes[shared]) {
            st = x;
            stLength = shared;
        } else {
            en = x;
            enLength = shared;
        }
    }
    stLength = length(st, stLength);
    enLength = length(en, enLength);
    *pos = stLength > enLength ? I[st] : I[en];
    return std::max(stLength, enLength);
}

Scan::Scan(std::span<const unsigned char> oldBytes, const Index *I, std::span<const unsigned char> newBytes)
    : m_old(oldBytes.data())
    , m_oldSize(static_cast<Index>(oldBytes.size()))
    , m_I(I)
    , m_new(newBytes.data())
    , m_newSize(static_cast<Index>(newBytes.size()))
{
}

std::optional<Step> Scan::next()
{
    while (m_scan < m_newSize) {
        findMatch();
        if (m_len != m_oldscore || m_scan == m_newSize)
            return takeStep();
    }
    return std::nullopt;
}

/// Moves on to the next place where another part of the old file matches better than the one the last step
/// goes on with, or that one matches all along.
void Scan::findMatch()
{
    m_oldscore = 0;
    m_scan += m_len;
    for (Index scsc = m_scan; m_scan < m_newSize; ++m_scan) {
        m_len = search(m_I, m_old, m_oldSize, m_new + m_scan, m_newSize - m_scan, 0, m_oldSize, &m_pos);
        for (; scsc < m_scan + m_len; ++scsc)
            m_oldscore += continues(scsc);
        if ((m_len == m_oldscore && m_len != 0) || m_len > m_oldscore + mismatchAllowance)
            return;
        m_oldscore -= continues(m_scan);
    }
}

/// Whether the part of the old file that the last step goes on with has the new byte at `position`. The old
/// position is never negative: it began at m_pos for the scan position of that step, and scan positions only
/// grow.
bool Scan::continues(Index position) const
{
    const Index oldPosition = position + m_lastoffset;
    return oldPosition < m_oldSize && m_old[oldPosition] == m_new[position];
}

Step Scan::takeStep()
{
    Index lenf = forwardLength();
    Index lenb = m_scan < m_newSize ? backwardLength() : 0;
    const Index overlap = (m_lastscan + lenf) - (m_scan - lenb);
    if (overlap > 0) {
        const Index lens = shareOfOverlap(lenf, lenb, overlap);
        lenf += lens - overlap;
        lenb -= lens;
    }
    const Step step{lenf, (m_scan - lenb) - (m_lastscan + lenf), (m_pos - lenb) - (m_lastpos + lenf),
                    m_lastpos, m_lastscan};
    m_lastscan = m_scan - lenb;
    m_lastpos = m_pos - lenb;
    m_lastoffset = m_pos - m_scan;
    return step;
}

/// How far the last match goes on with more bytes equal than not. All ties here and below go to the shorter
/// length.
Index Scan::forwardLength() const
{
    const Index limit = std::min(m_scan - m_lastscan, m_oldSize - m_lastpos);
    Index s = 0;
    Index best = 0;
    Index lenf = 0;
    for (Index i = 0; i < limit;) {
        s += m_old[m_lastpos + i] == m_new[m_lastscan + i];
        ++i;
        if (s * 2 - i > best * 2 - lenf) {
            best = s;
            lenf = i;
        }
    }
    return lenf;
}

/// As `forwardLength`, from the new match towards the last one.
Index Scan::backwardLength() const
{
    const Index limit = std::min(m_scan - m_lastscan, m_pos);
    Index s = 0;
    Index best = 0;
    Index lenb = 0;
    for (Index i = 1; i <= limit; ++i) {
        s += m_old[m_pos - i] == m_new[m_scan - i];
        if (s * 2 - i > best * 2 - lenb) {
            best = s;
            lenb = i;
        }
    }
    return lenb;
}

/// How many of the bytes that both extensions cover the forward one keeps.
Index Scan::shareOfOverlap(Index lenf, Index lenb, Index overlap) const
{
    const Index forwardEnd = lenf - overlap;
    Index s = 0;
    Index best = 0;
    Index lens = 0;
    for (Index i = 0; i < overlap; ++i) {
        s += m_new[m_lastscan + forwardEnd + i] == m_old[m_lastpos + forwardEnd + i];
        s -= m_new[m_scan - lenb + i] == m_old[m_pos - lenb + i];
        if (s > best) {
            best = s;
            lens = i + 1;
        }
    }
    return lens;
}

} // namespace zel

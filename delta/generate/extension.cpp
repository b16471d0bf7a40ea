#include "extension.h"

#include "matchlength.h"

#include <algorithm>

namespace zel {

using Index = std::int64_t;

/// Goes on in pieces. A piece that is equal throughout is taken as a whole, and so is a block with too few equal
/// bytes to make a better length.
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
        Index end = std::min(i + std::max(known, countedBlock), limit);
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
        const Index piece = std::min(std::max(known, countedBlock), count - i);
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

// The passes of suffix sorting by induction, over one text.
//
// A suffix is of type S when it is smaller than the one that starts a position later, else of type L; an S
// suffix behind an L suffix is an LMS suffix. Once the LMS suffixes are sorted, one pass to the right puts
// every L suffix into its bucket, each found through the suffix that starts one position later, and one pass
// to the left every S suffix. The LMS suffixes are sorted the same way: their first characters seed the
// passes, which sorts the substrings between them.
//
// During the passes an entry is a position whose predecessor is yet to be placed (a position yet to be placed
// in the two LMS sorts). The complement marks an entry that the current pass has to leave alone; 0 is an
// empty slot.
//
// Four routines hold nearly the same pair of loops: LMSsort1, LMSsort2, induceSA and computeBWT. They stay
// apart, as each treats an entry otherwise after its turn, and a shared loop with hooks for the difference
// was harder to follow than any of them. The text comes as a template argument, so that bytes and names are
// read without an indirection.
#pragma once

#include "base/AlwaysAssert.h"

#include <algorithm>
#include <cstdint>

namespace zel::induction {

using Index = std::int64_t;
using Entry = std::int32_t; // of all arrays: lengths are ints, and half the memory is half the cache misses

enum class Bound { Start, End };

template <typename Symbol> struct Symbols {
    const Symbol *T;

    Index operator()(Index i) const { return static_cast<Index>(T[i]); }
    void fetch(Index i) const { __builtin_prefetch(T + std::max<Index>(i, 0)); }
};

/// The passes jump about in the text. An entry tells where to a while before its turn, if it is there by
/// then.
inline constexpr Index FetchAhead = 40;

/// Where the next entry of a bucket goes. Runs of one symbol are common: the last place used stays at hand.
class BucketPlace
{
public:
    BucketPlace(Entry *SA, Entry *B)
        : m_SA(SA)
        , m_B(B)
        , m_at(SA + B[0])
    {
    }

    Entry *&of(Index symbol)
    {
        if (symbol != m_symbol) {
            m_B[m_symbol] = m_at - m_SA;
            m_at = m_SA + m_B[symbol];
            m_symbol = symbol;
        }
        return m_at;
    }

private:
    Entry *m_SA;
    Entry *m_B;
    Entry *m_at;
    Index m_symbol = 0;
};

template <typename Chr> void getCounts(Chr chr, Entry *C, Index n, Index k)
{
    std::fill_n(C, k, 0);
    for (Index i = 0; i < n; ++i)
        ++C[chr(i)];
}

/// C and B may be the same array.
inline void getBuckets(const Entry *C, Entry *B, Index k, Bound bound)
{
    Index sum = 0;
    for (Index i = 0; i < k; ++i) {
        const Index count = C[i];
        B[i] = bound == Bound::End ? sum + count : sum;
        sum += count;
    }
}

template <typename Chr> void renewBuckets(Chr chr, Entry *C, Entry *B, Index n, Index k, Bound bound)
{
    if (C == B)
        getCounts(chr, C, n, k);
    getBuckets(C, B, k, bound);
}

/// Calls `visit` with the position of every LMS suffix, from the last to the first.
template <typename Chr, typename Visit> void forEachLMS(Chr chr, Index n, Visit visit)
{
    Index i = n - 1;
    for (;;) {
        while (i > 0 && chr(i - 1) >= chr(i))
            --i;
        if (i-- == 0)
            return;
        while (i > 0 && chr(i - 1) <= chr(i))
            --i;
        if (i == 0)
            return;
        visit(i--);
    }
}

/// Moves the m sorted LMS suffixes, the only complemented entries, to the front of SA.
inline void compact(Entry *SA, Index n, Index m, const char *function)
{
    Index i = 0;
    for (; SA[i] < 0; ++i) {
        SA[i] = ~SA[i];
        ZEL_ASSERT_IN(function, (i + 1) < n);
    }
    for (Index j = i; j < m; ++i) {
        ZEL_ASSERT_IN(function, i < n);
        if (SA[i] < 0) {
            SA[j++] = ~SA[i];
            SA[i] = 0;
        }
    }
}

template <typename Chr> void LMSsort1(Chr chr, Entry *SA, Entry *C, Entry *B, Index n, Index k)
{
    renewBuckets(chr, C, B, n, k, Bound::Start);
    BucketPlace starts(SA, B);
    const Index last = n - 2;
    *starts.of(chr(n - 1))++ = chr(last) < chr(n - 1) ? ~last : last;
    for (Index i = 0; i < n; ++i) {
        if (i + FetchAhead < n)
            chr.fetch(SA[i + FetchAhead] - 1);
        const Index j = SA[i];
        if (j > 0) {
            ZEL_ASSERT(chr(j) >= chr(j + 1));
            Entry *&b = starts.of(chr(j));
            ZEL_ASSERT(i < (b - SA));
            *b++ = chr(j - 1) < chr(j) ? ~(j - 1) : j - 1;
            SA[i] = 0;
        } else if (j < 0) {
            SA[i] = ~j;
        }
    }

    renewBuckets(chr, C, B, n, k, Bound::End);
    BucketPlace ends(SA, B);
    for (Index i = n - 1; i >= 0; --i) {
        if (i >= FetchAhead)
            chr.fetch(SA[i - FetchAhead] - 1);
        const Index j = SA[i];
        if (j > 0) {
            ZEL_ASSERT(chr(j) <= chr(j + 1));
            Entry *&b = ends.of(chr(j));
            ZEL_ASSERT((b - SA) <= i);
            *--b = chr(j - 1) > chr(j) ? ~j : j - 1;
            SA[i] = 0;
        }
    }
}

template <typename Chr> Index LMSpostproc1(Chr chr, Entry *SA, Index n, Index m)
{
    compact(SA, n, m, "LMSpostproc1");

    // Two LMS suffixes are at least two positions apart: half a position is enough to tell them by.
    Entry *const lengths = SA + m;
    Index next = n;
    forEachLMS(chr, n, [&](Index j) {
        lengths[j >> 1] = next - j + 1;
        next = j;
    });

    // The substring that takes in the end of the text is like no other.
    const auto equal = [&](Index p, Index q, Index length) {
        if (std::max(p, q) + length > n)
            return false;
        Index i = 0;
        while (i < length && chr(p + i) == chr(q + i))
            ++i;
        return i == length;
    };
    Index name = 0;
    Index before = 0;
    Index lengthBefore = 0;
    for (Index i = 0; i < m; ++i) {
        const Index p = SA[i];
        const Index length = lengths[p >> 1];
        if (length != lengthBefore || !equal(p, before, length)) {
            ++name;
            before = p;
            lengthBefore = length;
        }
        lengths[p >> 1] = name;
    }
    return name;
}

/// Adds n to the one entry at the right end of each run of equal substrings instead of the one at its left
/// end.
inline void turnMarks(Entry *SA, Index n)
{
    bool rightEnd = true;
    for (Index i = n - 1; i >= 0; --i) {
        const Index j = SA[i];
        if (j <= 0)
            continue;
        const bool leftEnd = j >= n;
        const Index position = leftEnd ? j - n : j;
        SA[i] = rightEnd ? position + n : position;
        rightEnd = leftEnd;
    }
}

inline Index unmarked(Index j, Index n)
{
    return j >= n ? j - n : j;
}

/// Counts names while it sorts: an entry with n added is the first of its kind that the pass meets. D has a
/// place for each symbol and type of the position before, as entries that wait for the other pass have runs
/// of their own.
template <typename Chr, typename Between>
void LMSsort2(Chr chr, Entry *SA, Entry *C, Entry *B, Entry *D, Index n, Index k, Between between)
{
    ZEL_ASSERT(C != B);
    Index d = 0;
    const auto markIfNew = [&](Index symbol, bool waits) -> Index {
        Entry &latest = D[2 * symbol + (waits ? 1 : 0)];
        const bool isNew = latest != d;
        latest = d;
        return isNew ? n : 0;
    };

    getBuckets(C, B, k, Bound::Start);
    BucketPlace starts(SA, B);
    const Index last = n - 2 + n;
    *starts.of(chr(n - 1))++ = chr(n - 2) < chr(n - 1) ? ~last : last;
    for (Index i = 0; i < n; ++i) {
        if (i + FetchAhead < n)
            chr.fetch(unmarked(SA[i + FetchAhead], n) - 1);
        Index j = SA[i];
        if (j > 0) {
            if (j >= n) {
                ++d;
                j -= n;
            }
            ZEL_ASSERT(chr(j) >= chr(j + 1));
            Entry *&b = starts.of(chr(j));
            ZEL_ASSERT(i < (b - SA));
            const bool waits = chr(j - 1) < chr(j);
            const Index entry = j - 1 + markIfNew(chr(j), waits);
            *b++ = waits ? ~entry : entry;
            SA[i] = 0;
        } else if (j < 0) {
            SA[i] = ~j;
        }
    }
    turnMarks(SA, n);

    between();
    getBuckets(C, B, k, Bound::End);
    BucketPlace ends(SA, B);
    for (Index i = n - 1; i >= 0; --i) {
        if (i >= FetchAhead)
            chr.fetch(unmarked(SA[i - FetchAhead], n) - 1);
        Index j = SA[i];
        if (j > 0) {
            if (j >= n) {
                ++d;
                j -= n;
            }
            ZEL_ASSERT(chr(j) <= chr(j + 1));
            Entry *&b = ends.of(chr(j));
            ZEL_ASSERT((b - SA) <= i);
            const bool isLMS = chr(j - 1) > chr(j);
            const Index mark = markIfNew(chr(j), isLMS);
            *--b = isLMS ? ~(j + mark) : j - 1 + mark;
            SA[i] = 0;
        }
    }
}

inline Index LMSpostproc2(Entry *SA, Index n, Index m)
{
    compact(SA, n, m, "LMSpostproc2");
    const Index names = std::count_if(SA, SA + m, [n](Index j) { return j >= n; });
    Index name = names + 1;
    for (Index i = m - 1; i >= 0; --i) {
        if (SA[i] >= n) {
            SA[i] -= n;
            --name;
        }
        SA[m + (SA[i] >> 1)] = name;
    }
    return names;
}

template <typename Chr, typename Between>
void induceSA(Chr chr, Entry *SA, Entry *C, Entry *B, Index n, Index k, Between between)
{
    renewBuckets(chr, C, B, n, k, Bound::Start);
    BucketPlace starts(SA, B);
    const Index last = n - 1;
    *starts.of(chr(last))++ = last > 0 && chr(last - 1) < chr(last) ? ~last : last;
    for (Index i = 0; i < n; ++i) {
        if (i + FetchAhead < n)
            chr.fetch(SA[i + FetchAhead] - 1);
        Index j = SA[i];
        SA[i] = ~j;
        if (j > 0) {
            --j;
            ZEL_ASSERT(chr(j) >= chr(j + 1));
            Entry *&b = starts.of(chr(j));
            ZEL_ASSERT(i < (b - SA));
            *b++ = j > 0 && chr(j - 1) < chr(j) ? ~j : j;
        }
    }

    between();
    renewBuckets(chr, C, B, n, k, Bound::End);
    BucketPlace ends(SA, B);
    for (Index i = n - 1; i >= 0; --i) {
        if (i >= FetchAhead)
            chr.fetch(SA[i - FetchAhead] - 1);
        Index j = SA[i];
        if (j > 0) {
            --j;
            ZEL_ASSERT(chr(j) <= chr(j + 1));
            Entry *&b = ends.of(chr(j));
            ZEL_ASSERT((b - SA) <= i);
            *--b = j == 0 || chr(j - 1) > chr(j) ? ~j : j;
        } else {
            SA[i] = ~j;
        }
    }
}

/// As `induceSA`, but an entry that has done its work gives way to the symbol before it. Returns the row of
/// suffix 0.
template <typename Chr> Index computeBWT(Chr chr, Entry *SA, Entry *C, Entry *B, Index n, Index k)
{
    renewBuckets(chr, C, B, n, k, Bound::Start);
    BucketPlace starts(SA, B);
    const Index last = n - 1;
    *starts.of(chr(last))++ = last > 0 && chr(last - 1) < chr(last) ? ~last : last;
    for (Index i = 0; i < n; ++i) {
        if (i + FetchAhead < n)
            chr.fetch(SA[i + FetchAhead] - 1);
        Index j = SA[i];
        if (j > 0) {
            --j;
            ZEL_ASSERT(chr(j) >= chr(j + 1));
            SA[i] = ~chr(j);
            Entry *&b = starts.of(chr(j));
            ZEL_ASSERT(i < (b - SA));
            *b++ = j > 0 && chr(j - 1) < chr(j) ? ~j : j;
        } else if (j < 0) {
            SA[i] = ~j;
        }
    }

    renewBuckets(chr, C, B, n, k, Bound::End);
    BucketPlace ends(SA, B);
    Index primary = -1;
    for (Index i = n - 1; i >= 0; --i) {
        if (i >= FetchAhead)
            chr.fetch(SA[i - FetchAhead] - 1);
        Index j = SA[i];
        if (j > 0) {
            --j;
            ZEL_ASSERT(chr(j) <= chr(j + 1));
            SA[i] = chr(j);
            Entry *&b = ends.of(chr(j));
            ZEL_ASSERT((b - SA) <= i);
            *--b = j > 0 && chr(j - 1) > chr(j) ? ~chr(j - 1) : j;
        } else if (j < 0) {
            SA[i] = ~j;
        } else {
            primary = i;
        }
    }
    return primary;
}

} // namespace zel::induction

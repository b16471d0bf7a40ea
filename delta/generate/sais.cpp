// Suffix sorting by induction. A suffix is of type S when it is smaller than the one that starts a position
// later, else of type L; an S suffix behind an L suffix is an LMS suffix. Once the LMS suffixes are sorted,
// one pass to the right puts every L suffix into its bucket, each found through the suffix that starts one
// position later, and one pass to the left every S suffix. The LMS suffixes are sorted the same way: their
// first characters seed the passes, which sorts the substrings between them; these get names by rank, and the
// text of the names is sorted by recursion if any two are equal.
//
// During the passes an entry is a position whose predecessor is yet to be placed (a position yet to be placed
// in the two LMS sorts). The complement marks an entry that the current pass has to leave alone; 0 is an
// empty slot.

#include "sais.h"

#include "alwaysassert.h"
#include "delta/owned.h"
#include "sais_main.h"

#include <algorithm>
#include <cstring>

namespace zel {
namespace {

using Index = std::int64_t;
using Entry = std::int32_t; // of all arrays: lengths are ints, and half the memory is half the cache misses

/// How one level works; the counts C and the bounds B have k entries each.
enum Flag : unsigned {
    NoFlag = 0,
    AllocatedC = 1,
    AllocatedB = 2,
    AllocatedShared = 4, ///< C and B are one allocated array
    Recount = 8, ///< B's storage is C's, or something else that takes the counts away
    AllocatedD = 16, ///< second LMS sort
    FreeSpaceD = 32, ///< second LMS sort, with its work array in the free space
};

constexpr Index mostSymbolsCountedApart = 256;
constexpr Index mostSymbolsBoundedApart = 1024;
constexpr Index longestTextOfSecondSort = (Index(1) << 30) - 1;

using Progress = std::function<void(int percent)>;

enum class Bound { Start, End };

template <typename Symbol> struct Text {
    const Symbol *T;

    Index operator()(Index i) const { return static_cast<Index>(T[i]); }
    void fetch(Index i) const { __builtin_prefetch(T + std::max<Index>(i, 0)); }
};

/// The passes jump about in the text. An entry tells where to a while before its turn, if it is there by then.
constexpr Index fetchAhead = 40;

/// Where the next entry of a bucket goes. Runs of one symbol are common: the last place used stays at hand.
class Place
{
public:
    Place(Entry *SA, Entry *B)
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
void getBuckets(const Entry *C, Entry *B, Index k, Bound bound)
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
void compact(Entry *SA, Index n, Index m, const char *function)
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
    Place starts(SA, B);
    const Index last = n - 2;
    *starts.of(chr(n - 1))++ = chr(last) < chr(n - 1) ? ~last : last;
    for (Index i = 0; i < n; ++i) {
        if (i + fetchAhead < n)
            chr.fetch(SA[i + fetchAhead] - 1);
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
    Place ends(SA, B);
    for (Index i = n - 1; i >= 0; --i) {
        if (i >= fetchAhead)
            chr.fetch(SA[i - fetchAhead] - 1);
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
void turnMarks(Entry *SA, Index n)
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

Index unmarked(Index j, Index n)
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
    Place starts(SA, B);
    const Index last = n - 2 + n;
    *starts.of(chr(n - 1))++ = chr(n - 2) < chr(n - 1) ? ~last : last;
    for (Index i = 0; i < n; ++i) {
        if (i + fetchAhead < n)
            chr.fetch(unmarked(SA[i + fetchAhead], n) - 1);
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
    Place ends(SA, B);
    for (Index i = n - 1; i >= 0; --i) {
        if (i >= fetchAhead)
            chr.fetch(unmarked(SA[i - fetchAhead], n) - 1);
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

Index LMSpostproc2(Entry *SA, Index n, Index m)
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
    Place starts(SA, B);
    const Index last = n - 1;
    *starts.of(chr(last))++ = last > 0 && chr(last - 1) < chr(last) ? ~last : last;
    for (Index i = 0; i < n; ++i) {
        if (i + fetchAhead < n)
            chr.fetch(SA[i + fetchAhead] - 1);
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
    Place ends(SA, B);
    for (Index i = n - 1; i >= 0; --i) {
        if (i >= fetchAhead)
            chr.fetch(SA[i - fetchAhead] - 1);
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
    Place starts(SA, B);
    const Index last = n - 1;
    *starts.of(chr(last))++ = last > 0 && chr(last - 1) < chr(last) ? ~last : last;
    for (Index i = 0; i < n; ++i) {
        if (i + fetchAhead < n)
            chr.fetch(SA[i + fetchAhead] - 1);
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
    Place ends(SA, B);
    Index primary = -1;
    for (Index i = n - 1; i >= 0; --i) {
        if (i >= fetchAhead)
            chr.fetch(SA[i - fetchAhead] - 1);
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

template <typename Symbol>
Index sortLevel(const Symbol *T, Entry *SA, Index fs, Index n, Index k, bool isbwt,
                const Progress &progress = {});

/// The steps of `sais_main` on one kind of text.
template <typename Chr> class Level
{
public:
    Level(Chr text, Entry *entries, Index freeSpace, Index length, Index alphabet, const Progress &progress)
        : chr(text)
        , SA(entries)
        , fs(freeSpace)
        , n(length)
        , k(alphabet)
        , reached(progress)
    {
    }

    Index run(bool isbwt)
    {
        if (!placeBuckets())
            return -2;
        flags |= chooseSort();
        getCounts(chr, C, n, k);
        getBuckets(C, B, k, Bound::End);
        std::fill_n(SA, n, 0);
        seed();
        reach(5);
        if (m > 1 && (!sortSubstrings() || (name < m && !recurse())))
            return -2;
        reach(65);
        bucketLMS();
        reach(70);
        if (isbwt)
            return computeBWT(chr, SA, C, B, n, k);
        induceSA(chr, SA, C, B, n, k, [this] { reach(85); });
        reach(100);
        return 0;
    }

private:
    /// The shares are those that program files take, roughly.
    void reach(int percent) const
    {
        if (reached)
            reached(percent);
    }

    static constexpr const char *function = "sais_main"; // what assertions of these steps name

    bool placeBuckets()
    {
        Entry *const end = SA + n + fs;
        if (k <= mostSymbolsCountedApart) {
            flags = AllocatedC;
            if (k <= fs)
                B = end - k;
            else
                flags |= AllocatedB;
        } else if (k <= fs) {
            C = end - k;
            if (k <= fs - k) {
                B = C - k;
            } else if (k <= mostSymbolsBoundedApart) {
                flags = AllocatedB;
            } else {
                flags = Recount;
                B = C;
            }
        } else {
            flags = AllocatedShared | Recount;
        }
        return allocate(AllocatedC | AllocatedB | AllocatedShared);
    }

    bool allocate(unsigned which)
    {
        which &= flags;
        if (which & (AllocatedC | AllocatedShared)) {
            ownC = allocateEntries<Entry>(k);
            C = ownC.get();
        }
        if (which & AllocatedB) {
            ownB = allocateEntries<Entry>(k);
            B = ownB.get();
        }
        if (which & AllocatedShared)
            B = C;
        return C && B;
    }

    Flag chooseSort() const
    {
        if (n > longestTextOfSecondSort || n / k < 2)
            return NoFlag;
        if (flags & AllocatedC)
            return 2 * k <= fs - k ? FreeSpaceD : AllocatedD;
        return flags == NoFlag && 2 * k <= fs - 2 * k ? FreeSpaceD : NoFlag;
    }

    /// Puts the LMS suffixes at the ends of their buckets, as the positions before them. The first of them is
    /// only counted: it ends no LMS substring, and what it would induce could run into the start of the text.
    void seed()
    {
        Index j = 0;
        forEachLMS(chr, n, [&](Index position) {
            if (m++ > 0)
                SA[--B[chr(j + 1)]] = j;
            j = position - 1;
        });
        if (m == 1) {
            ZEL_ASSERT_IN(function, (j + 1) < n);
            SA[0] = j + 1;
            name = 1;
        }
    }

    bool sortSubstrings()
    {
        if (!(flags & (AllocatedD | FreeSpaceD))) {
            LMSsort1(chr, SA, C, B, n, k);
            name = LMSpostproc1(chr, SA, n, m);
            return true;
        }
        const Array<Entry> ownD = flags & AllocatedD ? allocateEntries<Entry>(2 * k) : nullptr;
        Entry *const D = flags & AllocatedD ? ownD.get() : B - 2 * k;
        if (!D)
            return false;
        std::fill_n(D, 2 * k, 0);
        markFirstSeeds();
        LMSsort2(chr, SA, C, B, D, n, k, [this] { reach(15); });
        reach(25);
        name = LMSpostproc2(SA, n, m);
        return true;
    }

    void markFirstSeeds()
    {
        Index end = 0;
        for (Index i = 0; i < k; ++i) {
            end += C[i];
            if (B[i] != end) {
                ZEL_ASSERT_IN(function, SA[B[i]] != 0);
                SA[B[i]] += n;
            }
        }
    }

    /// Sorts the LMS suffixes through the text of their names, which lies at the far end of the space behind
    /// them.
    bool recurse()
    {
        if (flags & AllocatedShared)
            ownC.reset();
        if (flags & AllocatedB)
            ownB.reset();
        Index newfs = n + fs - 2 * m;
        if (!(flags & (AllocatedC | AllocatedShared | Recount))) {
            if (k + name <= newfs)
                newfs -= k;
            else
                flags |= Recount;
        }
        ZEL_ASSERT_IN(function, (n >> 1) <= (newfs + m));
        Entry *const RA = SA + m + newfs;
        for (Index i = m + (n >> 1) - 1, j = m - 1; i >= m; --i) {
            if (SA[i] != 0)
                RA[j--] = SA[i] - 1;
        }
        const auto reachBelow = [this](int percent) { reach(25 + 40 * percent / 100); };
        if (sortLevel(RA, SA, newfs, m, name, false, reachBelow) != 0)
            return false;

        Index j = m;
        forEachLMS(chr, n, [&](Index position) { RA[--j] = position; });
        for (Index i = 0; i < m; ++i)
            SA[i] = RA[SA[i]];
        return allocate(AllocatedB | AllocatedShared);
    }

    /// Moves the sorted LMS suffixes from the front of SA to the ends of their buckets, none of which lies
    /// before them.
    void bucketLMS()
    {
        if (flags & Recount)
            getCounts(chr, C, n, k);
        getBuckets(C, B, k, Bound::End);
        std::fill(SA + m, SA + n, 0);
        for (Index i = m - 1; i >= 0; --i) {
            const Index j = SA[i];
            SA[i] = 0;
            SA[--B[chr(j)]] = j;
        }
    }

    Chr chr;
    Entry *SA;
    Index fs;
    Index n;
    Index k;
    const Progress &reached;
    unsigned flags = NoFlag;
    Entry *C = nullptr;
    Entry *B = nullptr;
    Array<Entry> ownC;
    Array<Entry> ownB;
    Index m = 0; ///< number of LMS suffixes
    Index name = 0; ///< number of different LMS substrings
};

/// Deliberate, `sais_int` and `sais_int_bwt` promise it: integer texts are read as bytes, too.
template <typename Symbol> const unsigned char *asBytes(const Symbol *T)
{
    return reinterpret_cast<const unsigned char *>(T);
}

/// Undoes the shift that the end mark makes: its row is left out of U, but T[n - 1] comes first.
template <typename Symbol>
Index finishTransform(const Symbol *T, Symbol *U, const Entry *A, Index n, Index primary)
{
    if (primary < 0)
        return primary;
    U[0] = T[n - 1];
    for (Index i = 0; i < primary; ++i)
        U[i + 1] = static_cast<Symbol>(A[i]);
    for (Index i = primary + 1; i < n; ++i)
        U[i] = static_cast<Symbol>(A[i]);
    return primary + 1;
}

/// The front half of the caller's entries, as narrow ones; the back half is free space of another n.
Entry *narrowEntries(Index *SA)
{
    return reinterpret_cast<Entry *>(SA);
}

/// Goes from the end, so that no narrow entry is overwritten before it is read.
void widen(Index *SA, Index n)
{
    const auto *const narrow = reinterpret_cast<const unsigned char *>(SA);
    for (Index i = n - 1; i >= 0; --i) {
        Entry entry;
        std::memcpy(&entry, narrow + static_cast<std::size_t>(i) * sizeof entry, sizeof entry);
        SA[i] = entry;
    }
}

template <typename Symbol>
Index sortLevel(const Symbol *T, Entry *SA, Index fs, Index n, Index k, bool isbwt, const Progress &progress)
{
    ZEL_ASSERT_IN("sais_main", (T != NULL) && (SA != NULL)); // NOLINT(modernize-use-nullptr): it is printed
    ZEL_ASSERT_IN("sais_main", (0 <= fs) && (0 < n) && (1 <= k));
    return Level(Text<Symbol>{T}, SA, fs, n, k, progress).run(isbwt);
}

template <typename Symbol>
Index sortText(const Symbol *T, Index *SA, int n, int k, const Progress &progress = {})
{
    if (n < 0 || !T || !SA)
        return -1;
    if (n <= 1) {
        std::fill_n(SA, n, 0);
        return 0;
    }
    const Index result = sortLevel(asBytes(T), narrowEntries(SA), n, n, k, false, progress);
    if (result == 0)
        widen(SA, n);
    return result;
}

template <typename Symbol> Index transformText(const Symbol *T, Symbol *U, Index *A, int n, int k)
{
    if (n < 0 || !T || !U || !A)
        return -1;
    if (n <= 1) {
        std::copy_n(T, n, U);
        return n;
    }
    const Index primary = sais_main(asBytes(T), narrowEntries(A), n, n, k, true);
    return finishTransform(T, U, narrowEntries(A), n, primary);
}

constexpr int byteAlphabet = 256;

} // namespace

std::int64_t sais_main(const unsigned char *T, std::int32_t *SA, std::int64_t fs, std::int64_t n,
                       std::int64_t k, bool isbwt)
{
    return sortLevel(T, SA, fs, n, k, isbwt);
}

std::int64_t sais_main(const std::int32_t *T, std::int32_t *SA, std::int64_t fs, std::int64_t n,
                       std::int64_t k, bool isbwt)
{
    return sortLevel(T, SA, fs, n, k, isbwt);
}

std::int64_t sortSuffixes(const unsigned char *T, std::int64_t *SA, int n, const Progress &progress)
{
    return sortText(T, SA, n, byteAlphabet, progress);
}

} // namespace zel

std::int64_t sais(const unsigned char *T, std::int64_t *SA, int n)
{
    return zel::sortText(T, SA, n, zel::byteAlphabet);
}

std::int64_t sais_int(const std::int64_t *T, std::int64_t *SA, int n, int k)
{
    return k < 1 ? -1 : zel::sortText(T, SA, n, k);
}

std::int64_t sais_bwt(const unsigned char *T, unsigned char *U, std::int64_t *A, int n)
{
    return zel::transformText(T, U, A, n, zel::byteAlphabet);
}

std::int64_t sais_int_bwt(const std::int64_t *T, std::int64_t *U, std::int64_t *A, int n, int k)
{
    return k < 1 ? -1 : zel::transformText(T, U, A, n, k);
}

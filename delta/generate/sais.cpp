#include "sais.h"

#include "delta/owned.h"
#include "makedelta.h"
#include "sais_passes.h"

#include <cstring>

// One level sorts the LMS substrings of its text (sais_passes.h has the passes), gives them names by rank
// and, if any two are equal, sorts the text of the names by recursion: at most half as long, it lies in the
// same array.
//
// All work is done inside the caller's array. It has 64-bit entries, the passes need 32-bit ones, so its
// front half is the suffix array of the first level and its back half free space. Where a level keeps its
// counts C, bounds B and the marks D of the second LMS sort hangs on the alphabet and on how much of that
// space is left (placeBuckets, chooseSort); what fits nowhere is allocated. The choice shows in speed and
// memory alone, and tests lead through each.

namespace zel {
namespace {

using namespace induction;

// How one level works; the counts C and the bounds B have k entries each.
enum Flag : unsigned {
    NoFlag = 0,
    AllocatedC = 1,
    AllocatedB = 2,
    AllocatedShared = 4, // C and B are one allocated array
    Recount = 8, // B's storage is C's, or something else that takes the counts away
    AllocatedD = 16, // second LMS sort
    FreeSpaceD = 32, // second LMS sort, with its work array in the free space
};

constexpr Index MostSymbolsCountedApart = 256;
constexpr Index MostSymbolsBoundedApart = 1024;
constexpr Index LongestTextOfSecondSort = (Index(1) << 30) - 1;

using Progress = std::function<void(int percent)>;

template <typename Symbol>
Index sortLevel(const Symbol *T, Entry *SA, Index fs, Index n, Index k, bool isbwt,
                const Progress &progress = {});

// The steps of `sais_main` on one kind of text.
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
    // The shares are those that program files take, roughly.
    void reach(int percent) const
    {
        if (reached)
            reached(percent);
    }

    static constexpr const char *Routine = "sais_main"; // what assertions of these steps name

    bool placeBuckets()
    {
        Entry *const end = SA + n + fs;
        if (k <= MostSymbolsCountedApart) {
            flags = AllocatedC;
            if (k <= fs)
                B = end - k;
            else
                flags |= AllocatedB;
        } else if (k <= fs) {
            C = end - k;
            if (k <= fs - k) {
                B = C - k;
            } else if (k <= MostSymbolsBoundedApart) {
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
        if (n > LongestTextOfSecondSort || n / k < 2)
            return NoFlag;
        if (flags & AllocatedC)
            return 2 * k <= fs - k ? FreeSpaceD : AllocatedD;
        return flags == NoFlag && 2 * k <= fs - 2 * k ? FreeSpaceD : NoFlag;
    }

    // Puts the LMS suffixes at the ends of their buckets, as the positions before them. The first of them is
    // only counted: it ends no LMS substring, and what it would induce could run into the start of the text.
    void seed()
    {
        Index j = 0;
        forEachLMS(chr, n, [&](Index position) {
            if (m++ > 0)
                SA[--B[chr(j + 1)]] = j;
            j = position - 1;
        });
        if (m == 1) {
            ZEL_ASSERT_IN(Routine, (j + 1) < n);
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
                ZEL_ASSERT_IN(Routine, SA[B[i]] != 0);
                SA[B[i]] += n;
            }
        }
    }

    // Sorts the LMS suffixes through the text of their names, which lies at the far end of the space behind
    // them.
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
        ZEL_ASSERT_IN(Routine, (n >> 1) <= (newfs + m));
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

    // Moves the sorted LMS suffixes from the front of SA to the ends of their buckets, none of which lies
    // before them.
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
    Index m = 0; // number of LMS suffixes
    Index name = 0; // number of different LMS substrings
};

// Deliberate, `sais_int` and `sais_int_bwt` promise it: integer texts are read as bytes, too.
template <typename Symbol> const unsigned char *asBytes(const Symbol *T)
{
    return reinterpret_cast<const unsigned char *>(T);
}

// Undoes the shift that the end mark makes: its row is left out of U, but T[n - 1] comes first.
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

// The front half of the caller's entries, as narrow ones; the back half is free space of another n.
Entry *narrowEntries(Index *SA)
{
    return reinterpret_cast<Entry *>(SA);
}

// Goes from the end, so that no narrow entry is overwritten before it is read.
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
    return Level(Symbols<Symbol>{T}, SA, fs, n, k, progress).run(isbwt);
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

constexpr int ByteAlphabet = 256;

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
    return sortText(T, SA, n, ByteAlphabet, progress);
}

} // namespace zel

std::int64_t sais(const unsigned char *T, std::int64_t *SA, int n)
{
    return zel::sortText(T, SA, n, zel::ByteAlphabet);
}

std::int64_t sais_int(const std::int64_t *T, std::int64_t *SA, int n, int k)
{
    return k < 1 ? -1 : zel::sortText(T, SA, n, k);
}

std::int64_t sais_bwt(const unsigned char *T, unsigned char *U, std::int64_t *A, int n)
{
    return zel::transformText(T, U, A, n, zel::ByteAlphabet);
}

std::int64_t sais_int_bwt(const std::int64_t *T, std::int64_t *U, std::int64_t *A, int n, int k)
{
    return k < 1 ? -1 : zel::transformText(T, U, A, n, k);
}

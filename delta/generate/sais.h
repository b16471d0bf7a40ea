// Suffix arrays and Burrows-Wheeler transforms in linear time.
//
// The algorithm is SA-IS: G. Nong, S. Zhang, W. H. Chan, "Two Efficient Algorithms for Linear Time Suffix
// Array Construction", IEEE Transactions on Computers 60 (2011). Entries are 64-bit while lengths are ints,
// so texts stay below 2 GiB; the work is done on 32-bit entries inside the caller's arrays. All entry points
// are re-entrant: any thread, any number of calls at once on separate arrays. Beside the arrays that the
// caller passes, an entry point allocates at most four times the alphabet's size in entries. A broken
// internal invariant prints the platform's assertion message and aborts, in release builds too.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <cstdint>

extern "C" {

/// Sorts the suffixes of a byte text.
///
/// `T`: the text, `n` bytes, which may hold any values. `SA`: `n` entries owned by the caller, which receive
/// the starting positions of the non-empty suffixes in ascending order; the empty suffix is not among them.
///
/// Returns 0; -1 when `n` is negative or a pointer is null, before anything is written; -2 when memory is
/// exhausted, with unspecified entries in `SA`.
ZEL_EXPORT std::int64_t sais(const unsigned char *T, std::int64_t *SA, int n);

/// As `sais`, for an alphabet of `k` symbols (-1 when `k` is below 1). Deliberately, the sort takes its
/// symbols from the first `n` bytes of the text's memory, not from its 64-bit entries; arrays sorted earlier
/// depend on it. None of these bytes may be `k` or more.
ZEL_EXPORT std::int64_t sais_int(const std::int64_t *T, std::int64_t *SA, int n, int k);

/// Transforms a byte text.
///
/// `T`: the text, `n` bytes. `U`: receives the `n` bytes of the transform, without the end mark. `A`: work
/// space of `n` entries. All three belong to the caller and do not overlap.
///
/// Returns the primary index, the row of the end mark among n + 1 (`n` itself when `n` is 0 or 1); -1 when
/// `n` is negative or a pointer is null; -2 when memory is exhausted, before `U` is written.
ZEL_EXPORT std::int64_t sais_bwt(const unsigned char *T, unsigned char *U, std::int64_t *A, int n);

/// As `sais_bwt`, for an alphabet of `k` symbols (-1 when `k` is below 1). The text is read as in `sais_int`,
/// but for the first symbol of the transform, which is T[n - 1].
ZEL_EXPORT std::int64_t sais_int_bwt(const std::int64_t *T, std::int64_t *U, std::int64_t *A, int n, int k);
}

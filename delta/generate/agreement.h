// How far two texts agree, without comparing the same bytes over and over.
//
// The scan asks for nearly every place of the new file how far it agrees with some place of the old one, and
// adds up how many bytes agree over long stretches. Answered by comparing alone, this takes quadratic time in
// the files that people really have: tables of zeros, padding, sections that moved as a whole. Two things are
// kept, and both say only what comparing would say, so that no delta depends on them:
// - an agreement: how far the files were found equal at one offset from each other. The next place asks for
//   the same offset a byte further on, and the answer is one byte less;
// - a run: a stretch that repeats one period. Two runs of the same pattern agree up to the end of the shorter
//   one.
//
// Only the period of the last long match is kept: files hold several periods, but mostly one after the other.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace zel {

// The loops that nearly all time goes to.

/// The first position from `from` on where the bytes differ; `limit` when there is none, or when `from` is
/// beyond it.
inline std::int64_t matchLength(const unsigned char *a, const unsigned char *b, std::int64_t from,
                                std::int64_t limit)
{
    constexpr std::int64_t wordSize = sizeof(std::uint64_t);
    std::int64_t i = from;
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

constexpr std::int64_t CountedBlock = 64;

/// How many of `CountedBlock` bytes are equal; one byte is enough for the count, which keeps it in vectors.
inline std::int64_t equalInBlock(const unsigned char *a, const unsigned char *b)
{
    unsigned char equal = 0;
    for (int i = 0; i < CountedBlock; ++i)
        equal = static_cast<unsigned char>(equal + (a[i] == b[i]));
    return equal;
}

inline std::int64_t countEqual(const unsigned char *a, const unsigned char *b, std::int64_t count)
{
    std::int64_t equal = 0;
    std::int64_t i = 0;
    for (; i + CountedBlock <= count; i += CountedBlock)
        equal += equalInBlock(a + i, b + i);
    for (; i < count; ++i)
        equal += a[i] == b[i];
    return equal;
}

/// From where on the generator's short cuts pay. None of them shows in a delta; tests take them earlier.
struct ShortCuts {
    std::int64_t longMatch = 256; ///< bytes that are compared without a thought
    std::int64_t worthLearning = 4096; ///< bytes that have to be compared before a period is looked for
    std::int64_t chunkSize = std::int64_t(1) << 16; ///< new bytes that a thread walks through by itself
    std::int64_t reach = 4096; ///< bytes of a match that are looked at ahead of the scan
    int prefixWidth = -1; ///< of the prefix table: 0, 2 or 3 bytes; below 0 what fits the old file
};

/// Each byte from `begin` to `end` is that of one pattern, the same for all runs that are kept together, at
/// (position + phase) modulo the pattern's length, and the byte at `end`, if there is one, is not.
///
/// So whoever adds a run must know a whole period of it to be the pattern's, not only its first bytes.
struct Run {
    std::int64_t begin = 0;
    std::int64_t end = 0;
    std::int64_t phase = 0;
};

/// The runs known of one text; all are forgotten when there are too many. They may overlap by less than a
/// period.
class Runs
{
public:
    /// Null when none is known there; good until the next call.
    const Run *at(std::int64_t position)
    {
        if (position < m_last.begin || position >= m_last.end) {
            const Run *const run = find(position);
            if (!run)
                return nullptr;
            m_last = *run;
        }
        return &m_last;
    }

    /// The one that goes on for `length` bytes there, a period at least; null when none is known.
    const Run *over(std::int64_t position, std::int64_t length)
    {
        const Run *const run = at(position + length - 1);
        return run && run->begin <= position ? run : nullptr;
    }

    void add(const Run &run);

    void clear()
    {
        m_count = 0;
        m_last = {};
    }

private:
    const Run *find(std::int64_t position) const;

    std::array<Run, 1024> m_runs; ///< by their ends
    std::size_t m_count = 0;
    Run m_last; ///< the one that was asked for most lately
};

/// Compares places of the old file with places of the new one and keeps two kinds of what it learns: how far
/// the files agree at one offset from each other (the next place asks again, a byte further on), and where
/// both repeat one period, as agreement between two such runs ends with the shorter of them. So a place costs
/// no more in files that repeat themselves than in others. Belongs to one thread, and both files to the
/// caller.
class Repeats
{
public:
    Repeats(std::span<const unsigned char> oldBytes, std::span<const unsigned char> newBytes,
            const ShortCuts &shortCuts);

    /// How many bytes from `a` in the old and `s` in the new file on are equal, when the first `from` are
    /// known to be.
    std::int64_t length(std::int64_t a, std::int64_t s, std::int64_t from);

    /// How many bytes from the two places on are known to be equal, without a look at them; more may be.
    std::int64_t knownAfter(std::int64_t a, std::int64_t s);

    /// As `knownAfter`, of the bytes before the places.
    std::int64_t knownBefore(std::int64_t a, std::int64_t s);

private:
    /// What is equal at one offset: new bytes from `begin` to `end`, the first that differs.
    struct Agreement {
        std::int64_t offset = 0;
        std::int64_t begin = 0;
        std::int64_t end = 0;
    };

    std::int64_t longLength(std::int64_t a, std::int64_t s, std::int64_t from);
    std::int64_t lengthInRuns(std::int64_t a, std::int64_t s);
    bool inPhase(std::int64_t a, const Run &oldRun, std::int64_t s, const Run &newRun) const;
    void learn(std::int64_t a, std::int64_t s, std::int64_t equal, std::int64_t compared);
    bool learnPeriod(std::int64_t s, std::int64_t length);
    Run runAround(std::span<const unsigned char> text, std::int64_t at, std::int64_t phase) const;

    std::span<const unsigned char> m_old;
    std::span<const unsigned char> m_new;
    const ShortCuts m_shortCuts;
    std::array<Agreement, 1024> m_agreements;
    std::int64_t m_period = 1; ///< of all runs
    Runs m_oldRuns;
    Runs m_newRuns;
};

class Extension
{
public:
    /// Both files and `repeats`, which is asked about them, belong to the caller.
    Extension(std::span<const unsigned char> oldBytes, std::span<const unsigned char> newBytes,
              Repeats &repeats)
        : m_old(oldBytes.data())
        , m_new(newBytes.data())
        , m_repeats(repeats)
    {
    }

    /// The length up to `limit` with the greatest surplus of equal over other bytes; 0 unless there is one.
    std::int64_t forward(std::int64_t oldStart, std::int64_t newStart, std::int64_t limit) const;

    /// As `forward`, of the bytes before the places.
    std::int64_t backward(std::int64_t oldStart, std::int64_t newStart, std::int64_t limit) const;

    /// How many of the first of `count` new bytes to take from the old bytes at `first` instead of those at
    /// `second`, so that the most bytes are equal.
    std::int64_t shareOfFirst(std::int64_t newStart, std::int64_t first, std::int64_t second,
                              std::int64_t count) const;

private:
    enum class Direction { Forward, Backward };
    template <Direction direction>
    std::int64_t extend(std::int64_t oldStart, std::int64_t newStart, std::int64_t limit) const;

    const unsigned char *m_old;
    const unsigned char *m_new;
    Repeats &m_repeats;
};

} // namespace zel

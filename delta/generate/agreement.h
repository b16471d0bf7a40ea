// Long matches between the two files, remembered so that none is compared over and over.
#pragma once

#include "runs.h"
#include "shortcuts.h"

#include <span>

namespace zel {

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

    /// How many bytes from `a` in the old and `s` in the new file on are equal, when the first `from` are known
    /// to be.
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

} // namespace zel

// Stretches of a text that repeat one period.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zel {

/// Each byte from `begin` to `end` is that of one pattern, the same for all runs that are kept together, at
/// (position + phase) modulo the pattern's length, and the byte at `end`, if there is one, is not.
///
/// So whoever adds a run must know a whole period of it to be the pattern's, not only its first bytes.
struct Run {
    std::int64_t begin = 0;
    std::int64_t end = 0;
    std::int64_t phase = 0;
};

/// The runs known of one text; all are forgotten when there are too many. They may overlap by less than a period.
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

} // namespace zel

// Stretches of a text that repeat one period.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zel {

struct Run {
    std::int64_t begin = 0;
    std::int64_t end = 0; ///< where the period is broken
    std::int64_t phase = 0; ///< position + phase counts through the period, modulo its length
};

/// The runs known of one text and one period; all are forgotten when there are too many. They may overlap by
/// less than a period.
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

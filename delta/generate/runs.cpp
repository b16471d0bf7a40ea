#include "runs.h"

#include <algorithm>

namespace zel {

const Run *Runs::find(std::int64_t position) const
{
    const Run *const end = m_runs.data() + m_count;
    const Run *const run = std::upper_bound(
        m_runs.data(), end, position, [](std::int64_t place, const Run &other) { return place < other.end; });
    return run != end && run->begin <= position ? run : nullptr;
}

void Runs::add(const Run &run)
{
    if (m_count == m_runs.size())
        m_count = 0;
    Run *const end = m_runs.data() + m_count++;
    Run *const place = std::upper_bound(m_runs.data(), end, run,
                                        [](const Run &one, const Run &other) { return one.end < other.end; });
    std::move_backward(place, end, end + 1);
    *place = run;
    m_last = run;
}

} // namespace zel

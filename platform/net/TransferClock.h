// The clock that judges the pace of a transfer.
#pragma once

#include "URLRequest.h"

namespace zel {

/// When a transfer has taken too long. Judges over times that it is told, so it can be tested without
/// waiting.
class TransferClock
{
public:
    using Time = std::chrono::steady_clock::time_point;

    /// For a transfer with the limits of `request` that begins at `start`.
    TransferClock(const URLRequest &request, Time start);

    /// Tells that `moved` bytes have gone either way since the start.
    void tell(qint64 moved, Time now);

    /// Which limit is broken; null as long as none is.
    const char *complaint(Time now) const;

    /// How long nothing needs to be judged as long as no byte moves.
    std::chrono::milliseconds left(Time now) const;

    /// Whether the deadline is later than `time`.
    bool allows(Time time) const { return !m_deadline || time < *m_deadline; }

    /// Judges silence and pace anew from `now` on, for a further attempt.
    void restart(Time now);

private:
    const std::chrono::milliseconds m_timeout;
    const std::optional<Time> m_deadline;
    const std::optional<LeastPace> m_pace;
    qint64 m_moved = 0;
    Time m_lastByte;
    Time m_spanStart;
    qint64 m_spanMoved = 0; // what had moved when the span began
    bool m_slow = false;
};

} // namespace zel

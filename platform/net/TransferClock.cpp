#include "TransferClock.h"

#include <algorithm>
#include <utility>

namespace zel {

TransferClock::TransferClock(const URLRequest &request, Time start)
    : m_timeout(request.timeout)
    , m_deadline(request.deadline ? std::optional(start + *request.deadline) : std::nullopt)
    , m_pace(request.pace)
    , m_lastByte(start)
    , m_spanStart(start)
{
}

void TransferClock::tell(qint64 moved, Time now)
{
    if (std::exchange(m_moved, moved) != moved)
        m_lastByte = now;
    if (!m_pace || now - m_spanStart < m_pace->span)
        return;
    m_slow = m_slow || moved - m_spanMoved < m_pace->bytes;
    m_spanStart = now;
    m_spanMoved = moved;
}

const char *TransferClock::complaint(Time now) const
{
    if (now - m_lastByte >= m_timeout)
        return "the server is silent";
    if (m_deadline && now >= *m_deadline)
        return "it takes too long";
    return m_slow ? "the server is too slow" : nullptr;
}

std::chrono::milliseconds TransferClock::left(Time now) const
{
    Time next = m_lastByte + m_timeout;
    if (m_deadline)
        next = std::min(next, *m_deadline);
    if (m_pace)
        next = std::min(next, m_spanStart + m_pace->span);
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(next - now), std::chrono::milliseconds(0));
}

void TransferClock::restart(Time now)
{
    m_lastByte = now;
    m_spanStart = now;
    m_spanMoved = m_moved;
    m_slow = false;
}

} // namespace zel

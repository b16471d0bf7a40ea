#include "Attempts.h"

#include <QRandomGenerator>

#include <algorithm>

namespace zel {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds LongestAsked(60);
constexpr int MostSilences = 2;

// So that those who lost a server at one moment do not all come back at another.
milliseconds withJitter(milliseconds pause)
{
    return pause + milliseconds(QRandomGenerator::global()->bounded(qint64(pause.count() / 4 + 1)));
}

} // namespace

bool isPassing(CURLcode code)
{
    switch (code) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_PARTIAL_FILE:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SSL_CONNECT_ERROR: // broken off; certificates have a code of their own
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
        return true;
    default:
        return false;
    }
}

bool isPassing(long status)
{
    return status == 429 || status == 500 || (status >= 502 && status <= 504);
}

std::optional<milliseconds> Attempts::next(const PassingFault &fault)
{
    if (fault.cameFurther)
        m_silences = 0;
    m_silences += fault.isSilence ? 1 : 0;
    if (isLast() || m_silences >= MostSilences)
        return std::nullopt;
    return std::max<milliseconds>(withJitter(m_pauses[m_ended++]), std::min(fault.asked, LongestAsked));
}

} // namespace zel

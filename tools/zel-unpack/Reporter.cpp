#include "Reporter.h"

#include "base/FileDescriptor.h"
#include "base/ToolReport.h"

#include <charconv>
#include <chrono>
#include <cstdlib>
#include <string_view>
#include <sys/stat.h>

namespace zel {

Reporter::Reporter()
{
    const char *named = std::getenv(reportVariable);
    if (!named)
        return;
    const std::string_view text = named;
    int descriptor = -1;
    struct stat status;
    if (std::from_chars(text.data(), text.data() + text.size(), descriptor).ptr == text.data() + text.size()
        && ::fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode))
        m_pipe = descriptor;
}

void Reporter::progress()
{
    using namespace std::chrono;
    const int64_t now = duration_cast<seconds>(steady_clock::now().time_since_epoch()).count();
    int64_t last = m_lastSecond;
    if (now != last && m_lastSecond.compare_exchange_strong(last, now))
        say(reportedProgress);
}

void Reporter::ending(int status)
{
    say(char(reportedStatus + status));
}

void Reporter::say(char word)
{
    if (m_pipe >= 0)
        writeAll(m_pipe, &word, 1);
}

} // namespace zel

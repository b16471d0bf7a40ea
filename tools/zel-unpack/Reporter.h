// The word to the program that has started the tool.
#pragma once

#include <atomic>
#include <cstdint>

namespace zel {

/// Reports as common/ToolReport.h describes, where somebody wants to hear it. When nobody is left to hear it, SIGPIPE
/// ends the tool: whoever wanted the archive is gone.
class Reporter
{
public:
    /// Takes the pipe from the environment. Without one, nothing is ever written.
    Reporter();

    /// Says that there is progress, at most once a second; from any thread.
    void progress();

    /// Says with which status the tool is about to end.
    void ending(int status);

private:
    void say(char word);

    int m_pipe = -1;
    std::atomic<int64_t> m_lastSecond = 0;
};

} // namespace zel

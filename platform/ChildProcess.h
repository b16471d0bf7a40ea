// A program that is fed through its standard input and must get on with it.
#pragma once

#include "base/FileDescriptor.h"

#include <QStringList>

#include <atomic>
#include <chrono>
#include <optional>
#include <sys/types.h>

namespace zel {

/// A running program. It starts with default signal handlers and an empty signal mask, and shares the host's
/// environment, standard output and standard error, but no other descriptor than the pipe for its reports
/// (base/ToolReport.h). Collect it with `wait`.
///
/// It is killed when it makes no progress for as long as `patience`: reads nothing of its input, and once
/// that has ended, neither reports progress nor ends. So its own word counts and not the time that it takes
/// on the processor, which an endless loop takes, too. The clock stands still while the machine sleeps.
///
/// What the host does with SIGCHLD does not matter: the program is watched through a descriptor of its own,
/// which no other process can come to stand for, and when somebody else has taken its exit status, the status
/// that it reported itself is what counts.
class ChildProcess
{
public:
    explicit ChildProcess(std::chrono::milliseconds patience)
        : m_patience(patience)
    {
    }

    /// Runs `program` (a full path) directly, without a shell. False when it cannot be launched.
    bool launch(const QString &program, const QStringList &arguments);

    /// Writes all of it to the program's standard input. False leaves the reason in `errno`: EPIPE when the
    /// program reads no more (no SIGPIPE reaches the host), ETIMEDOUT when it was killed for reading nothing.
    bool write(const char *data, size_t length);

    /// Ends the program's input. False leaves the reason in `errno`.
    bool closeInput() { return m_input.close(); }

    /// Waits for the end of the program and returns its exit status, the number of the signal that killed it,
    /// or -1 when neither is to be had. A program that not even SIGKILL ends (the kernel is waiting for a
    /// disk or a server on its behalf) is given up after some seconds.
    int wait();

    /// Ends a launched program at once, from any thread, whatever it is doing.
    void kill();

    /// Whether it made no progress for too long.
    bool isOutOfPatience() const { return m_outOfPatience; }

private:
    using Clock = std::chrono::steady_clock;

    bool awaitRoom();
    bool awaitEnd(std::chrono::milliseconds patience);
    bool readReports();
    void giveUp();
    int status();

    const std::chrono::milliseconds m_patience;
    FileDescriptor m_input;
    FileDescriptor m_reports;
    FileDescriptor m_handle; // of the process; none when it had ended before it could be had
    std::optional<int> m_ReportedStatus;
    std::atomic<bool> m_killed = false;
    bool m_outOfPatience = false;
};

} // namespace zel

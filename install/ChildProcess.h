// A program that is fed through its standard input.
#pragma once

#include "FileDescriptor.h"

#include <QStringList>
#include <sys/types.h>

namespace zel {

/// A running program. It starts with default signal handlers and an empty signal mask, and shares the host's
/// environment, standard output and standard error, but no other descriptor. Collect it with `wait`.
class ChildProcess
{
public:
    /// Runs `program` (a full path) directly, without a shell. False when it cannot be launched.
    bool launch(const QString &program, const QStringList &arguments);

    /// Writes all of it to the program's standard input. False leaves the reason in `errno`, EPIPE when the
    /// program reads no more: no SIGPIPE reaches the host.
    bool write(const char *data, size_t length);

    /// Ends the program's input. False leaves the reason in `errno`.
    bool closeInput() { return m_input.close(); }

    /// Waits for the end of the program and returns its exit status, the number of the signal that killed it, or
    /// -1 when somebody else has collected it.
    int wait();

private:
    FileDescriptor m_input;
    pid_t m_id = -1;
};

} // namespace zel

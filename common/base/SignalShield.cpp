// A signal that writing raises goes to the thread that writes. So it can be blocked on that thread, let come,
// and be taken away again, and no other thread notices. Ignoring it for the process was rejected: the
// handlers are the host's, whose other threads may rely on them at that very moment. A flag of each write
// does not do either: there is one for sockets alone, and nothing keeps SIGXFSZ off. What was pending before
// is the host's, and stays for it.
#include "SignalShield.h"

#include <cerrno>
#include <ctime>

namespace zel {

namespace {

constexpr int RaisedByWriting[] = {SIGPIPE, SIGXFSZ};
constexpr int RaisedByFaults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT};

sigset_t raisedByWriting()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : RaisedByWriting)
        sigaddset(&set, signal);
    return set;
}

// Takes one of the signals away that are pending on this thread, all of which are blocked; false when none
// is.
bool takePending(const sigset_t &set)
{
#ifdef __APPLE__
    sigset_t pending;
    sigpending(&pending);
    for (const int signal : RaisedByWriting) {
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, signal);
        int taken = 0;
        if (sigismember(&set, signal) == 1 && sigismember(&pending, signal) == 1)
            return sigwait(&one, &taken) == 0;
    }
    return false;
#else
    const timespec now{};
    return sigtimedwait(&set, nullptr, &now) > 0 || errno == EINTR;
#endif
}

} // namespace

BlockedSignals::BlockedSignals(const sigset_t &set)
{
    pthread_sigmask(SIG_BLOCK, &set, &m_before);
}

BlockedSignals::~BlockedSignals()
{
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

sigset_t BlockedSignals::asynchronous()
{
    sigset_t set;
    sigfillset(&set);
    for (const int fault : RaisedByFaults)
        sigdelset(&set, fault);
    return set;
}

SignalShield::SignalShield()
    : m_ours(raisedByWriting())
    , m_blocked(m_ours)
{
    sigset_t pending;
    sigpending(&pending);
    for (const int signal : RaisedByWriting)
        if (sigismember(&pending, signal) == 1)
            sigdelset(&m_ours, signal);
}

SignalShield::~SignalShield()
{
    // Both go to the thread that writes, so it is enough to take them away here. The mask comes back after
    // this.
    const int error = errno;
    while (takePending(m_ours)) { }
    errno = error;
}

} // namespace zel

// What keeps the signals of the library's own work from the host, and the host's signals from the library's
// threads.
#pragma once

#include <csignal>

namespace zel {

/// Blocks signals on the thread that makes it, for as long as it lives.
class BlockedSignals
{
public:
    explicit BlockedSignals(const sigset_t &set);
    ~BlockedSignals();
    BlockedSignals(const BlockedSignals &) = delete;
    BlockedSignals &operator=(const BlockedSignals &) = delete;

    /// Every signal but those that a thread's own fault raises. Threads that are started under this inherit
    /// it, and no handler of the host ever runs on them. A program that they start would inherit it, too:
    /// give it a mask of its own.
    static sigset_t asynchronous();

private:
    sigset_t m_before;
};

/// Keeps what writing may raise, SIGPIPE and SIGXFSZ (beyond the limit on file sizes), from the host: the
/// write fails with `EPIPE` or `EFBIG`, and that is all. Lives on the stack of the thread that writes; may be
/// nested. Leaves `errno` alone.
class SignalShield
{
public:
    SignalShield();
    ~SignalShield();
    SignalShield(const SignalShield &) = delete;
    SignalShield &operator=(const SignalShield &) = delete;

private:
    sigset_t m_ours; // those of the two that were not pending already, which are for their owner to take
    const BlockedSignals m_blocked;
};

} // namespace zel

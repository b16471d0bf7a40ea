#include "Interrupt.h"

#include "base/SystemCalls.h"
#include "platform/FileTree.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <set>
#include <thread>
#include <unistd.h>

// A signal's handler may do next to nothing, so it only writes the signal's number into a pipe, and a thread
// of its own removes what is unfinished and then raises the signal again: the caller sees that the tool was
// ended by it. One lock is held by whoever may not be cut off, and by that thread for good, so that an
// unfinished thing is either removed or has become a finished one, and never both.

namespace zel {

namespace {

int interruptions[2] = {-1, -1}; // a pipe: next to nothing may be done in a signal's handler

std::recursive_mutex &guard()
{
    static std::recursive_mutex mutex;
    return mutex;
}

std::multiset<QString> &leftovers()
{
    static std::multiset<QString> paths;
    return paths;
}

void note(int signal)
{
    const int cause = errno;
    const auto byte = static_cast<unsigned char>(signal);
    [[maybe_unused]] const ssize_t written = ::write(interruptions[1], &byte, 1);
    errno = cause;
}

// Other threads may be writing there still, so a folder may not be empty when it is to go.
void removeLeftovers()
{
    constexpr int mostTries = 20;
    for (const QString &path : leftovers()) {
        for (int tries = 0; !path.isEmpty() && tries < mostTries && removeTree(path); ++tries)
            std::this_thread::yield();
    }
}

// What still works on the leftovers, here or in a child that is started yet, sees them vanish. What it has to
// say of that is of no use to anybody.
void sayNoMore()
{
    if (const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC); nowhere >= 0)
        ::dup2(nowhere, STDERR_FILENO);
}

void awaitInterruption()
{
    unsigned char signal = 0;
    while (::read(interruptions[0], &signal, 1) != 1) { }
    guard().lock(); // for good
    sayNoMore();
    removeLeftovers();
    ::raise(signal); // whose handler is the system's by now
}

} // namespace

void cleanUpWhenInterrupted()
{
    FileDescriptor reading;
    FileDescriptor writing;
    if (!makePipe(reading, writing))
        return;
    interruptions[0] = reading.release();
    interruptions[1] = writing.release();
    try {
        std::thread(awaitInterruption).detach();
    } catch (const std::system_error &) {
        return; // without it signals end the process as they would anyway
    }
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        ::sigaction(signal, nullptr, &action);
        if (action.sa_handler == SIG_IGN)
            continue;
        action.sa_handler = note;
        action.sa_flags = SA_RESTART | int(SA_RESETHAND); // the second one ends the process at once
        ::sigaction(signal, &action, nullptr);
    }
}

Leftover::Leftover(const QString &path)
    : m_path(path)
{
    const std::lock_guard lock(guard());
    leftovers().insert(m_path);
}

Leftover::~Leftover()
{
    const std::lock_guard lock(guard());
    leftovers().erase(leftovers().find(m_path));
}

ScratchFolder::ScratchFolder(const QString &pattern)
    : ScratchFolder(pattern, Uninterrupted())
{
}

ScratchFolder::ScratchFolder(const QString &pattern, const Uninterrupted &)
    : m_folder(pattern)
    , m_leftover(m_folder.path())
{
}

ScratchFolder::~ScratchFolder()
{
    const Uninterrupted removing;
    m_folder.remove();
}

Uninterrupted::Uninterrupted()
{
    guard().lock();
}

Uninterrupted::~Uninterrupted()
{
    guard().unlock();
}

} // namespace zel

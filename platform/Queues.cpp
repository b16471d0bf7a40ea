// Which threads there are, and how they end.
//
// A host gives the library its main thread's event loop and nothing else, and may go away at any time: by
// destroying its application object, by `exit` with that object alive, by unloading the library, or out of a
// completion that runs on one of these threads. No thread may then still run code or use data that is going.
// So every thread is a session that is known here. At the end (`cancelAndWait`), each is cancelled, and all
// are waited for, but for one that calls the end itself, which ends with the process. That is why no
// completion on a session's thread may wait for the main thread.
//
// Qt calls `endAll` when the application object goes; the destructor of `Sessions` does the same at `exit`.
// What sessions use to their last moment (the log, the network's libraries) is made before `Sessions`, and so
// ends after it.
//
// A thread cannot join itself, and nobody waits for a session in the normal course. So each that ends joins
// the one that ended before it and leaves itself to the next; at most one ended thread is kept. Detached
// threads were rejected: the process cannot wait for the last instructions of those.
#include "Queues.h"

#include "base/SignalShield.h"
#include "common/DDLog.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace zel {

namespace {

struct Session {
    std::function<void()> cancel;
    std::thread thread;
};

class Sessions
{
public:
    static Sessions &instance()
    {
        static Sessions sessions;
        return sessions;
    }

    bool start(std::function<void()> &body, const std::function<void()> &cancel)
    {
        std::unique_lock lock(m_mutex);
        if (!std::exchange(m_endsWithApplication, true))
            qAddPostRoutine(endAll);
        const auto session = m_running.insert(m_running.begin(), Session{cancel, {}});
        if (!run(session, body)) {
            m_running.erase(session);
            return false;
        }
        const bool ending = m_ending;
        lock.unlock();
        if (ending && cancel)
            cancel();
        return true;
    }

private:
    // What sessions log into is made before them, and therefore ends after them.
    Sessions() { DDLog::prepare(); }

    ~Sessions()
    {
        // The host may leave through exit() with its application object alive, or unload the library.
        qRemovePostRoutine(endAll);
        cancelAndWait();
    }

    bool run(std::list<Session>::iterator session, std::function<void()> &body)
    {
        const auto shared = std::make_shared<std::function<void()>>(std::move(body));
        try {
            const BlockedSignals blocked(BlockedSignals::asynchronous());
            session->thread = std::thread([this, session, shared] {
                std::exchange(*shared, nullptr)(); // and its end, on this thread
                leave(session);
            });
            return true;
        } catch (const std::exception &) { // no thread, or no memory for one
            body = std::move(*shared);
            return false;
        }
    }

    static void endAll() { instance().cancelAndWait(); }

    void leave(std::list<Session>::iterator session)
    {
        Session ended;
        std::thread before;
        {
            const std::lock_guard lock(m_mutex);
            ended = std::move(*session);
            m_running.erase(session);
            before = std::exchange(m_ended, std::move(ended.thread));
            m_changed.notify_all();
        }
        if (before.joinable())
            before.join();
    }

    std::list<std::function<void()>> beginEnding()
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
        std::list<std::function<void()>> cancels;
        for (const Session &session : m_running)
            if (session.cancel)
                cancels.push_back(session.cancel);
        return cancels;
    }

    void cancelAndWait()
    {
        for (const auto &cancel : beginEnding())
            cancel();
        std::unique_lock lock(m_mutex);
        // A completion may call exit(): its own thread ends with the process.
        const auto isOwn = [](const Session &session) {
            return session.thread.get_id() == std::this_thread::get_id();
        };
        m_changed.wait(lock, [&] { return std::ranges::all_of(m_running, isOwn); });
        for (Session &own : m_running)
            own.thread.detach();
        m_running.clear();
        std::thread last = std::move(m_ended);
        m_ending = false;
        m_endsWithApplication = false;
        lock.unlock();
        if (last.joinable())
            last.join();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::list<Session> m_running;
    std::thread m_ended; // its thread is done but for its last instructions
    bool m_endsWithApplication = false;
    bool m_ending = false;
};

// Qt copies functors on their way, and both threads hold the last copy: the one that posted it may let go of
// it after the main thread has called it. So the call leaves nothing behind.
auto emptiedByItsCall(std::function<void()> &&work)
{
    return [owner = std::make_shared<std::function<void()>>(std::move(work))] {
        std::exchange(*owner, nullptr)();
    };
}

} // namespace

bool startSession(std::function<void()> &&body, std::function<void()> cancel)
{
    return Sessions::instance().start(body, cancel);
}

void onMainQueue(std::function<void()> &&work)
{
    if (auto *application = QCoreApplication::instance())
        QMetaObject::invokeMethod(application, emptiedByItsCall(std::move(work)), Qt::QueuedConnection);
    work = nullptr;
}

void onMainQueueAfter(std::chrono::milliseconds delay, std::function<void()> &&work)
{
    if (auto *application = QCoreApplication::instance())
        QTimer::singleShot(delay, application, emptiedByItsCall(std::move(work)));
    work = nullptr;
}

void onGlobalQueue(std::function<void()> &&work)
{
    if (!startSession(std::move(work), {}))
        std::exchange(work, nullptr)();
}

bool isMainQueue()
{
    const auto *application = QCoreApplication::instance();
    return application && application->thread() == QThread::currentThread();
}

} // namespace zel

#include "SessionThreads.h"

#include "base/SignalShield.h"
#include "common/DDLog.h"

#include <QCoreApplication>

#include <algorithm>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

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
            const zel::BlockedSignals blocked(zel::BlockedSignals::asynchronous());
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

    // A thread cannot join itself, so each joins the one that ended before it and leaves itself to the next.
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

} // namespace

bool zel::startSession(std::function<void()> &&body, std::function<void()> cancel)
{
    return Sessions::instance().start(body, cancel);
}

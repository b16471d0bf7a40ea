#include "SessionThreads.h"

#include "SignalShield.h"

#include <QCoreApplication>

#include <condition_variable>
#include <list>
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

    void start(std::function<void()> body, const std::function<void()> &cancel)
    {
        std::unique_lock lock(m_mutex);
        if (!std::exchange(m_endsWithApplication, true))
            qAddPostRoutine(endAll);
        m_running.push_front({cancel, {}});
        const zel::BlockedSignals blocked(zel::BlockedSignals::asynchronous());
        const auto session = m_running.begin();
        session->thread = std::thread([this, session, body = std::move(body)]() mutable {
            body();
            body = nullptr;
            leave(session);
        });
        const bool ending = m_ending;
        lock.unlock();
        if (ending)
            cancel();
    }

private:
    Sessions() = default;

    ~Sessions()
    {
        // The host may leave through exit() with its application object alive, or unload the library.
        qRemovePostRoutine(endAll);
        cancelAndWait();
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
            cancels.push_back(session.cancel);
        return cancels;
    }

    void cancelAndWait()
    {
        for (const auto &cancel : beginEnding())
            cancel();
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_running.empty(); });
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

void zel::startSession(std::function<void()> body, std::function<void()> cancel)
{
    Sessions::instance().start(std::move(body), cancel);
}

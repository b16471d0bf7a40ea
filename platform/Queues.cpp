// Which threads there are, and how they end.
//
// A host gives the library its main thread's event loop and nothing else, and may go away at any time: by
// destroying its application object, by `exit` with that object alive, by unloading the library, or out of a
// completion that runs on one of these threads. No thread may then still run code or use data that is going.
// So every thread that outlives the call that starts it is a session, which is known here. At the end
// (`cancelAndWait`), each is cancelled, and all are waited for, but for one that calls the end itself, which
// ends with the process. That is why no completion on a session's thread may wait for the main thread.
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
#include <numeric>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

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

// The costliest job goes first: last, it would keep one processor busy while the others wait. It is never
// overtaken by a cheaper one that would fit into what is left of the budget; it could wait for ever
// otherwise. Threads are made for each call, which takes microseconds where jobs take milliseconds. A pool
// that stays would have to be ended with the host.
class Jobs
{
public:
    Jobs(std::span<const qint64> costs, const std::function<void(size_t)> &job, qint64 budget)
        : m_costs(costs)
        , m_job(job)
        , m_budget(budget)
        , m_waiting(costs.size())
    {
        std::iota(m_waiting.begin(), m_waiting.end(), size_t(0));
        std::ranges::stable_sort(m_waiting, std::ranges::less(), [costs](size_t i) { return costs[i]; });
    }

    void work() noexcept
    {
        std::unique_lock lock(m_mutex);
        while (const std::optional<size_t> next = take(lock)) {
            lock.unlock();
            m_job(*next);
            lock.lock();
            m_running -= 1;
            m_used -= m_costs[*next];
            m_changed.notify_all();
        }
    }

private:
    // The costliest job that waits, as soon as it fits.
    std::optional<size_t> take(std::unique_lock<std::mutex> &lock)
    {
        m_changed.wait(lock, [this] { return m_waiting.empty() || fits(m_costs[m_waiting.back()]); });
        if (m_waiting.empty())
            return std::nullopt;
        const size_t next = m_waiting.back();
        m_waiting.pop_back();
        m_running += 1;
        m_used += m_costs[next];
        return next;
    }

    bool fits(qint64 cost) const { return m_running == 0 || cost <= m_budget - m_used; }

    const std::span<const qint64> m_costs;
    const std::function<void(size_t)> &m_job;
    const qint64 m_budget;
    std::vector<size_t> m_waiting; // the costliest at the end
    qint64 m_used = 0;
    int m_running = 0;
    std::mutex m_mutex;
    std::condition_variable m_changed;
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

void runJobs(std::span<const qint64> costs, const std::function<void(size_t)> &job, qint64 budget)
{
    Jobs jobs(costs, job, budget);
    const size_t count = std::min<size_t>(std::max(1U, std::thread::hardware_concurrency()), costs.size());
    std::vector<std::jthread> others;
    try {
        const BlockedSignals blocked(BlockedSignals::asynchronous());
        for (size_t i = 1; i < count; ++i)
            others.emplace_back([&jobs] { jobs.work(); });
    } catch (const std::system_error &) {
        // No more threads are to be had: those that run do all the jobs.
    }
    jobs.work();
}

bool isMainQueue()
{
    const auto *application = QCoreApplication::instance();
    return application && application->thread() == QThread::currentThread();
}

} // namespace zel

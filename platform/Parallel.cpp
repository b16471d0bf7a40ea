// The costliest job goes first: last, it would keep one processor busy while the others wait. It is never
// overtaken by a cheaper one that would fit into what is left of the budget; it could wait for ever
// otherwise. Threads are made for each call, which takes microseconds where jobs take milliseconds. A pool
// that stays would have to be ended with the host.
#include "Parallel.h"

#include "base/SignalShield.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <numeric>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

namespace zel {

namespace {

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

} // namespace

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

} // namespace zel

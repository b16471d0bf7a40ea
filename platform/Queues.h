// The queues that the flows run on, the threads beneath them, and their orderly end with the application.
#pragma once

#include <QtGlobal>

#include <chrono>
#include <functional>
#include <limits>
#include <span>

namespace zel {

/// Runs `work` on the main queue (the application object's event loop), never before the caller returns. It
/// is moved there and not copied, so all that it holds is destroyed on the main thread, too, right after it
/// ran. What still waits when the application object ends is destroyed with that object and does not run;
/// without an application object `work` is dropped at once, on the calling thread. Safe from any thread.
void onMainQueue(std::function<void()> &&work);

/// As `onMainQueue`, after `delay`.
void onMainQueueAfter(std::chrono::milliseconds delay, std::function<void()> &&work);

/// Runs `work` on a thread of its own, which no signal of the host interrupts and which the application's end
/// waits for; on the calling thread, before this returns, where no thread is to be had. Safe from any thread.
void onGlobalQueue(std::function<void()> &&work);

/// Runs `body` on a new thread, where no signal handler of the host ever runs. `cancel` is called, on another
/// thread, when the application ends before `body` has returned: then every session is cancelled and the
/// application object's destructor, or `exit`, waits for all of them. A session that starts during that is
/// cancelled at once. Returns false, with `body` untouched, where no thread is to be had. Safe from any
/// thread.
[[nodiscard]] bool startSession(std::function<void()> &&body, std::function<void()> cancel);

/// Calls `job(i)` once for each of the `costs`, on several threads, and returns when all jobs are done. The
/// costliest comes first. The costs of the jobs that run at a time stay within `budget`; one that costs more
/// runs alone. A job must not throw.
void runJobs(std::span<const qint64> costs, const std::function<void(size_t)> &job,
             qint64 budget = std::numeric_limits<qint64>::max());

/// Whether the caller is on the thread of the main queue.
bool isMainQueue();

} // namespace zel

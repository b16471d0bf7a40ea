// The queues that the flows run on.
#pragma once

#include <chrono>
#include <functional>

namespace zel {

/// Runs `work` on the main queue (the application object's event loop), never before the caller returns.
/// Dropped when there is no application object. Safe from any thread.
void onMainQueue(std::function<void()> work);

/// As `onMainQueue`, after `delay`.
void onMainQueueAfter(std::chrono::milliseconds delay, std::function<void()> work);

/// Runs `work` on a thread of the global pool, under a `SignalShield`. Safe from any thread.
void onGlobalQueue(std::function<void()> work);

} // namespace zel

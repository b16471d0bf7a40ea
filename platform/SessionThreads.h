// The threads that URL sessions and long jobs run on, and their orderly end with the application.
#pragma once

#include <functional>

namespace zel {

/// Runs `body` on a new thread, where no signal handler of the host ever runs. `cancel` is called, on another thread,
/// when the application ends before `body` has returned: then every session is cancelled and the application object's
/// destructor, or `exit`, waits for all of them. A session that starts during that is cancelled at once. Returns false,
/// with `body` untouched, where no thread is to be had. Safe from any thread.
[[nodiscard]] bool startSession(std::function<void()> &&body, std::function<void()> cancel);

} // namespace zel

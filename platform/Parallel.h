// Jobs done side by side, on as many threads as there are processors.
#pragma once

#include <QtGlobal>

#include <functional>
#include <limits>
#include <span>

namespace zel {

/// Calls `job(i)` once for each of the `costs`, on several threads, and returns when all jobs are done. The
/// costliest comes first. The costs of the jobs that run at a time stay within `budget`; one that costs more
/// runs alone. A job must not throw.
void runJobs(std::span<const qint64> costs, const std::function<void(size_t)> &job,
             qint64 budget = std::numeric_limits<qint64>::max());

} // namespace zel

#include "Queues.h"

#include "SessionThreads.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>

namespace zel {

namespace {

// Qt copies functors on their way; a copy of this holds nothing of its own. Those that the calling thread makes are gone
// before the main thread can see the last one.
auto shared(std::function<void()> &&work)
{
    return [owner = std::make_shared<std::function<void()>>(std::move(work))] { (*owner)(); };
}

} // namespace

void onMainQueue(std::function<void()> &&work)
{
    if (auto *application = QCoreApplication::instance())
        QMetaObject::invokeMethod(application, shared(std::move(work)), Qt::QueuedConnection);
    work = nullptr;
}

void onMainQueueAfter(std::chrono::milliseconds delay, std::function<void()> &&work)
{
    if (auto *application = QCoreApplication::instance())
        QTimer::singleShot(delay, application, shared(std::move(work)));
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

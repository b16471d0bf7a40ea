#include "Queues.h"

#include "SessionThreads.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>

namespace zel {

namespace {

// Qt copies functors on their way, and both threads hold the last copy: the one that posted it may let go of it after the
// main thread has called it. So the call leaves nothing behind.
auto emptiedByItsCall(std::function<void()> &&work)
{
    return [owner = std::make_shared<std::function<void()>>(std::move(work))] {
        std::exchange(*owner, nullptr)();
    };
}

} // namespace

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

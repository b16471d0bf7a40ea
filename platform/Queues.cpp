#include "Queues.h"

#include <QCoreApplication>
#include <QThreadPool>
#include <QTimer>

namespace zel {

void onMainQueue(std::function<void()> work)
{
    if (auto *application = QCoreApplication::instance())
        QMetaObject::invokeMethod(application, std::move(work), Qt::QueuedConnection);
}

void onMainQueueAfter(std::chrono::milliseconds delay, std::function<void()> work)
{
    if (auto *application = QCoreApplication::instance())
        QTimer::singleShot(delay, application, std::move(work));
}

void onGlobalQueue(std::function<void()> work)
{
    QThreadPool::globalInstance()->start(std::move(work));
}

} // namespace zel

#include "Queues.h"

#include "SignalShield.h"

#include <QCoreApplication>
#include <QThreadPool>
#include <QTimer>

#include <openssl/crypto.h>

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
    QThreadPool::globalInstance()->start([work = std::move(work)]() mutable {
        {
            const SignalShield shield; // the pool's threads are the host's, too
            work();
            work = nullptr;
        }
        // Qt does not wait for a pool's thread to its very end. At exit OpenSSL may have cleaned up by then, and would
        // lose what it keeps for the thread.
        OPENSSL_thread_stop();
    });
}

} // namespace zel

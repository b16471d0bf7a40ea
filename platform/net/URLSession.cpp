// A session is one task and one thread (see platform/Queues.cpp for how threads end). The task lives for as
// long as anybody needs it: the session's thread owns it while it runs, and the owner that made it may drop
// it at any time.
//
// The order of a task's end is what callers rely on. The transfer ends; `settle` closes the task under the
// lock, so that from there on a `cancel` does nothing and the observer is not called again; then the
// completion runs, on the session's thread and outside the lock, and takes with it all that it held. `cancel`
// is decided by that lock alone: either it comes before `settle` and the completion hears of it, or it comes
// too late. A task that was never resumed is resumed by its `cancel`, so that its completion comes from a
// session, too, exactly once.
//
// A completion may block for as long as it likes, so a session has a thread of its own, and none of Qt's
// pool, which is the host's.
#include "URLSession.h"

#include "BodySinks.h"
#include "platform/Queues.h"
#include "URLTransfer.h"

#include <limits>
#include <mutex>
#include <utility>

namespace zel {
namespace {

constexpr qint64 LongestBodyInMemory = 4 * 1024 * 1024;

class Task : public URLSessionTask, public std::enable_shared_from_this<Task>
{
public:
    // What the session does: the transfer, then the completion.
    using Work = std::function<void(Task &)>;

    explicit Task(Work work)
        : m_work(std::move(work))
    {
    }

    void resume() override
    {
        std::unique_lock lock(m_mutex);
        if (std::exchange(m_started, true))
            return;
        lock.unlock();
        URLTransfer::initialiseLibraries();
        const auto self = shared_from_this();
        const auto cancelled = [weak = weak_from_this()] {
            if (const auto task = weak.lock())
                task->cancel();
        };
        if (!startSession([self] { self->work(); }, cancelled))
            failWithoutThread();
    }

    void cancel() override
    {
        {
            const std::lock_guard lock(m_mutex);
            if (m_ended)
                return;
            m_cancelled = true;
            if (m_transfer)
                m_transfer->cancel();
        }
        resume(); // the completion of a task that never started comes from a session too
    }

    qint64 countOfBytesReceived() const override
    {
        const std::lock_guard lock(m_mutex);
        return m_received;
    }

    qint64 countOfBytesExpectedToReceive() const override
    {
        const std::lock_guard lock(m_mutex);
        return m_expected;
    }

    void observeCountOfBytesReceived(std::function<void()> observer) override
    {
        auto shared = observer ? std::make_shared<const std::function<void()>>(std::move(observer)) : nullptr;
        const auto first = shared;
        {
            const std::lock_guard lock(m_mutex);
            if (m_ended)
                shared = nullptr;
            m_observer.swap(shared); // the one before is destroyed after the lock is gone
        }
        if (first)
            (*first)();
    }

    // Moves the bytes and settles how the task ends. The network is done with when this returns.
    ZELError transfer(const URLRequest &request, BodySink &sink, QUrl &responseUrl)
    {
        if (m_hasNoThread)
            return noThread();
        URLTransfer transfer(request, sink,
                             [this](qint64 received, qint64 expected) { setCounts(received, expected); });
        begin(transfer);
        const ZELError error = transfer.run();
        responseUrl = transfer.responseUrl();
        return settle() ? transfer.cancelled() : error;
    }

private:
    void work() { std::exchange(m_work, {})(*this); }

    // The main thread is not to meet a completion before `resume` returns; any other is as good as a
    // session's.
    void failWithoutThread()
    {
        m_hasNoThread = true;
        if (isMainQueue())
            onMainQueue([self = shared_from_this()] { self->work(); });
        else
            work();
    }

    ZELError noThread()
    {
        ZELError error = ZELError::withMessage(QStringLiteral("no thread is to be had"));
        if (settle())
            error.code = URLErrorCode::Cancelled;
        return error;
    }

    void begin(URLTransfer &transfer)
    {
        const std::lock_guard lock(m_mutex);
        m_transfer = &transfer;
        if (m_cancelled)
            transfer.cancel();
    }

    // Whether the task was cancelled; from now on it cannot be.
    bool settle()
    {
        std::shared_ptr<const std::function<void()>> observer;
        const std::lock_guard lock(m_mutex);
        m_observer.swap(observer);
        m_transfer = nullptr;
        m_ended = true;
        return m_cancelled;
    }

    void setCounts(qint64 received, qint64 expected)
    {
        std::shared_ptr<const std::function<void()>> observer;
        {
            const std::lock_guard lock(m_mutex);
            if (received != m_received)
                observer = m_observer;
            m_received = received;
            m_expected = expected;
        }
        if (observer)
            (*observer)();
    }

    mutable std::mutex m_mutex;
    Work m_work; // until the session runs it
    URLTransfer *m_transfer = nullptr; // while bytes may move
    std::shared_ptr<const std::function<void()>> m_observer;
    qint64 m_received = 0;
    qint64 m_expected = -1;
    bool m_hasNoThread = false;
    bool m_started = false;
    bool m_cancelled = false;
    bool m_ended = false;
};

} // namespace

std::shared_ptr<URLSessionTask> dataTask(const URLRequest &request, DataCompletion completion)
{
    return std::make_shared<Task>([request, completion = std::move(completion)](Task &task) {
        BodyInMemory sink(request.bodyLimit.value_or(LongestBodyInMemory));
        QUrl responseUrl;
        const ZELError error = task.transfer(request, sink, responseUrl);
        if (completion)
            completion(error ? QByteArray() : sink.body(), responseUrl, error);
    });
}

std::shared_ptr<URLSessionTask> downloadTask(const URLRequest &request, const QString &temporaryFolder,
                                             DownloadCompletion completion, std::shared_ptr<BodyFile> file)
{
    return std::make_shared<Task>(
        [request, temporaryFolder, completion = std::move(completion), file = std::move(file)](Task &task) {
            BodyInFile sink(temporaryFolder, request.bodyLimit.value_or(std::numeric_limits<qint64>::max()),
                            file);
            QUrl responseUrl;
            const ZELError error = task.transfer(request, sink, responseUrl);
            if (completion)
                completion(error ? QString() : sink.location(), responseUrl, error);
        });
}

} // namespace zel

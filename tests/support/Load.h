// Requests whose end can be waited for, and a server for them.
#pragma once

#include "net/URLSession.h"
#include "support/TemporaryTree.h"
#include "support/TestServer.h"

#include <atomic>
#include <future>

using Answer = TestServer::Answer;
using Framing = TestServer::Framing;

enum class Kind { Data, Download };

struct End {
    bool arrived = false; // a body or a file
    QByteArray body;
    QUrl responseUrl;
    ZELError error;
    std::thread::id thread = std::this_thread::get_id();
};

class FileServer : public TestServer
{
public:
    explicit FileServer(const QList<Answer> &answers) { answer("/file", answers); }
    zel::URLRequest request() const { return {.url = url("/file")}; }
};

// A task whose end can be waited for.
class Load
{
public:
    using Hook = std::function<void(const QString &location)>;

    Load(Kind kind, const zel::URLRequest &request, const QString &folder, Hook hook = {},
         const std::shared_ptr<zel::BodyFile> &file = {})
        : m_hook(std::move(hook))
    {
        if (kind == Kind::Data)
            task =
                zel::dataTask(request, [this](const QByteArray &body, const QUrl &, const ZELError &error) {
                    finish({!body.isNull(), body, {}, error}, {});
                });
        else
            task = zel::downloadTask(
                request, folder,
                [this](const QString &location, const QUrl &url, const ZELError &error) {
                    const bool arrived = !location.isNull();
                    finish({arrived, arrived ? TemporaryTree::contents(location) : "", url, error}, location);
                },
                file);
    }

    ~Load() { wait(); }

    /// Waits for the completion.
    const End &waitForEnd()
    {
        if (m_end.valid())
            m_result = m_end.get();
        return m_result;
    }

    /// Waits until the session is done with the task as well: nothing can come after that.
    const End &wait()
    {
        waitForEnd();
        const std::weak_ptr<zel::URLSessionTask> left = task;
        task.reset();
        while (!left.expired())
            std::this_thread::yield();
        return m_result;
    }

    int completions() const { return m_completions; }

    std::shared_ptr<zel::URLSessionTask> task;

private:
    void finish(const End &end, const QString &location)
    {
        ++m_completions;
        if (m_hook)
            m_hook(location);
        if (m_completions == 1)
            m_promise.set_value(end);
    }

    const Hook m_hook;
    std::atomic<int> m_completions = 0;
    std::promise<End> m_promise;
    std::future<End> m_end = m_promise.get_future();
    End m_result;
};

inline End load(Kind kind, const zel::URLRequest &request, const QString &folder = {})
{
    Load load(kind, request, folder);
    load.task->resume();
    return load.wait();
}

// Blocks until the task has received so many bytes.
inline void waitForBytes(zel::URLSessionTask &task, qint64 count)
{
    auto arrived = std::make_shared<std::promise<void>>();
    auto done = std::make_shared<std::atomic_flag>();
    task.observeCountOfBytesReceived([&task, count, arrived, done] {
        if (task.countOfBytesReceived() >= count && !done->test_and_set())
            arrived->set_value();
    });
    arrived->get_future().wait();
}

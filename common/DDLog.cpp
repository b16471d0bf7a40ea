// One writer, one queue, one lock. Whoever logs appends and goes on: the host's message handler may be slow,
// may write to a window, may log through us again or end the process, so it is only ever called by the writer
// and without the lock. What stays in order is what matters: a message is appended under the lock in which it
// was logged.
//
// The end is the hard part. The queue must be written when the process exits, from a static destructor
// (`Ending`), while threads that nobody waits for may still log, and while the host's handler may itself be
// what called `exit`. So the log's memory is never given back: a late thread finds it ended and its message
// is dropped. `end` waits for every call of the handler but its own thread's (`s_ownCalls`), which cannot
// return before `exit` does. What handlers need, the logging categories and Qt's message pattern, is touched
// first by the constructor, so that it is destroyed after the `Ending`.
//
// Without a thread to be had, messages wait until one is, or until somebody flushes. A bounded queue that
// blocks whoever logs was rejected: a handler that waits for the main thread would stop the main thread.
#include "DDLog.h"

#include "base/SignalShield.h"

#include <QDebug>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

Q_LOGGING_CATEGORY(zelUpdaterLog, "zel.updater")
Q_LOGGING_CATEGORY(zelSystemLog, "zel.system")

namespace {

constexpr qsizetype LongestMessage = 16 * 1024;
constexpr size_t MostEntries = 20'000;
constexpr qsizetype MostCharacters = 2 * 1024 * 1024;

struct LogEntry {
    DDLogFlag flag;
    const char *file;
    const char *function;
    int line;
    QString message;
};

void write(const LogEntry &entry)
{
    const QMessageLogger logger(entry.file, entry.line, entry.function);
    if (entry.flag == DDLogFlag::Info)
        logger.info(zelUpdaterLog()).noquote() << entry.message;
    else
        logger.debug(zelUpdaterLog()).noquote() << entry.message;
}

QString cut(const QString &message)
{
    if (message.size() <= LongestMessage)
        return message;
    return message.left(LongestMessage)
        + QStringLiteral(" (%1 more characters)").arg(message.size() - LongestMessage);
}

class Log
{
public:
    static Log &instance()
    {
        alignas(Log) static std::byte memory[sizeof(Log)];
        static Log *log = new (memory) Log;
        static const Ending ending(*log);
        return *log;
    }

    void add(DDLogFlag flag, const char *file, const char *function, int line, const QString &message)
    {
        const std::lock_guard lock(m_mutex);
        if (m_ended || !zelUpdaterLog().isEnabled(flag == DDLogFlag::Info ? QtInfoMsg : QtDebugMsg))
            return;
        if (!m_thread.joinable())
            startThread();
        if (m_leftOut > 0 || m_entries.size() >= MostEntries || m_characters >= MostCharacters) {
            ++m_leftOut;
            return;
        }
        m_entries.push_back({flag, file, function, line, cut(message)});
        m_characters += m_entries.back().message.size();
        m_changed.notify_all();
    }

    void addToSystemLog(const QString &message)
    {
        std::unique_lock lock(m_mutex);
        if (!m_ended)
            callHandler(lock, [&] { qCInfo(zelSystemLog).noquote() << message; });
    }

    void flush()
    {
        std::unique_lock lock(m_mutex);
        if (!m_thread.joinable())
            writeAll(lock); // no thread is to be had
        m_changed.wait(lock, [this] { return m_entries.empty() && !m_isWriting; });
    }

private:
    struct Ending {
        explicit Ending(Log &l)
            : log(l)
        {
        }
        ~Ending() { log.end(); }

        Log &log;
    };

    Log()
    {
        // Made before the ending, so that they outlive the last message: the categories and Qt's message
        // pattern.
        zelUpdaterLog();
        zelSystemLog();
        qFormatLogMessage(QtInfoMsg, {}, {});
    }

    void startThread()
    {
        try {
            const zel::BlockedSignals blocked(zel::BlockedSignals::asynchronous());
            m_thread = std::thread([this] { run(); });
        } catch (const std::system_error &) {
            // What waits is written by the next message that gets a thread, by a flush, or at the end.
        }
    }

    void run()
    {
        std::unique_lock lock(m_mutex);
        for (;;) {
            writeAll(lock);
            if (m_ended)
                return;
            m_changed.wait(lock, [this] { return m_ended || !m_entries.empty(); });
        }
    }

    void writeAll(std::unique_lock<std::mutex> &lock)
    {
        m_isWriting = true;
        while (!m_entries.empty()) {
            const LogEntry entry = std::move(m_entries.front());
            m_entries.pop_front();
            m_characters -= entry.message.size();
            callHandler(lock, [&] { write(entry); });
            if (!m_entries.empty() || m_leftOut == 0)
                continue;
            const QString line = QStringLiteral("%1 messages were left out").arg(std::exchange(m_leftOut, 0));
            callHandler(lock, [&] { write({entry.flag, __FILE__, Q_FUNC_INFO, __LINE__, line}); });
        }
        m_isWriting = false;
        m_changed.notify_all();
    }

    template <typename Call> void callHandler(std::unique_lock<std::mutex> &lock, Call call)
    {
        ++m_calls;
        ++s_ownCalls;
        lock.unlock();
        call();
        lock.lock();
        --s_ownCalls;
        --m_calls;
        m_changed.notify_all();
    }

    void end()
    {
        std::unique_lock lock(m_mutex);
        m_ended = true;
        m_changed.notify_all();
        if (!m_thread.joinable())
            writeAll(lock);
        m_changed.wait(lock,
                       [this] { return m_calls == s_ownCalls && (m_entries.empty() || s_ownCalls > 0); });
        lock.unlock();
        if (m_thread.get_id() == std::this_thread::get_id())
            m_thread.detach();
        else if (m_thread.joinable())
            m_thread.join();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<LogEntry> m_entries;
    qsizetype m_characters = 0; // in the entries
    qint64 m_leftOut = 0; // since the queue was full
    int m_calls = 0; // of the host's message handler, that have not returned
    bool m_isWriting = false;
    bool m_ended = false;
    std::thread m_thread;
    static thread_local int s_ownCalls;
};

thread_local int Log::s_ownCalls = 0;

} // namespace

void DDLog::log(DDLogFlag flag, const char *file, const char *function, int line, const QString &message)
{
    Log::instance().add(flag, file, function, line, message);
}

void DDLog::flushLog()
{
    Log::instance().flush();
}

void DDLog::prepare()
{
    Log::instance();
}

void zel::systemLog(const QString &message)
{
    Log::instance().addToSystemLog(message);
}

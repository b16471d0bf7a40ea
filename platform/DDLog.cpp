#include "DDLog.h"

#include "SignalShield.h"

#include <QDebug>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

Q_LOGGING_CATEGORY(zelUpdaterLog, "zel.updater")
Q_LOGGING_CATEGORY(zelSystemLog, "zel.system")

namespace {

struct Entry {
    DDLogFlag flag;
    const char *file;
    const char *function;
    int line;
    QString message;
};

void write(const Entry &entry)
{
    const QMessageLogger logger(entry.file, entry.line, entry.function);
    if (entry.flag == DDLogFlag::Info)
        logger.info(zelUpdaterLog()).noquote() << entry.message;
    else
        logger.debug(zelUpdaterLog()).noquote() << entry.message;
}

class Writer
{
public:
    static Writer &instance()
    {
        static Writer writer;
        return writer;
    }

    void add(Entry entry)
    {
        const std::lock_guard lock(m_mutex);
        m_entries.push_back(std::move(entry));
        m_changed.notify_all();
    }

    void flush()
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_entries.empty() && !m_writing; });
    }

private:
    Writer()
    {
        // Made before the writer, so that they outlive the last message: the category and Qt's message pattern.
        zelUpdaterLog();
        qFormatLogMessage(QtInfoMsg, {}, {});
        const zel::BlockedSignals blocked(zel::BlockedSignals::asynchronous());
        m_thread = std::thread([this] { run(); });
    }

    ~Writer()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_ending = true;
            m_changed.notify_all();
        }
        m_thread.join();
    }

    void run()
    {
        std::unique_lock lock(m_mutex);
        for (;;) {
            m_changed.wait(lock, [this] { return m_ending || !m_entries.empty(); });
            if (m_entries.empty())
                return;
            const Entry entry = std::move(m_entries.front());
            m_entries.pop_front();
            m_writing = true;
            lock.unlock();
            write(entry);
            lock.lock();
            m_writing = false;
            m_changed.notify_all();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Entry> m_entries;
    bool m_writing = false;
    bool m_ending = false;
    std::thread m_thread;
};

} // namespace

void DDLog::log(DDLogFlag flag, const char *file, const char *function, int line, const QString &message)
{
    if (zelUpdaterLog().isEnabled(flag == DDLogFlag::Info ? QtInfoMsg : QtDebugMsg))
        Writer::instance().add({flag, file, function, line, message});
}

void DDLog::flushLog()
{
    Writer::instance().flush();
}

void zel::systemLog(const QString &message)
{
    qCInfo(zelSystemLog).noquote() << message;
}

#include "common/DDLog.h"
#include "support/NoThreads.h"

#include <QtTest>

#include <atomic>
#include <future>
#include <thread>

namespace {

// The host's message handler: keeps what it is given, and holds the first message back until it may go on.
struct Handler {
    Handler()
    {
        current = this;
        before = qInstallMessageHandler(handle);
        QLoggingCategory::setFilterRules(QStringLiteral("zel.updater=true"));
    }
    ~Handler()
    {
        DDLog::flushLog();
        qInstallMessageHandler(before);
    }

    static void handle(QtMsgType, const QMessageLogContext &, const QString &message)
    {
        if (current->messages.isEmpty())
            current->go.wait();
        current->messages.append(message);
        current->thread = std::this_thread::get_id();
    }

    std::promise<void> gate;
    std::shared_future<void> go = gate.get_future().share();
    QStringList messages;
    std::thread::id thread;
    QtMessageHandler before;
    static inline Handler *current = nullptr;
};

} // namespace

class tst_DDLog : public QObject
{
    Q_OBJECT
private slots:
    // The first test: the log has no thread yet.
    void noThread()
    {
        Handler handler;
        handler.gate.set_value();
        const NoThreads none;
        DDLogInfo(QStringLiteral("a"));
        DDLogInfo(QStringLiteral("b"));
        DDLog::flushLog();
        QCOMPARE(handler.messages, (QStringList{"a", "b"}));
        QCOMPARE(handler.thread, std::this_thread::get_id());
    }

    void bounds()
    {
        constexpr int count = 30'000;
        for (const auto &[length, kept] : {std::pair(1, 20'000), {16'384, 128}}) { // messages, characters
            Handler handler;
            const QString message(length, u'x');
            for (int i = 0; i < count; ++i)
                DDLogInfo(message);
            handler.gate.set_value();
            DDLog::flushLog();
            // The thread may have taken one from the queue before that was full.
            QVERIFY(qAbs(handler.messages.size() - kept - 1) <= 1);
            const qsizetype leftOut = count - handler.messages.size() + 1;
            QCOMPARE(handler.messages.last(), QStringLiteral("%1 messages were left out").arg(leftOut));
            QCOMPARE(handler.messages.first(), message);
            QVERIFY(handler.thread != std::this_thread::get_id());

            DDLogInfo(QString(20'000, u'y'));
            DDLog::flushLog();
            QCOMPARE(handler.messages.last(), QString(16'384, u'y') + " (3616 more characters)");
        }
    }
};

QTEST_GUILESS_MAIN(tst_DDLog)
#include "tst_DDLog.moc"

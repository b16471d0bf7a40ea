// Tasks as their hosts hold them: watched, cancelled, many at once, left behind.
#include "common/DDLog.h"
#include "platform/Queues.h"
#include "support/Case.h"
#include "support/Load.h"
#include "support/NoThreads.h"

#include <QProcess>

using namespace zel;

namespace {

// What the child process of `applicationEnds` does: leaves with tasks running and says how they ended.
void leaveWithRunningTasks(int argc, char *argv[])
{
    const QString way = QString::fromUtf8(argv[2]);
    const URLRequest request{.url = QUrl(QString::fromUtf8(argv[3]))};
    QCoreApplication app(argc, argv);
    // The log is first used by a session that ends at exit.
    QLoggingCategory::setFilterRules("zel.updater=true");
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &message) {
        printf("%s\n", qPrintable(message));
    });
    const auto report = [](const ZELError &error) { DDLogInfo(QString::number(error.code)); };
    const auto data = dataTask(request, [=](const QByteArray &, const QUrl &, const ZELError &error) {
        report(error);
        if (way == "exit in a completion")
            exit(0);
        dataTask(request, [=](const QByteArray &, const QUrl &, const ZELError &next) {
            report(next);
        })->resume();
    });
    const auto download =
        downloadTask(request, QString::fromUtf8(argv[4]),
                     [=](const QString &, const QUrl &, const ZELError &error) { report(error); });
    data->resume();
    download->resume();
    waitForBytes(*data, 3);
    waitForBytes(*download, 3);
    if (way == "exit")
        exit(0);
    if (way == "exit in a completion") {
        data->cancel();
        app.exec();
    }
}

} // namespace

class tst_URLSessionTask : public QObject
{
    Q_OBJECT

    TemporaryTree m_tree;

    QString folder() const { return m_tree.path("downloads"); }

private slots:
    void init() { QTest::failOnWarning(QRegularExpression(".")); }

    void cleanup()
    {
        QCOMPARE(QDir(folder()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList());
    }

    void noThread()
    {
        for (const bool isCancelled : {false, true}) {
            for (const Kind kind : {Kind::Data, Kind::Download}) {
                Load load(kind, {.url = QUrl("http://127.0.0.1:1/")}, folder());
                {
                    const NoThreads none;
                    if (isCancelled)
                        load.task->cancel();
                    else
                        load.task->resume();
                }
                QCOMPARE(load.completions(), 0);
                QTRY_COMPARE(load.completions(), 1);
                QCOMPARE(load.wait().error.code, isCancelled ? URLErrorCode::Cancelled : 0);
                QVERIFY(load.wait().error);
            }
        }
        int jobs = 0;
        const NoThreads none;
        onGlobalQueue([&] { ++jobs; });
        runJobs(std::vector<qint64>(10), [&](size_t) { ++jobs; });
        QCOMPARE(jobs, 11);
    }

    void progress()
    {
        for (const Framing framing : {Framing::Length, Framing::Chunked}) {
            FileServer server({{.body = "abcdef", .framing = framing, .stallAt = 4}});
            Load load(Kind::Download, server.request(), folder());
            const std::shared_ptr<URLSessionTask> task = load.task;
            QCOMPARE(task->countOfBytesExpectedToReceive(), -1);
            task->resume();
            waitForBytes(*task, 4);
            QCOMPARE(task->countOfBytesReceived(), 4);
            QCOMPARE(task->countOfBytesExpectedToReceive(), framing == Framing::Length ? 6 : -1);

            QList<qint64> seen; // here and on the session's thread, one after the other
            const auto observer = [&] { seen.append(task->countOfBytesReceived()); };
            task->observeCountOfBytesReceived(observer);
            QCOMPARE(seen, QList<qint64>{4});
            server.release();
            load.waitForEnd();
            task->observeCountOfBytesReceived(observer);
            QCOMPARE(seen, (QList<qint64>{4, 6, 6}));
        }
    }

    void removedObserverAndOwner()
    {
        FileServer server({{.body = "abcdef", .stallAt = 3}});
        Load load(Kind::Data, server.request(), {});
        load.task->resume();
        waitForBytes(*load.task, 3);
        std::atomic<int> calls = 0;
        load.task->observeCountOfBytesReceived([&] { ++calls; });
        load.task->observeCountOfBytesReceived({});
        load.task.reset(); // the load goes on
        server.release();
        QCOMPARE(load.wait().body, "abcdef");
        QCOMPARE(calls, 1);
    }

    void cancel()
    {
        for (const QString state : {"never resumed", "before resume", "no answer", "body", "body, twice",
                                    "observer", "completion", "ended"}) {
            const Case context(state);
            const bool tooLate = state == "completion" || state == "ended";
            for (const Kind kind : {Kind::Data, Kind::Download}) {
                const qsizetype stallAt = state == "no answer" ? TestServer::BeforeHead : 3;
                FileServer server({{.body = "abcdef", .stallAt = stallAt}});
                std::weak_ptr<URLSessionTask> weak;
                Load load(kind, server.request(), folder(), [&](const QString &) {
                    if (state == "completion")
                        weak.lock()->cancel();
                });
                const std::shared_ptr<URLSessionTask> task = load.task;
                weak = task;
                if (state == "before resume")
                    task->cancel();
                if (state != "never resumed")
                    task->resume();
                if (state == "no answer")
                    QVERIFY(server.waitForRequests(1));
                if (state.startsWith("body"))
                    waitForBytes(*task, 3);
                if (state == "observer")
                    task->observeCountOfBytesReceived([&] {
                        if (task->countOfBytesReceived() == 3)
                            task->cancel();
                    });
                if (tooLate)
                    server.release();
                else if (state != "observer")
                    task->cancel();
                if (state == "body, twice")
                    task->cancel();
                const End end = load.waitForEnd();
                if (state == "ended")
                    task->cancel();
                QCOMPARE(end.error.code, tooLate ? 0 : URLErrorCode::Cancelled);
                QCOMPARE(end.arrived, tooLate);
                QCOMPARE(load.completions(), 1);
            }
        }
    }

    void cancelWhileItEnds()
    {
        FileServer server({{.body = "abcdef"}});
        for (int round = 0; round < 50; ++round) {
            Load load(Kind::Data, server.request(), {});
            load.task->resume();
            waitForBytes(*load.task, round % 2 ? 6 : 0);
            load.task->cancel();
            const End &end = load.wait();
            QCOMPARE(load.completions(), 1);
            QVERIFY(end.error.code == URLErrorCode::Cancelled || end.body == "abcdef");
        }
    }

    // One of them is held up by its completion.
    void manyAtOnce()
    {
        FileServer server({{.body = QByteArray(300'000, 'x'), .stallAt = 100'000}});
        std::promise<void> go;
        Load blocked(Kind::Download, server.request(), folder(), [&](auto &) { go.get_future().wait(); });
        blocked.task->resume();
        std::vector<std::unique_ptr<Load>> loads;
        for (int i = 0; i < 24; ++i) {
            const Kind kind = i % 2 ? Kind::Data : Kind::Download;
            loads.push_back(std::make_unique<Load>(kind, server.request(), folder()));
            loads.back()->task->resume();
        }
        const auto letGo = qScopeGuard([&] {
            go.set_value();
            server.release();
        });
        QVERIFY(server.waitForRequests(25));
        server.release();
        for (const auto &load : loads)
            QCOMPARE(load->wait().body.size(), 300'000);
        QTRY_COMPARE(blocked.completions(), 1);
    }

    void applicationEnds()
    {
        for (const auto &[way, output] :
             {std::pair("destroy the application object", "-999\n-999\n-999\nleft\n"),
              std::pair("exit", "-999\n-999\n-999\n"), std::pair("exit in a completion", "-999\n-999\n")}) {
            FileServer server({{.body = "abcdef", .stallAt = 3}});
            QProcess child;
            child.start(QCoreApplication::applicationFilePath(),
                        {"leave", way, server.url("/file").toString(), folder()});
            QVERIFY(child.waitForFinished());
            QCOMPARE(child.readAllStandardError(), "");
            QCOMPARE(child.readAllStandardOutput(), output);
            QCOMPARE(child.exitStatus(), QProcess::NormalExit);
            QCOMPARE(child.exitCode(), 0);
        }
    }
};

int main(int argc, char *argv[])
{
    if (argc == 5 && qstrcmp(argv[1], "leave") == 0) {
        leaveWithRunningTasks(argc, argv);
        DDLog::flushLog();
        puts("left");
        return 0;
    }
    QCoreApplication app(argc, argv);
    tst_URLSessionTask test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_URLSessionTask.moc"

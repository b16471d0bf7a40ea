#include "common/DDLog.h"
#include "net/URLSession.h"
#include "net/URLTransfer.h"
#include "platform/Queues.h"
#include "support/NoThreads.h"
#include "support/TemporaryTree.h"
#include "support/TestCertificate.h"
#include "support/TestServer.h"

#include <QNetworkProxy>
#include <QProcess>
#include <QSslKey>
#include <QtTest>

#include <atomic>
#include <future>
#include <sys/resource.h>

using namespace zel;
using Answer = TestServer::Answer;
using Answers = QList<Answer>;
using Framing = TestServer::Framing;

Q_DECLARE_METATYPE(Answer)
Q_DECLARE_METATYPE(Answers)
Q_DECLARE_METATYPE(std::optional<qint64>)

namespace {

enum class Kind { Data, Download };

struct End {
    bool arrived = false; // a body or a file
    QByteArray body;
    int mode = 0; // of the file
    QUrl responseUrl;
    ZELError error;
    std::thread::id thread;
};

// A task whose end can be waited for.
class Load
{
public:
    using Hook = std::function<void(const QString &location)>;

    Load(Kind kind, const URLRequest &request, const QString &folder, Hook hook = {})
        : m_hook(std::move(hook))
    {
        if (kind == Kind::Data)
            task = dataTask(request, [this](const QByteArray &body, const ZELError &error) {
                finish({!body.isNull(), body, 0, {}, error, std::this_thread::get_id()});
            });
        else
            task = downloadTask(request, folder,
                                [this](const QString &location, const QUrl &url, const ZELError &error) {
                                    const QByteArray body =
                                        location.isNull() ? QByteArray() : TemporaryTree::contents(location);
                                    finish({!location.isNull(), body, TemporaryTree::mode(location), url,
                                            error, std::this_thread::get_id()},
                                           location);
                                });
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
        const std::weak_ptr<URLSessionTask> left = task;
        task.reset();
        while (!left.expired())
            std::this_thread::yield();
        return m_result;
    }

    int completions() const { return m_completions; }

    std::shared_ptr<URLSessionTask> task;

private:
    void finish(const End &end, const QString &location = {})
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

End load(Kind kind, const URLRequest &request, const QString &folder = {})
{
    Load load(kind, request, folder);
    load.task->resume();
    return load.wait();
}

// Blocks until the task has received so many bytes.
void waitForBytes(URLSessionTask &task, qint64 count)
{
    auto arrived = std::make_shared<std::promise<void>>();
    auto done = std::make_shared<std::atomic_flag>();
    task.observeCountOfBytesReceived([&task, count, arrived, done] {
        if (task.countOfBytesReceived() >= count && !done->test_and_set())
            arrived->set_value();
    });
    arrived->get_future().wait();
}

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
    const auto data = dataTask(request, [=](const QByteArray &, const ZELError &error) {
        report(error);
        if (way == "exit in a completion")
            exit(0);
        dataTask(request, [=](const QByteArray &, const ZELError &next) { report(next); })->resume();
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

// What the child process of `fullDisk` does: prints the error of a download.
void download(const char *url, const char *folder)
{
    const QString message =
        load(Kind::Download, {.url = QUrl(QString::fromUtf8(url))}, QString::fromUtf8(folder)).error.message;
    printf("%s", qPrintable(message));
}

} // namespace

class tst_URLSession : public QObject
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

    void answers_data()
    {
        QTest::addColumn<Answers>("answers");
        QTest::addColumn<bool>("arrives");
        QTest::addColumn<QByteArray>("body");

        const QByteArray text = "a body";
        const QByteArray large(3'000'000, 'x');
        const auto row = [](const char *name, const Answers &answers, const QByteArray &body) {
            QTest::newRow(name) << answers << true << body;
        };
        row("length", {{.body = text}}, text);
        row("chunked", {{.body = text, .framing = Framing::Chunked}}, text);
        row("no content", {{.status = 204, .framing = Framing::Close}}, "");
        row("large, chunked", {{.body = large, .framing = Framing::Chunked}}, large);
        row("large, until the end", {{.body = large, .framing = Framing::Close}}, large);
        row("overflowing length",
            {{.body = text,
              .headers = {{"Content-Length", "99999999999999999999"}},
              .framing = Framing::Close}},
            text);
        for (int status : {300, 401, 404, 407, 599})
            row(qPrintable(QString::number(status)), {{.status = status, .body = text}}, text);
        row("long header",
            {{.body = text, .headers = {{"X", QByteArray(90'000, 'x')}, {"Y", QByteArray(90'000, 'y')}}}},
            text);
        row("redirection to nowhere", {{.status = 302, .body = text}}, text);
        row("redirection", {Answer::redirect("/file?again"), {.body = text}}, text);

        const auto fails = [](const char *name, const Answer &answer) {
            QTest::newRow(name) << Answers{answer} << false << QByteArray();
        };
        fails("negative length",
              {.body = text, .headers = {{"Content-Length", "-6"}}, .framing = Framing::Close});
        fails("dropped before the answer", {.dropAt = TestServer::BeforeHead});
        fails("dropped in the body", {.body = large, .dropAt = 1'000'000});
        fails("dropped in a chunked body", {.body = large, .framing = Framing::Chunked, .dropAt = 1'000'000});
        fails("dropped before the last chunk", {.body = text, .framing = Framing::Chunked, .dropAt = 6});
        fails("dropped in a chunked 404",
              {.status = 404, .body = text, .framing = Framing::Chunked, .dropAt = 3});
        fails("redirected for ever", Answer::redirect("/file"));
        fails("redirected to a file", Answer::redirect("file:///etc/hostname"));
        fails("redirected to nonsense", Answer::redirect("http://[/"));
        fails("endless interim answers", {.endless = TestServer::Endless::Interim});
        fails("endless header", {.endless = TestServer::Endless::Head});
        fails("endless trailers",
              {.body = text, .framing = Framing::Chunked, .endless = TestServer::Endless::Trailers});
        fails("compressed for the transfer", {.body = text, .headers = {{"Transfer-Encoding", "gzip"}}});
    }

    void answers()
    {
        QFETCH(Answers, answers);
        QFETCH(bool, arrives);
        QFETCH(QByteArray, body);
        for (const Kind kind : {Kind::Data, Kind::Download}) {
            TestServer server;
            server.answer("/file", answers);
            const End end = load(kind, {.url = server.url("/file")}, folder());
            QVERIFY2(bool(end.error) == !arrives, qPrintable(end.error.message));
            QCOMPARE(end.error.code, 0);
            QCOMPARE(end.arrived, arrives);
            QCOMPARE(end.body, body);
            if (kind == Kind::Download && arrives)
                QCOMPARE(end.responseUrl, server.url(server.requests().last().path));
        }
    }

    void addresses_data()
    {
        QTest::addColumn<QString>("address");
        for (const char *address : {"", "/path", "http://", "ftp://127.0.0.1/file", "file:///etc/hostname",
                                    "qrc:/file", "data:,text", "http://127.0.0.1:1/"})
            QTest::newRow(*address ? address : "empty") << QString(address);
    }

    void addresses()
    {
        QFETCH(QString, address);
        for (const Kind kind : {Kind::Data, Kind::Download}) {
            const End end = load(kind, {.url = QUrl(address)}, folder());
            QVERIFY(end.error);
            QVERIFY(!end.arrived);
            QVERIFY(end.thread != std::this_thread::get_id());
        }
    }

    void redirectedPost_data()
    {
        QTest::addColumn<int>("status");
        for (const int status : {301, 302, 303, 307, 308})
            QTest::addRow("%d", status) << status;
    }

    void redirectedPost()
    {
        QFETCH(int, status);
        const bool isRepeated = status >= 307;
        TestServer server;
        server.answer("/old", {Answer::redirect("new", status)});
        server.answer("/new", {{.body = "answer"}});
        const URLRequest request{.url = server.url("/old"), .method = "POST", .body = "question"};
        QCOMPARE(load(Kind::Data, request).body, "answer");
        const QList<TestServer::Request> requests = server.requests();
        QCOMPARE(requests.size(), 2);
        QCOMPARE(requests[0].body, "question");
        QCOMPARE(requests[0].headers["content-type"], "application/json");
        QCOMPARE(requests[1].path, "/new");
        QCOMPARE(requests[1].method, isRepeated ? "POST" : "GET");
        QCOMPARE(requests[1].body, isRepeated ? "question" : "");
    }

    void postIsSentOnce()
    {
        TestServer server;
        server.answer("/log", {{.dropAt = TestServer::BeforeHead}});
        QVERIFY(load(Kind::Data, {.url = server.url("/log"), .method = "POST", .body = "log"}).error);
        QCOMPARE(server.requests().size(), 1);
    }

    void credentialsInTheAddress()
    {
        TestServer server;
        server.answer("/check", {{.body = "in"}});
        QUrl url = server.url("/check");
        url.setUserInfo("name:pass%20word");
        QCOMPARE(load(Kind::Data, {.url = url, .method = "POST", .body = "question"}).body, "in");
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(server.requests()[0].headers["authorization"],
                 "Basic " + QByteArray("name:pass word").toBase64());
    }

    void applicationProxy()
    {
        TestServer proxy;
        proxy.answer("http://updates.example/file", {{.body = "by proxy"}});
        QNetworkProxy::setApplicationProxy(
            {QNetworkProxy::HttpProxy, "127.0.0.1", quint16(proxy.url("/").port())});
        const auto restore = qScopeGuard([] { QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy); });
        QCOMPARE(load(Kind::Data, {.url = QUrl("http://updates.example/file")}).body, "by proxy");
    }

    void contentCoding()
    {
        const QByteArray text(100'000, 'x');
        const QByteArray coded = qCompress(text).mid(4);
        const auto deflated = [](const QByteArray &body, const QByteArray &codings) {
            return Answer{.body = body, .headers = {{"Content-Encoding", codings}}};
        };
        TestServer server;
        server.answer("/file", {deflated(coded, "deflate")});
        const auto decoded = [&](qint64 limit) {
            return load(Kind::Data, {.url = server.url("/file"), .bodyLimit = limit});
        };
        QCOMPARE(decoded(text.size()).body, text);
        QVERIFY(decoded(text.size() - 1).error); // decoding must not grow past the limit
        QCOMPARE(load(Kind::Download, {.url = server.url("/file")}, folder()).body, coded);
        QCOMPARE(server.requests().last().headers["accept-encoding"], "identity");

        server.answer("/file", {deflated(qCompress(coded).mid(4), "deflate, deflate")});
        QVERIFY(decoded(text.size()).error);
        server.answer("/file", {deflated(coded, "identity, Deflate")});
        QCOMPARE(decoded(text.size()).body, text);
    }

    void bodyLimits_data()
    {
        QTest::addColumn<Answer>("answer");
        QTest::addColumn<std::optional<qint64>>("limit");
        QTest::addColumn<QString>("complaint");

        const std::optional<qint64> none, six = 6;
        const QString tooLong = "limit of 6 bytes";
        QTest::newRow("kept") << Answer{.body = "abcdef"} << six << "";
        QTest::newRow("announced") << Answer{.body = "abcdefg", .stallAt = 1} << six << tooLong;
        QTest::newRow("not announced")
            << Answer{.body = "abcdefg", .framing = Framing::Chunked, .stallAt = 7} << six << tooLong;
        QTest::newRow("endless") << Answer{.body = QByteArray(999, 'x'),
                                           .framing = Framing::Close,
                                           .endless = TestServer::Endless::Body}
                                 << std::optional<qint64>(3'000'000) << "";
        QTest::newRow("more than the disk holds")
            << Answer{.body = "abc",
                      .headers = {{"Content-Length", "1000000000000000000"}},
                      .framing = Framing::Close,
                      .stallAt = 3}
            << none << "no space for 1000000000000000000 bytes, ";
    }

    void bodyLimits()
    {
        QFETCH(Answer, answer);
        QFETCH(std::optional<qint64>, limit);
        QFETCH(QString, complaint);
        for (const Kind kind : {Kind::Data, Kind::Download}) {
            TestServer server;
            server.answer("/file", {answer});
            const End end = load(kind, {.url = server.url("/file"), .bodyLimit = limit}, folder());
            QCOMPARE(end.arrived, answer.body == "abcdef");
            const bool disk = kind == Kind::Download && !limit;
            QCOMPARE(end.error.code, end.arrived || disk ? 0 : URLErrorCode::TooLong);
            if (kind == Kind::Download)
                QVERIFY2(end.error.message.contains(complaint), qPrintable(end.error.message));
        }
    }

    void silence()
    {
        for (const qsizetype stallAt : {TestServer::BeforeHead, qsizetype(3)}) {
            for (const Kind kind : {Kind::Data, Kind::Download}) {
                TestServer server;
                server.answer("/file", {{.body = "abcdef", .stallAt = stallAt}});
                const URLRequest request{.url = server.url("/file"),
                                         .timeout = std::chrono::milliseconds(100)};
                const End end = load(kind, request, folder());
                QCOMPARE(end.error.code, URLErrorCode::TimedOut);
                QVERIFY(!end.arrived);
            }
        }
    }

    void slowness_data()
    {
        QTest::addColumn<Answer>("answer");
        QTest::addColumn<bool>("hasDeadline");
        const Answer body{.body = QByteArray(1'000'000, 'x'), .drip = std::chrono::milliseconds(5)};
        Answer redirection = Answer::redirect("/file");
        redirection.drip = std::chrono::milliseconds(50); // 20 of them take a second
        QTest::newRow("body, deadline") << body << true;
        QTest::newRow("redirections, deadline") << redirection << true;
        QTest::newRow("body, pace") << body << false;
    }

    void slowness()
    {
        using std::chrono::milliseconds;
        QFETCH(Answer, answer);
        QFETCH(bool, hasDeadline);
        TestServer server;
        server.answer("/file", {answer});
        URLRequest request{.url = server.url("/file")};
        if (hasDeadline)
            request.deadline = milliseconds(200);
        else
            request.pace = LeastPace{100'000, milliseconds(200)};
        for (const Kind kind : {Kind::Data, Kind::Download}) {
            const End end = load(kind, request, folder());
            QCOMPARE(end.error.code, URLErrorCode::TimedOut);
            QVERIFY(!end.arrived);
        }
    }

    void pace()
    {
        using std::chrono::seconds;
        const TransferClock::Time start{};
        TransferClock clock({.url = {}, .deadline = seconds(1000), .pace = LeastPace{100, seconds(10)}},
                            start);
        const auto complains = [&](qint64 moved, int second) {
            clock.tell(moved, start + seconds(second));
            return clock.complaint(start + seconds(second)) != nullptr;
        };
        QVERIFY(!complains(0, 9));
        QVERIFY(!complains(100, 10)); // just enough
        QCOMPARE(clock.left(start + seconds(12)), seconds(8));
        QVERIFY(!complains(1000, 11)); // bytes of the next span, which do not count for the one after
        QVERIFY(!complains(1010, 21));
        QVERIFY(!complains(1100, 30));
        QVERIFY(complains(1109, 31));
    }

    void downloadedFile()
    {
        TestServer server;
        server.answer("/file", {{.body = "content"}});
        const QString deep = m_tree.path("new/private");
        const QString kept = m_tree.path("kept");
        QString moved;
        Load load(Kind::Download, {.url = server.url("/file")}, deep, [&](const QString &location) {
            moved = location;
            QVERIFY(QFile::rename(location, kept));
        });
        load.task->resume();
        QCOMPARE(load.wait().mode, 0600);
        QCOMPARE(QFileInfo(moved).path(), deep);
        QCOMPARE(TemporaryTree::mode(deep), 0700);
        QCOMPARE(TemporaryTree::contents(kept), "content");
        QVERIFY(!QFile::exists(moved));
        QFile::remove(kept);
    }

    void unwritableDisk()
    {
        TestServer server;
        server.answer("/file", {{.body = QByteArray(1'000'000, 'x')}});
        const QString nowhere = m_tree.write("plain", "a file") + "/folder";
        QVERIFY(load(Kind::Download, {.url = server.url("/file")}, nowhere).error);
        QVERIFY(server.requests().isEmpty());

        // A limit on file sizes stands for the full disk: writing fails in the middle just the same.
        rlimit before;
        getrlimit(RLIMIT_FSIZE, &before);
        const rlimit small{500'000, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
        const End end = load(Kind::Download, {.url = server.url("/file")}, folder());
        setrlimit(RLIMIT_FSIZE, &before);
        QVERIFY(end.error);
        QVERIFY(!end.arrived);
    }

    void fullDisk()
    {
        const QString disk = m_tree.path("disk");
        QVERIFY(QDir().mkpath(disk));
        const QString script = "mount -t tmpfs -o size=40m none '" + disk
            + "' || exit 9\n\"$@\" && df --output=used '" + disk + "' | tail -1";
        const auto loadThere = [&](const Answer &answer) {
            TestServer server;
            server.answer("/file", {answer});
            QProcess child;
            child.start("unshare",
                        {"-rm", "sh", "-c", script, "sh", QCoreApplication::applicationFilePath(), "download",
                         server.url("/file").toString(), disk});
            return child.waitForFinished(-1) && child.exitCode() == 0 ? child.readAllStandardOutput()
                                                                      : QByteArray();
        };
        const Answer endless{
            .body = QByteArray(65'536, 'x'), .framing = Framing::Close, .endless = TestServer::Endless::Body};
        const QByteArray written = loadThere(endless);
        if (written.isNull())
            QSKIP("a small file system cannot be mounted here");
        QVERIFY2(written.contains("cannot write the download"), written.constData());
        QVERIFY2(written.contains("no space for 1048576 bytes, "), written.constData());
        QVERIFY(written.endsWith(" 0\n")); // what was written is gone
        const QByteArray announced = loadThere({.body = QByteArray(41'000'000, 'x'), .stallAt = 70'000});
        QVERIFY2(announced.contains("no space for 41000000 bytes, "), announced.constData());
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

    void progress_data()
    {
        QTest::addColumn<Framing>("framing");
        QTest::newRow("announced") << Framing::Length;
        QTest::newRow("chunked") << Framing::Chunked;
    }

    void progress()
    {
        QFETCH(Framing, framing);
        TestServer server;
        server.answer("/file", {{.body = "abcdef", .framing = framing, .stallAt = 4}});
        Load load(Kind::Download, {.url = server.url("/file")}, folder());
        const std::shared_ptr<URLSessionTask> task = load.task;
        QCOMPARE(task->countOfBytesExpectedToReceive(), -1);
        task->resume();
        waitForBytes(*task, 4);
        QCOMPARE(task->countOfBytesReceived(), 4);
        QCOMPARE(task->countOfBytesExpectedToReceive(), framing == Framing::Length ? 6 : -1);

        std::mutex mutex;
        QList<qint64> seen;
        const auto observer = [&] {
            const std::lock_guard lock(mutex);
            seen.append(task->countOfBytesReceived());
        };
        task->observeCountOfBytesReceived(observer);
        QCOMPARE(seen, QList<qint64>{4});
        server.release();
        load.waitForEnd();
        QCOMPARE(seen, (QList<qint64>{4, 6}));
        seen.clear();
        task->observeCountOfBytesReceived(observer);
        QCOMPARE(seen, QList<qint64>{6});
    }

    void removedObserverAndOwner()
    {
        TestServer server;
        server.answer("/file", {{.body = "abcdef", .stallAt = 3}});
        Load load(Kind::Data, {.url = server.url("/file")}, {});
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

    void cancel_data()
    {
        QTest::addColumn<QString>("state");
        QTest::addColumn<qint64>("code");
        for (const char *state :
             {"never resumed", "before resume", "no answer", "body", "body, twice", "observer"})
            QTest::newRow(state) << QString(state) << URLErrorCode::Cancelled;
        for (const char *state : {"completion", "ended"})
            QTest::newRow(state) << QString(state) << qint64(0);
    }

    void cancel()
    {
        QFETCH(QString, state);
        QFETCH(qint64, code);
        for (const Kind kind : {Kind::Data, Kind::Download}) {
            TestServer server;
            server.answer("/file",
                          {{.body = "abcdef", .stallAt = state == "no answer" ? TestServer::BeforeHead : 3}});
            std::weak_ptr<URLSessionTask> weak;
            Load load(kind, {.url = server.url("/file")}, folder(), [&](const QString &) {
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
            if (code == 0)
                server.release();
            else if (state != "observer")
                task->cancel();
            if (state == "body, twice")
                task->cancel();
            const End end = load.waitForEnd();
            if (state == "ended")
                task->cancel();
            QCOMPARE(end.error.code, code);
            QCOMPARE(end.arrived, code == 0);
            QCOMPARE(load.completions(), 1);
        }
    }

    void cancelWhileItEnds()
    {
        TestServer server;
        server.answer("/file", {{.body = "abcdef"}});
        for (int round = 0; round < 50; ++round) {
            Load load(Kind::Data, {.url = server.url("/file")}, {});
            load.task->resume();
            waitForBytes(*load.task, round % 2 ? 6 : 0);
            load.task->cancel();
            const End &end = load.wait();
            QCOMPARE(load.completions(), 1);
            QVERIFY(end.error.code == URLErrorCode::Cancelled || end.body == "abcdef");
        }
    }

    void manyAtOnce()
    {
        TestServer server;
        server.answer("/file", {{.body = QByteArray(300'000, 'x'), .stallAt = 100'000}});
        std::vector<std::unique_ptr<Load>> loads;
        for (int i = 0; i < 24; ++i) {
            loads.push_back(std::make_unique<Load>(i % 2 ? Kind::Data : Kind::Download,
                                                   URLRequest{.url = server.url("/file")}, folder()));
            loads.back()->task->resume();
        }
        QVERIFY(server.waitForRequests(24));
        server.release();
        for (const auto &load : loads)
            QCOMPARE(load->wait().body.size(), 300'000);
    }

    void blockedCompletion()
    {
        TestServer server;
        server.answer("/file", {{.body = "abcdef"}});
        std::promise<void> go;
        Load blocked(Kind::Download, {.url = server.url("/file")}, folder(),
                     [&](const QString &) { go.get_future().wait(); });
        blocked.task->resume();
        QCOMPARE(load(Kind::Download, {.url = server.url("/file")}, folder()).body, "abcdef");
        go.set_value();
        QCOMPARE(blocked.wait().body, "abcdef");
    }

    void certificates()
    {
        const TestCertificate files = makeTestCertificate(m_tree.path(), "server");
        QSslConfiguration own;
        own.setPrivateKey(QSslKey(TemporaryTree::contents(files.keyFile), QSsl::Ec));
        own.setLocalCertificate(QSslCertificate(TemporaryTree::contents(files.certificateFile)));
        TestServer plain, secure(own);
        secure.answer("/file", {{.body = "abcdef"}});
        secure.answer("/down", {Answer::redirect(plain.url("/file").toString())});
        plain.answer("/file", {{.body = "insecure"}});
        plain.answer("/up", {Answer::redirect(secure.url("/file").toString())});
        const auto body = [](const QUrl &url) { return load(Kind::Data, {.url = url}).body; };
        QCOMPARE(body(secure.url("/file")), QByteArray());
        QVERIFY(secure.requests().isEmpty());

        qputenv("SSL_CERT_FILE", QFile::encodeName(files.certificateFile));
        const auto restore = qScopeGuard([] { qunsetenv("SSL_CERT_FILE"); });
        QCOMPARE(body(secure.url("/file")), "abcdef");
        QCOMPARE(body(plain.url("/up")), "abcdef");
        QCOMPARE(body(secure.url("/down")), QByteArray());
        QCOMPARE(plain.requests().size(), 1);
    }

    void applicationEnds()
    {
        for (const auto &[way, output] :
             {std::pair("destroy the application object", "-999\n-999\n-999\nleft\n"),
              std::pair("exit", "-999\n-999\n-999\n"), std::pair("exit in a completion", "-999\n-999\n")}) {
            TestServer server;
            server.answer("/file", {{.body = "abcdef", .stallAt = 3}});
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
    if (argc == 4 && qstrcmp(argv[1], "download") == 0) {
        download(argv[2], argv[3]);
        return 0;
    }
    QCoreApplication app(argc, argv);
    tst_URLSession test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_URLSession.moc"

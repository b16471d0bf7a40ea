#include "net/URLTransfer.h"
#include "support/Case.h"
#include "support/Load.h"
#include "support/TestCertificate.h"

#include <QNetworkProxy>
#include <QSslKey>

#include <sys/resource.h>
#include <sys/statvfs.h>

using namespace std::chrono_literals;
using namespace zel;

static std::atomic<qint64> freeBytes;

// The file system of the downloads, of which others take a MiB after each look.
extern "C" int fstatvfs(int, struct statvfs *status) noexcept
{
    *status = {};
    status->f_frsize = 1;
    status->f_blocks = status->f_bavail = fsblkcnt_t(freeBytes.fetch_sub(1 << 20));
    return 0;
}

class tst_URLSession : public QObject
{
    Q_OBJECT

    TemporaryTree m_tree;

    QString folder() const { return m_tree.path("downloads"); }

private slots:
    void init()
    {
        QTest::failOnWarning(QRegularExpression("."));
        freeBytes = 1 << 30;
    }

    void cleanup()
    {
        QCOMPARE(QDir(folder()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList());
    }

    void answers()
    {
        struct Row {
            QByteArray name;
            QList<Answer> answers;
            std::optional<QByteArray> body = {}; // none where the transfer fails
        };
        const QByteArray text = "a body";
        const QByteArray large(3'000'000, 'x');
        const QByteArray longLine(90'000, 'x');
        const Answer endlessTrailers{
            .body = text, .framing = Framing::Chunked, .endless = TestServer::Endless::Trailers};
        const auto claiming = [&](const QByteArray &length) {
            return Answer{.body = text, .headers = {{"Content-Length", length}}, .framing = Framing::Close};
        };
        std::vector<Row> rows{
            {"length", {{.body = text}}, text},
            {"chunked", {{.body = text, .framing = Framing::Chunked}}, text},
            {"no content", {{.status = 204, .framing = Framing::Close}}, ""},
            {"large, chunked", {{.body = large, .framing = Framing::Chunked}}, large},
            {"large, until the end", {{.body = large, .framing = Framing::Close}}, large},
            {"overflowing length", {claiming("99999999999999999999")}, text},
            {"long header", {{.body = text, .headers = {{"X", longLine}, {"Y", longLine}}}}, text},
            {"redirection to nowhere", {{.status = 302, .body = text}}, text},
            {"redirection", {Answer::redirect("/file?again"), {.body = text}}, text},
            {"negative length", {claiming("-6")}},
            {"dropped before the answer", {{.dropAt = TestServer::BeforeHead}}},
            {"dropped", {{.body = large, .dropAt = 1'000'000}}},
            {"dropped between chunks", {{.body = large, .framing = Framing::Chunked, .dropAt = 1'000'000}}},
            {"dropped at the end", {{.body = text, .framing = Framing::Chunked, .dropAt = 6}}},
            {"dropped 404", {{.status = 404, .body = text, .framing = Framing::Chunked, .dropAt = 3}}},
            {"redirected for ever", {Answer::redirect("/file")}},
            {"redirected to a file", {Answer::redirect("file:///etc/hostname")}},
            {"redirected to nonsense", {Answer::redirect("http://[/")}},
            {"endless interim answers", {{.endless = TestServer::Endless::Interim}}},
            {"endless header", {{.endless = TestServer::Endless::Head}}},
            {"endless trailers", {endlessTrailers}},
            {"compressed for the transfer", {{.body = text, .headers = {{"Transfer-Encoding", "gzip"}}}}},
        };
        for (const int status : {300, 401, 404, 407, 599})
            rows.push_back({QByteArray::number(status), {{.status = status, .body = text}}, text});
        for (const auto &[name, answers, body] : rows) {
            const Case context(name);
            for (const Kind kind : {Kind::Data, Kind::Download}) {
                FileServer server(answers);
                const End end = load(kind, server.request(), folder());
                QVERIFY2(bool(end.error) == !body, qPrintable(end.error.message));
                QCOMPARE(end.error.code, 0);
                QCOMPARE(end.arrived, body.has_value());
                QCOMPARE(end.body, body.value_or(""));
                if (kind == Kind::Download && body)
                    QCOMPARE(end.responseUrl, server.url(server.requests().last().path));
            }
        }
    }

    void addresses()
    {
        for (const char *address : {"", "/path", "http://", "ftp://127.0.0.1/file", "file:///etc/hostname",
                                    "qrc:/file", "data:,text", "http://127.0.0.1:1/"}) {
            const Case context(address);
            for (const Kind kind : {Kind::Data, Kind::Download}) {
                const End end = load(kind, {.url = QUrl(address)}, folder());
                QVERIFY(end.error);
                QVERIFY(!end.arrived);
                QVERIFY(end.thread != std::this_thread::get_id());
            }
        }
    }

    void redirectedPost()
    {
        for (const int status : {301, 302, 303, 307, 308}) {
            const Case context(QString::number(status));
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
        FileServer server({deflated(coded, "deflate")});
        const auto decoded = [&](qint64 limit) {
            return load(Kind::Data, {.url = server.url("/file"), .bodyLimit = limit});
        };
        QCOMPARE(decoded(text.size()).body, text);
        QVERIFY(decoded(text.size() - 1).error); // decoding must not grow past the limit
        QCOMPARE(load(Kind::Download, server.request(), folder()).body, coded);
        QCOMPARE(server.requests().last().headers["accept-encoding"], "identity");

        server.answer("/file", {deflated(qCompress(coded).mid(4), "deflate, deflate")});
        QVERIFY(decoded(text.size()).error);
        server.answer("/file", {deflated(coded, "identity, Deflate")});
        QCOMPARE(decoded(text.size()).body, text);
    }

    void bodyLimits()
    {
        const QByteArray much(999, 'x');
        const Answer endless{.body = much, .framing = Framing::Close, .endless = TestServer::Endless::Body};
        const Answer huge{.body = "abc",
                          .headers = {{"Content-Length", "1000000000000000000"}},
                          .framing = Framing::Close,
                          .stallAt = 3};
        struct Row {
            Answer answer;
            std::optional<qint64> limit;
            QString complaint;
        };
        for (const auto &[answer, limit, complaint] :
             {Row{{.body = "abcdef"}, 6, ""}, Row{{.body = "abcdefg", .stallAt = 1}, 6, "limit of 6 bytes"},
              Row{{.body = "abcdefg", .framing = Framing::Chunked, .stallAt = 7}, 6, "limit of 6 bytes"},
              Row{endless, 3'000'000, "limit of 3000000 bytes"},
              Row{huge, {}, "no space for 1000000000000000000 bytes, "}}) {
            const Case context(complaint);
            for (const Kind kind : {Kind::Data, Kind::Download}) {
                FileServer server({answer});
                const End end = load(kind, {.url = server.url("/file"), .bodyLimit = limit}, folder());
                QCOMPARE(end.arrived, answer.body == "abcdef");
                const bool disk = kind == Kind::Download && !limit;
                QCOMPARE(end.error.code, end.arrived || disk ? 0 : URLErrorCode::TooLong);
                if (kind == Kind::Download)
                    QVERIFY2(end.error.message.contains(complaint), qPrintable(end.error.message));
            }
        }
    }

    void tooLittleMoves()
    {
        const Answer drips{.body = QByteArray(1'000'000, 'x'), .drip = 5ms};
        Answer redirects = Answer::redirect("/file");
        redirects.drip = 50ms; // 20 of them take a second
        for (const auto &[answer, request] :
             {std::pair(Answer{.stallAt = TestServer::BeforeHead}, URLRequest{.url = {}, .timeout = 100ms}),
              {Answer{.body = "abcdef", .stallAt = 3}, URLRequest{.url = {}, .timeout = 100ms}},
              {drips, URLRequest{.url = {}, .deadline = 200ms}},
              {redirects, URLRequest{.url = {}, .deadline = 200ms}},
              {drips, URLRequest{.url = {}, .pace = LeastPace{100'000, 200ms}}}}) {
            for (const Kind kind : {Kind::Data, Kind::Download}) {
                FileServer server({answer});
                URLRequest sent = request;
                sent.url = server.request().url;
                const End end = load(kind, sent, folder());
                QCOMPARE(end.error.code, URLErrorCode::TimedOut);
                QVERIFY(!end.arrived);
            }
        }
    }

    void pace()
    {
        const TransferClock::Time start{};
        TransferClock clock({.url = {}, .deadline = 1000s, .pace = LeastPace{100, 10s}}, start);
        const auto complains = [&](qint64 moved, int second) {
            clock.tell(moved, start + second * 1s);
            return clock.complaint(start + second * 1s) != nullptr;
        };
        QVERIFY(!complains(0, 9));
        QVERIFY(!complains(100, 10)); // just enough
        QCOMPARE(clock.left(start + 12s), 8s);
        QVERIFY(!complains(1000, 11)); // bytes of the next span, which do not count for the one after
        QVERIFY(!complains(1010, 21));
        QVERIFY(!complains(1100, 30));
        QVERIFY(complains(1109, 31));
    }

    void downloadedFile()
    {
        FileServer server({{.body = "content"}});
        const QString deep = m_tree.path("new/private");
        const QString kept = m_tree.path("kept");
        QString moved;
        Load load(Kind::Download, server.request(), deep, [&](const QString &location) {
            moved = location;
            QVERIFY(QFile::rename(location, kept));
        });
        load.task->resume();
        load.wait();
        QCOMPARE(TemporaryTree::mode(kept), 0600);
        QCOMPARE(QFileInfo(moved).path(), deep);
        QCOMPARE(TemporaryTree::mode(deep), 0700);
        QCOMPARE(TemporaryTree::contents(kept), "content");
        QVERIFY(!QFile::exists(moved));
        QFile::remove(kept);
    }

    void unwritableDisk()
    {
        FileServer server({{.body = QByteArray(1'000'000, 'x')}});
        const QString nowhere = m_tree.write("plain", "a file") + "/folder";
        QVERIFY(load(Kind::Download, server.request(), nowhere).error);
        QVERIFY(server.requests().isEmpty());

        // A limit on file sizes stands for the full disk: writing fails in the middle just the same.
        rlimit before;
        getrlimit(RLIMIT_FSIZE, &before);
        const rlimit small{500'000, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
        const End end = load(Kind::Download, server.request(), folder());
        setrlimit(RLIMIT_FSIZE, &before);
        QVERIFY(end.error);
        QVERIFY(!end.arrived);
    }

    void fullDisk()
    {
        const Answer endless{
            .body = QByteArray(65'536, 'x'), .framing = Framing::Close, .endless = TestServer::Endless::Body};
        const Answer announced{.body = QByteArray(41'000'000, 'x'), .stallAt = 70'000};
        for (const auto &[answer, complaint] :
             {std::pair(endless, "no space for 1048576 bytes, "),
              {announced, "no space for 41000000 bytes, 1154112 are missing"}}) {
            freeBytes = 40 << 20;
            FileServer server({answer});
            URLRequest request = server.request();
            request.bodyLimit = 100'000'000; // saves the real disk from a fault
            const QString message = load(Kind::Download, request, folder()).error.message;
            QVERIFY2(message.startsWith("cannot write the download"), qPrintable(message));
            QVERIFY2(message.contains(complaint), qPrintable(message));
        }
    }

    // The disk gets back what was kept, but not for a page.
    void fullDiskAndBeginning()
    {
        const Answer beginning{.body = "0123456789", .headers = {{"ETag", "\"1\""}}, .dropAt = 6};
        const auto claiming = [](int status, const QByteArray &length, const QByteArray &range) {
            return Answer{.status = status,
                          .body = "6",
                          .headers = {{"Content-Range", range}, {"Content-Length", length}},
                          .framing = Framing::Close,
                          .stallAt = 1};
        };
        for (const auto &[answer, kept] :
             {std::pair(claiming(206, "99999994", "bytes 6-99999999/100000000"), 0),
              {claiming(404, "99999999", ""), 6}}) {
            freeBytes = 40 << 20;
            FileServer server({beginning, answer});
            URLRequest request = server.request();
            request.pauses = {1ms};
            const auto file = std::make_shared<TemporaryBodyFile>(folder());
            Load load(Kind::Download, request, folder(), {}, file);
            load.task->resume();
            QVERIFY(load.wait().error.message.contains("no space for"));
            QCOMPARE(file->kept(), kept);
        }
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
};

QTEST_GUILESS_MAIN(tst_URLSession)
#include "tst_URLSession.moc"

#include "net/Attempts.h"
#include "net/PartialContent.h"
#include "net/URLSession.h"
#include "support/LogCapture.h"
#include "support/TemporaryTree.h"
#include "support/TestServer.h"

#include <QtTest>

#include <future>

using namespace zel;
using Answer = TestServer::Answer;
using Answers = QList<Answer>;
using Framing = TestServer::Framing;
using Headers = QList<std::pair<QByteArray, QByteArray>>;
using namespace std::chrono_literals;

Q_DECLARE_METATYPE(Answers)

namespace {

const QByteArray Text = "0123456789";
const Headers Tag{{"ETag", "\"v1\""}};

struct End {
    QByteArray body; // null with an error
    ZELError error;
};

// A download in a folder that must be empty afterwards.
class Download
{
public:
    explicit Download(const URLRequest &request)
        : task(downloadTask(
            request, m_tree.path(), [this](const QString &location, const QUrl &, const ZELError &error) {
                m_end.set_value({error ? QByteArray() : TemporaryTree::contents(location), error});
            }))
    {
    }
    ~Download()
    {
        const std::weak_ptr<URLSessionTask> left = task;
        task.reset();
        while (!left.expired())
            std::this_thread::yield();
    }
    End end() { return m_end.get_future().get(); }
    End load()
    {
        task->resume();
        return end();
    }

private:
    const TemporaryTree m_tree;
    std::promise<End> m_end;

public:
    std::shared_ptr<URLSessionTask> task;
};

URLRequest requestFor(const QUrl &url)
{
    return {.url = url, .pauses = {1ms, 1ms, 1ms}};
}

Answer whole(const Headers &headers, qsizetype dropAt = TestServer::Never)
{
    return {.body = Text, .headers = headers, .dropAt = dropAt};
}

Answer rest(const QByteArray &range, const QByteArray &body = "6789", const Headers &more = {})
{
    return {.status = 206, .body = body, .headers = Headers{{"Content-Range", range}} + more};
}

// What was asked for, one after the other: where from, and of which version.
QStringList asked(const TestServer &server)
{
    QStringList list;
    for (const TestServer::Request &request : server.requests())
        list.append(request.headers.value("range").mid(6) + request.headers.value("if-range"));
    return list;
}

} // namespace

class tst_Resume : public QObject
{
    Q_OBJECT

private slots:
    void answers_data()
    {
        QTest::addColumn<Answers>("answers");
        QTest::addColumn<QByteArray>("body"); // null: an error
        QTest::addColumn<QString>("asks");

        const auto row = [](const char *name, const Answers &next, const QByteArray &body,
                            const QString &asks) {
            QTest::newRow(name) << Answers{whole(Tag, 6)} + next << body << '|' + asks;
        };
        const QByteArray range = "bytes 6-9/10";
        const QString ask = "6-\"v1\"";
        row("the rest", {rest(range, "6789", Tag)}, Text, ask);
        row("the rest, in pieces",
            {{.status = 206, .body = "6789", .headers = {{"Content-Range", range}}, .dropAt = 2},
             rest("bytes 8-9/10", "89")},
            Text, ask + "|8-\"v1\"");
        row("the rest, elsewhere", {Answer::redirect("/file?2"), rest(range)}, Text, ask + '|' + ask);
        row("all of it", {whole({})}, Text, ask);
        row("another version",
            {{.body = "abcdefghij", .headers = {{"ETag", "\"v2\""}}, .dropAt = 3},
             rest("bytes 3-9/10", "defghij")},
            "abcdefghij", ask + "|3-\"v2\"");
        row("busy in between", {{.status = 503, .body = "busy"}, rest(range)}, Text, ask + '|' + ask);
        const QString thrice = ask + '|' + ask + '|' + ask;
        row("busy to the end", {{.status = 503, .body = "busy"}}, "busy", thrice + '|');
        row("a fault at each range", {{.status = 500}, {.status = 500}, {.status = 500}, whole(Tag)}, Text,
            thrice + '|');
        row("gone", {{.status = 404, .body = "gone"}}, "gone", ask + '|');
        row("never a byte more",
            {{.status = 206, .headers = {{"Content-Range", range}}, .framing = Framing::Chunked}}, {},
            thrice);
        row("more than the rest",
            {{.status = 206,
              .body = "6789+",
              .headers = {{"Content-Range", range}},
              .framing = Framing::Chunked}},
            {}, ask);
        // Without a length, which would tell, too.
        const auto chunked = [](Answer answer) {
            answer.framing = Framing::Chunked;
            return answer;
        };
        row("a page without a length", {chunked({.body = "Log in"}), rest(range)}, Text, ask + '|' + ask);
        row("all of it without a length", {chunked(whole({}))}, Text, ask);
        row("all of it, broken off", {whole({}, 3), rest(range)}, Text, ask + '|' + ask);
        row("the same from its beginning, broken off", {whole(Tag, 3), rest(range)}, Text, ask + '|' + ask);
        const auto refused = [&](const char *name, const Answer &answer) {
            row(name, {answer, whole(Tag)}, Text, ask + '|');
        };
        refused("another place", chunked(rest("bytes 5-9/10", "56789")));
        refused("another place, further", chunked(rest("bytes 7-9/10", "789")));
        refused("no ranges for anybody", {.status = 403, .body = "no"});
        refused("another file", rest("bytes 6-10/11", "6789a"));
        refused("less than the rest", chunked(rest("bytes 6-7/10", "67")));
        refused("another length than said", rest(range, "678"));
        refused("another version's rest", rest(range, "6789", {{"ETag", "\"v2\""}}));
        refused("coded rest", rest(range, "6789", {{"Content-Encoding", "gzip"}}));
        refused("two ranges", rest(range, "6789", {{"Content-Range", range}}));
        refused("several parts",
                {.status = 206,
                 .body = "6789",
                 .headers = {{"Content-Type", "multipart/byteranges; boundary=x"}}});
        refused("none such", {.status = 416, .body = "no", .headers = {{"Content-Range", "bytes */10"}}});

        const auto version = [](const char *name, const Headers &headers, const QString &asks) {
            QTest::newRow(name) << Answers{whole(headers, 6), rest("bytes 6-9/10"), whole({})}
                                << (asks.isEmpty() ? QByteArray("6789") : Text) << '|' + asks;
        };
        const QByteArray time = "Sun, 06 Nov 1994 08:49:37 GMT";
        const QByteArray later = "Sun, 06 Nov 1994 08:49:38 GMT";
        // A piece that nobody asked for is a body like any other.
        version("weak tag", {{"ETag", "W/\"v1\""}, {"Last-Modified", time}, {"Date", later}}, "");
        version("tag with a control character", {{"ETag", "\"v\x01\""}}, "");
        version("tag without quotes", {{"ETag", "v1"}}, "");
        version("endless tag", {{"ETag", '"' + QByteArray(300, 'x') + '"'}}, "");
        version("two tags", Tag + Tag, "");
        version("time", {{"Last-Modified", time}, {"Date", later}}, "6-" + time);
        version("time of just now", {{"Last-Modified", time}, {"Date", time}}, "");
        version("time without now", {{"Last-Modified", time}}, "");
        version("coded", Tag + Headers{{"Content-Encoding", "br"}}, "");
    }

    void answers()
    {
        QFETCH(Answers, answers);
        QFETCH(QByteArray, body);
        QFETCH(QString, asks);
        TestServer server;
        server.answer("/file", answers);
        URLRequest request = requestFor(server.url("/file"));
        request.size = Text.size();
        QCOMPARE(Download(request).load().body, body);
        QCOMPARE(asked(server).join('|'), asks);
    }

    void faults_data()
    {
        QTest::addColumn<Answer>("answer");
        QTest::addColumn<int>("requests");
        for (const int status : {429, 500, 502, 503, 504})
            QTest::addRow("%d", status) << Answer{.status = status, .body = "x"} << 4;
        for (const int status : {400, 404, 416, 501, 505})
            QTest::addRow("%d", status) << Answer{.status = status, .body = "x"} << 1;
        QTest::newRow("no answer") << Answer{.dropAt = TestServer::BeforeHead} << 4;
        QTest::newRow("broken off") << Answer{.body = "abc", .framing = Framing::Chunked, .dropAt = 1} << 4;
        QTest::newRow("too short") << Answer{.body = "x", .framing = Framing::Close} << 4;
        QTest::newRow("silent") << Answer{.body = "abc", .stallAt = 1} << 2;
        QTest::newRow("too long") << Answer{.body = Text} << 1;
        QTest::newRow("redirected to a file") << Answer::redirect("file:///etc/hostname") << 1;
    }

    void faults()
    {
        QFETCH(Answer, answer);
        QFETCH(int, requests);
        TestServer server;
        server.answer("/file", {answer});
        URLRequest request = requestFor(server.url("/file"));
        request.timeout = 200ms;
        request.bodyLimit = request.size = 5;
        const End end = Download(request).load();
        QCOMPARE(bool(end.error), answer.body != "x");
        QCOMPARE(server.requests().size(), requests);

        // What is kept in memory is asked for once, and so is what is sent.
        const qsizetype before = server.requests().size();
        std::promise<void> ended;
        dataTask(request, [&](const QByteArray &, const QUrl &, const ZELError &) {
            ended.set_value();
        })->resume();
        ended.get_future().wait();
        Download({.url = request.url,
                  .method = "POST",
                  .timeout = request.timeout,
                  .bodyLimit = request.bodyLimit,
                  .pauses = request.pauses})
            .load();
        QCOMPARE(server.requests().size(), before + 2);
    }

    void eachAttemptBeginsAtTheFirstAddress()
    {
        TestServer server;
        server.answer("/file", {Answer::redirect("/there")});
        server.answer("/there", {{.status = 503}, {.body = Text}});
        QCOMPARE(Download(requestFor(server.url("/file"))).load().body, Text);
        QByteArray paths;
        for (const TestServer::Request &request : server.requests())
            paths += request.path;
        QCOMPARE(paths, "/file/there/file/there");
    }

    void pauses()
    {
        TestServer server;
        server.answer("/file", {{.status = 503, .headers = {{"Retry-After", "1"}}}, {.body = Text}});
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(Download(requestFor(server.url("/file"))).load().body, Text);
        QVERIFY(timer.elapsed() >= 1000);

        server.answer("/file", {{.status = 503, .headers = {{"Retry-After", "99999"}}}});
        QUrl address = server.url("/file?secret");
        address.setUserInfo("secret:secret");
        URLRequest request = requestFor(address);
        request.pauses = {1h};
        const LogCapture capture;
        Download cancelled(request);
        cancelled.task->resume();
        QTRY_VERIFY(capture.lines("zel.system").join(' ').contains("another attempt in"));
        cancelled.task->cancel();
        QVERIFY(!capture.lines("zel.system").join(' ').contains("secret"));
        QCOMPARE(cancelled.end().error.code, URLErrorCode::Cancelled);
        QCOMPARE(server.requests().size(), 3);

        request = requestFor(server.url("/file"));
        request.deadline = 50s; // no pause beyond it is begun
        QVERIFY(Download(request).load().error.message.contains("503"));
    }

    void attempts_data()
    {
        QTest::addColumn<QString>("faults"); // quick, silent, further and silent, busy for 20 s, for ever
        QTest::addColumn<QList<int>>("pauses"); // seconds; -1: none any more
        QTest::newRow("quick") << "qqqqq" << QList{1, 3, 9, 27, -1};
        QTest::newRow("silent once") << "sqqqq" << QList{1, 3, 9, 27, -1};
        QTest::newRow("silent twice") << "sqs" << QList{1, 3, -1};
        QTest::newRow("silent, with something in between") << "fffff" << QList{1, 3, 9, 27, -1};
        QTest::newRow("silent after that") << "sfs" << QList{1, 3, -1};
        QTest::newRow("busy") << "bbbbb" << QList{20, 20, 20, 27, -1};
        QTest::newRow("busy for ever") << "e" << QList{60};
    }

    void attempts()
    {
        const std::map<QChar, PassingFault> kinds{{'q', {}},
                                                  {'s', {.isSilence = true}},
                                                  {'f', {.isSilence = true, .cameFurther = true}},
                                                  {'b', {.asked = 20s}},
                                                  {'e', {.asked = std::chrono::seconds::max()}}};
        QFETCH(QString, faults);
        QFETCH(QList<int>, pauses);
        Attempts attempts({1s, 3s, 9s, 27s});
        for (const QChar fault : faults) {
            QCOMPARE(attempts.isLast(), pauses.first() == -1 && faults.size() == 5);
            const auto pause = attempts.next(kinds.at(fault));
            const std::chrono::milliseconds least = pauses.takeFirst() * 1s;
            QVERIFY(pause ? *pause >= least && *pause <= least * 5 / 4 : least == -1s);
        }
    }

    void counts()
    {
        const Answer page{.body = "Log", .framing = Framing::Chunked};
        TestServer server;
        server.answer("/file", {whole(Tag, 6), {.status = 503}, page, rest("bytes 6-9/10")});
        URLRequest request = requestFor(server.url("/file"));
        request.size = Text.size();
        Download download(request);
        QList<qint64> seen;
        download.task->observeCountOfBytesReceived(
            [&] { seen.append(download.task->countOfBytesReceived()); });
        QCOMPARE(download.load().body, Text);
        QVERIFY(std::is_sorted(seen.begin(), seen.end()));
        QCOMPARE(seen.last(), 10);
        QCOMPARE(download.task->countOfBytesExpectedToReceive(), 10);

        server.answer("/file", {whole(Tag, 6), {.status = 404, .body = "not here"}});
        Download gone(request);
        QCOMPARE(gone.load().body, "not here");
        QCOMPARE(gone.task->countOfBytesReceived(), 6); // of the file
        QCOMPARE(gone.task->countOfBytesExpectedToReceive(), 10);
    }

    void limits()
    {
        TestServer server;
        server.answer("/file", {whole(Tag, 6), rest("bytes 6-9/10")});
        URLRequest request = requestFor(server.url("/file"));
        request.bodyLimit = 9;
        QCOMPARE(Download(request).load().error.code, URLErrorCode::TooLong);
    }

    void contentRanges()
    {
        const auto range = contentRange("bytes 5-9/10");
        QVERIFY(range && range->first == 5 && range->last == 9 && range->total == 10);
        for (const char *text :
             {"", "bytes", "bytes 5-9", "bytes 5-9/*", "bytes */10", "items 5-9/10", "bytes 9-5/10",
              "bytes 5-10/10", "bytes -5-9/10", "bytes +5-9/10", "bytes 5-9/10,", "bytes  5-9/10",
              "bytes 5/9-10", "bytes 5-9/99999999999999999999"})
            QVERIFY2(!contentRange(text), text);
    }
};

QTEST_GUILESS_MAIN(tst_Resume)

#include "tst_Resume.moc"

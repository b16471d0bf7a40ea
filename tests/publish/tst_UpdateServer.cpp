#include "publish/UpdateServer.h"
#include "support/TemporaryTree.h"

#include <QTcpSocket>

#include <thread>

using namespace zel;

class tst_UpdateServer : public QObject
{
    Q_OBJECT

    TemporaryTree m_tree;
    int m_port = -1;

    // The head's lines and the body.
    std::pair<QByteArrayList, QByteArray> ask(const QByteArray &headers,
                                              const QByteArray &method = "GET") const
    {
        QTcpSocket socket;
        socket.connectToHost("127.0.0.1", quint16(m_port));
        socket.write(method + " /file HTTP/1.1\r\nHost: h\r\nContent-Length: 0\r\n" + headers + "\r\n");
        while (socket.waitForReadyRead(10'000)) { }
        const QByteArray answer = socket.readAll();
        const qsizetype end = answer.indexOf("\r\n\r\n");
        QByteArrayList lines;
        for (const QByteArray &line : answer.left(end).split('\n'))
            lines += line.trimmed();
        return {lines, answer.mid(end + 4)};
    }

    QByteArray tag() const
    {
        for (const QByteArray &line : ask({}).first)
            if (line.startsWith("ETag: "))
                return line.mid(6);
        return {};
    }

private slots:
    void initTestCase()
    {
        m_tree.write("file", "0123456789");
        static UpdateServer server(m_tree.path(), [](const QString &) {}); // serves to the end of the process
        m_port = server.bind("127.0.0.1", 0);
        std::thread([] { server.run(); }).detach();
    }

    void ranges_data()
    {
        QTest::addColumn<QByteArray>("headers");
        QTest::addColumn<QByteArray>("range"); // null: all of the file
        QTest::addColumn<QByteArray>("body");
        const auto row = [](const char *headers, const char *range, const char *body = "0123456789") {
            QTest::newRow(headers) << QByteArray(headers) << QByteArray(range) << QByteArray(body);
        };
        row("", nullptr);
        row("Range: bytes=6-\r\n", "bytes 6-9/10", "6789");
        row("Range: bytes=6-7\r\n", "bytes 6-7/10", "67");
        row("Range: bytes=6-99999\r\n", "bytes 6-9/10", "6789");
        row("Range: bytes=-4\r\n", "bytes 6-9/10", "6789");
        row("Range: bytes=-99\r\n", "bytes 0-9/10");
        row("Range: bytes=10-\r\n", "bytes */10", "");
        row("Range: bytes=1-2,4-5\r\n", nullptr);
        row("Range: bytes=6-\r\nIf-Range: TAG\r\n", "bytes 6-9/10", "6789");
        row("Range: bytes=6-\r\nIf-Range: \"other\"\r\n", nullptr);
    }

    void ranges()
    {
        QFETCH(QByteArray, headers);
        QFETCH(QByteArray, range);
        QFETCH(QByteArray, body);
        const auto [lines, content] = ask(headers.replace("TAG", tag()));
        const char *status = range.isNull() ? "200" : body.isEmpty() ? "416" : "206";
        QVERIFY2(lines[0].startsWith("HTTP/1.1 " + QByteArray(status)), lines[0].constData());
        QCOMPARE(lines.contains("Content-Range: " + range), !range.isNull());
        QCOMPARE(content, body);
    }

    void versions()
    {
        const QByteArray before = tag();
        QVERIFY(before.startsWith('"') && before.endsWith('"'));
        QCOMPARE(tag(), before);
        m_tree.write("new", "9876543210"); // as long, and maybe at the same moment
        QVERIFY(QFile::remove(m_tree.path("file")) && QFile::rename(m_tree.path("new"), m_tree.path("file")));
        QVERIFY(tag() != before);
        QCOMPARE(ask("Range: bytes=1-2\r\n", "POST").second, "9876543210");
    }
};

QTEST_GUILESS_MAIN(tst_UpdateServer)

#include "tst_UpdateServer.moc"

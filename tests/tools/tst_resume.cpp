#include "install/MD5FromData.h"
#include "support/TemporaryTree.h"
#include "support/TestServer.h"
#include "support/ZipMaker.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>

namespace {

constexpr int Kills = 20;

QByteArray plist(const QByteArray &build)
{
    return "<plist version=\"1.0\"><dict><key>CFBundleVersion</key><string>" + build
        + "</string></dict></plist>";
}

QByteArray archive()
{
    QByteArray noise(3'000'000, Qt::Uninitialized);
    QRandomGenerator(1).fillRange(reinterpret_cast<quint32 *>(noise.data()), noise.size() / 4);
    return ZipMaker::make({{.name = "New.app/Contents/Info.plist", .data = plist("101")},
                           {.name = "New.app/Contents/noise", .data = noise, .method = 0}});
}

} // namespace

class tst_resume : public QObject
{
    Q_OBJECT

private slots:
    void killed()
    {
        const QByteArray zip = archive();
        const TemporaryTree tree;
        tree.write("installed.app/Contents/Info.plist", plist("100"));
        const QByteArray hash = QCryptographicHash::hash(zip, QCryptographicHash::Sha256).toHex();
        const QString part = tree.path("staging/partial-downloads/" + hash + ".part");
        TestServer server;
        const QJsonObject record{{"build", 101},
                                 {"arch", "all"},
                                 {"file", server.url("/New.zip").toString()},
                                 {"hash", MD5FromData(zip)},
                                 {"sha256", QString::fromLatin1(hash)},
                                 {"size", zip.size()}};
        server.answer("/check", {{.body = QJsonDocument(QJsonArray{record}).toJson()}});

        std::atomic<qint64> stop = 0; // after so many bytes of the file nothing comes any more
        std::atomic<qint64> sent = 0;
        server.answer("/New.zip", [&](const TestServer::Request &request) -> TestServer::Answer {
            const qsizetype from = request.headers.value("if-range") == "\"1\""
                ? request.headers["range"].mid(6).chopped(1).toLongLong()
                : 0;
            TestServer::Answer answer{
                .status = from > 0 ? 206 : 200, .body = zip.mid(from), .headers = {{"ETag", "\"1\""}}};
            if (from > 0)
                answer.headers.append({"Content-Range",
                                       "bytes " + QByteArray::number(from) + '-'
                                           + QByteArray::number(zip.size() - 1) + '/'
                                           + QByteArray::number(zip.size())});
            if (stop < zip.size())
                answer.stallAt = stop - from;
            sent += qMin<qint64>(stop, zip.size()) - from;
            return answer;
        });

        QProcess process;
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        const QStringList arguments{"update",
                                    "--url",
                                    server.url("/check").toString(),
                                    "--path",
                                    tree.path("installed.app"),
                                    "--staging",
                                    tree.path("staging"),
                                    "--json"};
        for (int kill = 1; kill <= Kills; ++kill) {
            stop = zip.size() * kill / (Kills + 1);
            process.start(ZELUPDATER, arguments);
            QTRY_COMPARE_WITH_TIMEOUT(QFileInfo(part).size(), stop.load(), 30'000);
            process.kill();
            QVERIFY(process.waitForFinished());
        }
        stop = zip.size();
        process.start(ZELUPDATER, arguments);
        QVERIFY(process.waitForFinished());
        const QJsonObject end = QJsonDocument::fromJson(process.readAllStandardOutput()).object();
        QCOMPARE(end["text"].toString(), "Download Success");
        QCOMPARE(sent, zip.size()); // not a byte twice
        QVERIFY(!QFileInfo::exists(tree.path("staging/partial-downloads")));
    }
};

QTEST_GUILESS_MAIN(tst_resume)

#include "tst_resume.moc"

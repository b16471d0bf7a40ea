#include "check/RequestBodies.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

using namespace zel;

namespace {

const MachineFacts Machine{"arm", {6, 1, 38}, "Machine 1,1"};
const MachineFacts Nameless{"arm", {6, 1, 38}, QString()};

QJsonObject object(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

} // namespace

class tst_RequestBodies : public QObject
{
    Q_OBJECT
private slots:
    void bodies_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("expected");

        const QVariantMap number{{"build", QVariant::fromValue(std::int64_t(9007199254740993))},
                                 {"version", 7.01},
                                 {"beta", true}};
        const QVariantMap text{{"build", "7001"}, {"version", "7.01"}};
        // The minor version stands twice.
        QTest::newRow("check")
            << checkRequestBody(number, Machine)
            << QByteArray(
                   R"({"arch":"arm","build":9007199254740993,"model":"Machine 1,1","os":{"major":6,"minor":1,"patch":1}})");
        QTest::newRow("check, build as text")
            << checkRequestBody(text, Nameless)
            << QByteArray(R"({"arch":"arm","build":"7001","os":{"major":6,"minor":1,"patch":1}})");
        QTest::newRow("check, no build")
            << checkRequestBody({}, Nameless)
            << QByteArray(R"({"arch":"arm","os":{"major":6,"minor":1,"patch":1}})");
        QTest::newRow("history page")
            << historyPageBody(text, Machine) << QByteArray(R"({"arch":"arm","build":"7001"})");
        const QVariantList log{
            QVariantMap{{"description", "Hash error"},
                        {"exists", true},
                        {"original", QByteArray("\x00\xff\x80", 3)},
                        {"new", QByteArray((1 << 20) + 1, 'x')}},
        };
        QTest::newRow("log")
            << logUploadBody(text, log, Machine)
            << QByteArray(
                   R"({"arch":"arm","build":"7001","log":[{"description":"Hash error","exists":true,"original":"AP+A"}],)"
                   R"("os":{"major":6,"minor":1,"patch":1},"version":"7.01"})");
    }

    void logsLeaveWithoutFolders_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("sent");
        const auto row = [](const char *key, const QString &text, const char *sent) {
            QTest::newRow(qPrintable(text)) << key << text << sent;
        };
        row("path", "/home/ann/My: Apps/Old-100.app", "Old-100.app");
        row("path", "/home/ann/Old-100.app//", "Old-100.app");
        row("path", "new.app", "new.app");
        row("file", "Contents/MacOS/example", "Contents/MacOS/example");
        row("file", "/home/ann/x", "x");
        row("description", "Hash error", "Hash error");
        row("description", "Error copying old app: cannot read /home/ann/My Apps/a.app/f: Permission denied",
            "Error copying old app: cannot read f: Permission denied");
        row("description", "cannot write \"/srv/a/b\": Input/output error",
            "cannot write \"b\": Input/output error");
        row("description", "/home/ann/x.app and /home/ann/y: z.app must not contain each other",
            "y: z.app must not contain each other");
        row("description", "no space in " + QDir::homePath() + ": 5 bytes are missing",
            "no space in ~: 5 bytes are missing");
        row("description", "no space in " + QDir::homePath() + "/a b: 5 bytes are missing",
            "no space in a b: 5 bytes are missing");
    }

    void logsLeaveWithoutFolders()
    {
        QFETCH(QString, key);
        QFETCH(QString, text);
        QFETCH(QString, sent);
        const QVariantList log{QVariantMap{{key, text}}};
        const QJsonValue entry = object(logUploadBody({}, log, Machine))["log"].toArray().at(0);
        QCOMPARE(entry[key].toString(), sent);
    }

    // The last entries tell why a patch failed.
    void longLogsAreCut()
    {
        QVariantList log(300'000,
                         QVariantMap{{"description", "Error deleting symlink"}, {"file", QString(50, 'x')}});
        log.append(QVariantMap{{"description", "Patch failed"}});
        const QByteArray body = logUploadBody({}, log, Machine);
        QVERIFY(body.size() > 16 << 19 && body.size() < (16 << 20) + 1000);
        QCOMPARE(object(body)["log"].toArray().last()["description"].toString(), "Patch failed");
    }

    void bodies()
    {
        QFETCH(QByteArray, body);
        QFETCH(QByteArray, expected);
        QCOMPARE(object(body), object(expected));
        QVERIFY(!body.contains('\n'));
    }
};

QTEST_GUILESS_MAIN(tst_RequestBodies)
#include "tst_RequestBodies.moc"

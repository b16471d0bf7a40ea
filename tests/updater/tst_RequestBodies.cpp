#include "RequestBodies.h"

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
                        {"new", QByteArray("")}},
        };
        QTest::newRow("log")
            << logUploadBody(text, log, Machine)
            << QByteArray(
                   R"({"arch":"arm","build":"7001","log":[{"description":"Hash error","exists":true,"new":"","original":"AP+A"}],)"
                   R"("os":{"major":6,"minor":1,"patch":1},"version":"7.01"})");
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

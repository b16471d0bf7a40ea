#include "support/LogCapture.h"

#include "check/UpdateDecision.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

using namespace zel;

namespace {

const MachineFacts Machine{"x86", {6, 1, 38}, "Machine"};

HostConfig config(const char *json)
{
    return HostConfig::fromMap(QJsonDocument::fromJson(json).object().toVariantMap());
}

QByteArray zeros(int count)
{
    return QByteArray("0,").repeated(count).chopped(1);
}

QByteArray oneRecord(const QByteArray &rest)
{
    return "[{\"build\":101," + rest + "}]";
}

QByteArray records(int count)
{
    return '[' + QByteArray(R"({"build":101},)").repeated(count).chopped(1) + ']';
}

} // namespace

class tst_UpdateDecision : public QObject
{
    Q_OBJECT
private slots:
    void decisions_data()
    {
        QTest::addColumn<QByteArray>("records");
        QTest::addColumn<QByteArray>("configuration");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("chosen"); // the "name" of the record, which only these tests look at

        const auto row = [](const char *name, const QByteArray &reply, int status, const char *chosen = "",
                            const char *configuration = R"({"build":100})") {
            QTest::newRow(name) << reply << QByteArray(configuration) << status << QString::fromUtf8(chosen);
        };
        row("no body", "", 0);
        row("not JSON", "<html>", 0);
        row("nothing offered", "[]", 2);
        row("an object", R"({"build":101})", 0);
        row("an empty object", "{}", 0);
        row("most records", records(10'000), 1);
        row("too many records", records(10'001), 0);
        row("most values", oneRecord("\"list\":[" + zeros(199'990) + ']'), 1);
        row("too many values", oneRecord("\"list\":[" + zeros(200'000) + ']'), 0);
        row("texts are no values", oneRecord("\"text\":\"" + QByteArray(300'000, ',') + "\\\"\""), 1);
        row("records that are none", R"([1,"a",null,[{"build":101}]])", 2);
        row("same build", R"([{"build":100}])", 2);
        row("newer build", R"([{"build":101,"name":"a"}])", 1, "a");
        row("builds as text", R"([{"build":" 101beta","name":"a"}])", 1, "a", R"({"build":"100"})");
        row("no configured build", R"([{"build":1,"name":"a"}])", 1, "a", "{}");
        row("negative configured build", R"([{"build":0},{"build":-1}])", 2, "", R"({"build":-5})");
        row("fractions are cut", R"([{"build":100.9}])", 2);
        row("true is 1", R"([{"build":true,"name":"a"}])", 1, "a", R"({"build":0})");
        row("above 2^53", R"([{"build":9007199254740993,"name":"a"}])", 1, "a",
            R"({"build":9007199254740992})");
        row("highest wins", R"([{"build":102},{"build":105,"name":"a"},{"build":103}])", 1, "a");
        row("earlier wins a tie", R"([{"build":102,"name":"a"},{"build":102,"name":"b"}])", 1, "a");
        row("unsuitable ones do not count", R"([{"build":105,"arch":"arm"},{"build":102,"name":"a"}])", 1,
            "a");

        row("platform older", R"([{"build":101,"name":"a","platform":{"major":6,"minor":0,"patch":99}}])", 1,
            "a");
        row("platform equal", R"([{"build":101,"name":"a","platform":{"major":6,"minor":1,"patch":38}}])", 1,
            "a");
        row("platform's patch newer", R"([{"build":101,"platform":{"major":6,"minor":1,"patch":39}}])", 2);
        row("platform's minor newer", R"([{"build":101,"platform":{"major":6,"minor":2}}])", 2);
        row("platform's major newer", R"([{"build":101,"platform":{"major":7}}])", 2);
        row("platform without members", R"([{"build":101,"name":"a","platform":null}])", 1, "a");

        row("all archs", R"([{"build":101,"name":"a","arch":"all"}])", 1, "a");
        row("other arch", R"([{"build":101,"arch":"arm"}])", 2);
        row("other case", R"([{"build":101,"arch":"X86"}])", 2);
        row("empty arch", R"([{"build":101,"arch":""}])", 2);

        row("beta", R"([{"build":101,"beta":true}])", 2);
        row("beta by presence", R"([{"build":101,"beta":false},{"build":101,"beta":null}])", 2);
        row("beta allowed by presence", R"([{"build":101,"name":"a","beta":1}])", 1, "a",
            R"({"build":100,"beta":false})");
        row("plain build for beta testers", R"([{"build":101,"name":"a"}])", 1, "a",
            R"({"build":100,"beta":true})");
    }

    void decisions()
    {
        QFETCH(QByteArray, records);
        QFETCH(QByteArray, configuration);
        QFETCH(int, status);
        QFETCH(QString, chosen);
        const Decision decision =
            decideUpdate(records, config(configuration.constData()), std::nullopt, Machine);
        QCOMPARE(int(decision.status), status);
        const QVariantMap result = decision.result.toMap();
        QCOMPARE(result["update"].toMap()["name"].toString(), chosen);
        QCOMPARE(result.contains("update"), status == 1);
        QVERIFY(!result.contains("patch"));
    }

    void patches_data()
    {
        QTest::addColumn<QByteArray>("record"); // without its braces and its build
        QTest::addColumn<int>("installed"); // -1: no bundle
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("patch"); // the "file" of the chosen one

        const char *const two =
            R"("patches":[{"build":99,"file":"a"},{"build":"98 or so","file":"b"},{"build":98,"file":"c"}])";
        QTest::newRow("from the installed build") << QByteArray(two) << 99 << 1 << "a";
        QTest::newRow("the first of two") << QByteArray(two) << 98 << 1 << "b";
        QTest::newRow("from another build") << QByteArray(two) << 97 << 1 << "";
        QTest::newRow("not from the configured build")
            << QByteArray(R"("patches":[{"build":100,"file":"a"}])") << 99 << 1 << "";
        QTest::newRow("no bundle") << QByteArray(two) << -1 << 1 << "";
        QTest::newRow("bundle without a build")
            << QByteArray(R"("patches":[7,{"file":"a"}])") << 0 << 1 << "a";
        QTest::newRow("patch only, with a patch")
            << QByteArray(two) + R"(,"patchonly":false)" << 99 << 1 << "a";
        QTest::newRow("patch only, without") << QByteArray(two) + R"(,"patchonly":null)" << 97 << 2 << "";
    }

    void patches()
    {
        QFETCH(QByteArray, record);
        QFETCH(int, installed);
        QFETCH(int, status);
        QFETCH(QString, patch);
        // The lower build would do; it does not stand in for a dropped one.
        const QByteArray records = "[{\"build\":101},{\"build\":102," + record + "}]";
        const Decision decision =
            decideUpdate(records, config(R"({"build":100})"),
                         installed < 0 ? std::nullopt : std::optional<qint64>(installed), Machine);
        QCOMPARE(int(decision.status), status);
        const QVariantMap result = decision.result.toMap();
        QCOMPARE(result.contains("update"), status == 1);
        QCOMPARE(result["patch"].toMap()["file"].toString(), patch);
        QCOMPARE(result.contains("patch"), !patch.isEmpty());
    }

    void reasonsAreLoggedInOrder()
    {
        const LogCapture capture;
        decideUpdate(R"([{"build":100,"arch":"arm"},
                         {"build":101,"platform":{"major":9},"arch":"arm"},
                         {"build":101,"platform":{},"arch":"arm","beta":1},
                         {"build":101,"arch":"all","beta":1},
                         {"build":102},{"build":101}])",
                     config(R"({"build":100})"), std::nullopt, Machine);
        const QStringList expected{
            "version is old", "platform is not valid",    "platform is valid", "arch is not valid",
            "arch is valid",  "beta updates not allowed", "found new build",
        };
        QCOMPARE(capture.lines("zel.updater"), expected);
    }
};

QTEST_GUILESS_MAIN(tst_UpdateDecision)
#include "tst_UpdateDecision.moc"

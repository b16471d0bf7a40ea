#include "check/UpdateDecision.h"
#include "support/LogCapture.h"
#include "support/Table.h"

#include <QJsonDocument>
#include <QJsonObject>

using namespace zel;

namespace {

const MachineFacts Machine{"x86", {6, 1, 38}, "Machine"};

HostConfig config(const QByteArray &json)
{
    return HostConfig::fromMap(QJsonDocument::fromJson(json).object().toVariantMap());
}

QByteArray zeros(int count)
{
    return QByteArray("0,").repeated(count).chopped(1);
}

QByteArray oneRecord(const QByteArray &rest)
{
    return R"([{"build":101,"name":"a",)" + rest + "}]";
}

QByteArray records(int count)
{
    return '[' + QByteArray(R"({"build":101,"name":"a"},)").repeated(count).chopped(1) + ']';
}

} // namespace

class tst_UpdateDecision : public QObject
{
    Q_OBJECT
private slots:
    void decisions_data()
    {
        // What is asked is the "name" of the record that is chosen, which only these tests look at.
        const Table<QByteArray, QString, QByteArray> table;
        const auto row = [&](const char *name, const QByteArray &reply, const char *outcome,
                             const char *configuration = R"({"build":100})") {
            table(name, reply, outcome, configuration);
        };
        row("no body", "", "error");
        row("not JSON", "<html>", "error");
        row("nothing offered", "[]", "none");
        row("an object", R"({"build":101})", "error");
        row("most records", records(10'000), "a");
        row("too many records", records(10'001), "error");
        row("most values", oneRecord("\"list\":[" + zeros(199'990) + ']'), "a");
        row("too many values", oneRecord("\"list\":[" + zeros(200'000) + ']'), "error");
        row("too many behind a text that ends in a backslash",
            oneRecord(R"("text":"\\","list":[)" + zeros(200'000) + ']'), "error");
        row("texts are no values", oneRecord("\"text\":\"" + QByteArray(300'000, ',') + "\\\"\""), "a");
        row("records that are none", R"([1,"a",null,[{"build":101}]])", "none");
        row("builds as text", R"([{"build":" 101beta","name":"a"}])", "a", R"({"build":"100"})");
        row("no configured build", R"([{"build":1,"name":"a"}])", "a", "{}");
        row("negative configured build", R"([{"build":0},{"build":-1}])", "none", R"({"build":-5})");
        row("highest wins", R"([{"build":102},{"build":105,"name":"a"},{"build":103}])", "a");
        row("earlier wins a tie", R"([{"build":102,"name":"a"},{"build":102,"name":"b"}])", "a");
        row("unsuitable ones do not count", R"([{"build":105,"arch":"arm"},{"build":102,"name":"a"}])", "a");

        row("platform older", oneRecord(R"("platform":{"major":6,"minor":0,"patch":99})"), "a");
        row("platform equal", oneRecord(R"("platform":{"major":6,"minor":1,"patch":38})"), "a");
        row("platform's patch newer", oneRecord(R"("platform":{"major":6,"minor":1,"patch":39})"), "none");
        row("platform's major newer", oneRecord(R"("platform":{"major":7})"), "none");
        row("platform without members", oneRecord(R"("platform":null)"), "a");

        row("all archs", oneRecord(R"("arch":"all")"), "a");
        row("other case", oneRecord(R"("arch":"X86")"), "none");
        row("empty arch", oneRecord(R"("arch":"")"), "none");

        const char *const betaConfiguration = R"({"build":100,"beta":false})";
        row("beta by presence", R"([{"build":101,"beta":false},{"build":101,"beta":null}])", "none");
        row("beta allowed by presence", oneRecord(R"("beta":1)"), "a", betaConfiguration);
        row("plain build for beta testers", records(1), "a", betaConfiguration);
    }

    void decisions()
    {
        const auto [reply, outcome, configuration] = Table<QByteArray, QString, QByteArray>::current();
        const Decision decision = decideUpdate(reply, config(configuration), std::nullopt, Machine);
        const QVariantMap result = decision.result.toMap();
        const QString chosen = result["update"].toMap()["name"].toString();
        const QMap<qint64, QString> outcomes{{0, "error"}, {1, chosen}, {2, "none"}};
        QCOMPARE(outcomes[decision.status], outcome);
        QCOMPARE(result.contains("update"), decision.status == 1);
        QVERIFY(!result.contains("patch"));
    }

    void patches_data()
    {
        // The record without its braces and its build, the installed build (-1: no bundle), the status, and
        // the "file" of the chosen patch.
        const Table<QByteArray, int, int, QString> row;
        const QByteArray two =
            R"("patches":[{"build":99,"file":"a"},{"build":"98 or so","file":"b"},{"build":98,"file":"c"}])";
        row("from the installed build", two, 99, 1, "a");
        row("the first of two", two, 98, 1, "b");
        const auto kinds = [](const char *keys) {
            return QByteArray(R"("patches":[{"build":99,"file":"a"},{"build":99,"file":"b",)") + keys
                + R"(},{"build":99,"file":"c","format":2}])";
        };
        row("the newest format", kinds(R"("format":2,"requires":["modes","moved-files"])"), 99, 1, "b");
        row("no requirements", kinds(R"("format":2,"requires":[])"), 99, 1, "b");
        row("a format to come", kinds(R"("format":3)"), 99, 1, "c");
        row("a format as text", kinds(R"("format":"2")"), 99, 1, "c");
        row("a format between", kinds(R"("format":1.5)"), 99, 1, "c");
        row("a word to come", kinds(R"("format":2,"requires":["modes","wings"])"), 99, 1, "c");
        row("a word of no type", kinds(R"("format":2,"requires":[7])"), 99, 1, "c");
        row("words as text", kinds(R"("format":2,"requires":"modes")"), 99, 1, "c");
        row("only what is to come", R"("patches":[{"build":99,"file":"a","format":3}])", 99, 1, "");
        row("not from the configured build", R"("patches":[{"build":100,"file":"a"}])", 99, 1, "");
        row("no bundle", R"("patches":[{"file":"a"}])", -1, 1, "");
        row("bundle without a build", R"("patches":[7,{"file":"a"}])", 0, 1, "a");
        row("patch only, with a patch", two + R"(,"patchonly":false)", 99, 1, "a");
        row("patch only, without", two + R"(,"patchonly":null)", 97, 2, "");
    }

    void patches()
    {
        const auto [record, installed, status, patch] = Table<QByteArray, int, int, QString>::current();
        // The lower build would do; it does not stand in for a dropped one.
        const QByteArray records = "[{\"build\":101},{\"build\":102," + record + "}]";
        const auto bundle = installed < 0 ? std::nullopt : std::optional<qint64>(installed);
        const Decision decision = decideUpdate(records, config(R"({"build":100})"), bundle, Machine);
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

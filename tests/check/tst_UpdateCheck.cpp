#include "check/UpdateCheck.h"
#include "platform/Queues.h"
#include "support/Table.h"
#include "support/TemporaryTree.h"
#include "support/TestServer.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <atomic>
#include <memory>
#include <thread>

using namespace zel;
using Answer = TestServer::Answer;

namespace {

const MachineFacts Machine{"arm", {6, 1, 38}, "Machine 1,1"};
const MachineFacts Nameless{"arm", {6, 1, 38}, QString()};

QJsonObject object(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

CheckResult notesAt(const QUrl &url)
{
    return CheckResult::fromMap({{"update", QVariantMap{{"history", url.toString()}}}});
}

} // namespace

class tst_UpdateCheck : public QObject
{
    Q_OBJECT
private slots:
    void replies_data()
    {
        const Table<Answer, int> row;
        const QByteArray offer = R"([{"build":101,"patches":[{"build":7,"file":"p"}]}])";
        row("update", {.body = offer}, 1);
        row("no update", {.body = "[]"}, 2);
        row("empty body", {}, 0);
        row("the HTTP status does not matter", {.status = 404, .body = offer}, 1);
        row("as long as it may be", {.body = offer.leftJustified(4 << 20, ' ')}, 1);
        row("longer", {.body = offer.leftJustified((4 << 20) + 1, ' ')}, 0);
        row("dropped", {.body = offer, .dropAt = 5}, 0);
    }

    void replies()
    {
        const auto [answer, status] = Table<Answer, int>::current();
        TestServer server;
        server.answer("/check", {answer});
        const TemporaryTree tree;
        tree.write(
            "App.app/Contents/Info.plist",
            "<plist version=\"1.0\"><dict><key>CFBundleVersion</key><string>7</string></dict></plist>");
        int calls = 0;
        // The patch is chosen by the bundle's build, not by the configured one.
        checkForUpdates({.url = server.url("/check").toString(), .path = tree.path("App.app"), .build = 100},
                        [&](qint64 reported, const QVariantMap &result, const QVariant &reserved) {
                            ++calls;
                            QCOMPARE(int(reported), status);
                            QCOMPARE(result.contains("update"), status == 1);
                            QCOMPARE(result.contains("patch"), status == 1);
                            QVERIFY(!reserved.isValid());
                            QCOMPARE(QThread::currentThread(), qApp->thread());
                        });
        QTRY_COMPARE_WITH_TIMEOUT(calls, 1, 60000);
        QCOMPARE(server.requests().first().method, QByteArray("POST"));
        QCOMPARE(QJsonDocument::fromJson(server.requests().first().body)["build"], QJsonValue(100));
    }

    void badAddresses()
    {
        for (const char *address : {"", "not an address", "file:///etc/passwd", "http://127.0.0.1:1/"}) {
            int calls = 0;
            checkForUpdates({.url = QString::fromUtf8(address)},
                            [&](qint64 status, const QVariantMap &result, const QVariant &) {
                                ++calls;
                                QCOMPARE(status, 0);
                                QVERIFY(result.isEmpty());
                            });
            QCOMPARE(calls, 0);
            QTRY_COMPARE_WITH_TIMEOUT(calls, 1, 60000);
        }
    }

    void completionsDieOnTheMainThread()
    {
        TestServer server;
        server.answer("/", {{.body = "[]"}});
        const QString url = server.url("/").toString();
        const HostConfig config{.url = url, .server = url};
        std::atomic<int> here = 0;
        std::atomic<int> elsewhere = 0;
        const auto captive = [&] {
            return std::shared_ptr<void>(
                nullptr, [&](void *) { ++(QThread::currentThread() == qApp->thread() ? here : elsewhere); });
        };
        constexpr int rounds = 40;
        for (int i = 0; i < rounds; ++i) {
            checkForUpdates(config, [held = captive()](qint64, const QVariantMap &, const QVariant &) {});
            downloadHistory(config, notesAt(url), [held = captive()](const QByteArray &) {});
            uploadPatchLog(config, {}, [held = captive()] {});
        }
        QTRY_COMPARE_WITH_TIMEOUT(here + elsewhere, 3 * rounds, 60000);
        // The thread sanitizer cannot see the event queue's lock, and takes minutes to look into all posts.
#ifndef __SANITIZE_THREAD__
        // Each runs at once, some before the call that posts it has returned.
        constexpr int posts = 100'000;
        std::thread poster([&] {
            for (int i = 0; i < posts; ++i)
                onMainQueue([held = captive()] {});
        });
        while (here + elsewhere < 3 * rounds + posts)
            QCoreApplication::sendPostedEvents();
        poster.join();
#endif
        QCOMPARE(elsewhere, 0);
    }

    void notesInTheUsersLanguages()
    {
        const QLocale before;
        QLocale::setDefault(QLocale("pt_BR"));
        const auto restore = qScopeGuard([&] { QLocale::setDefault(before); });
        TestServer server;
        server.answer("/notes", {{.body = "notas"}});
        QByteArray notes;
        downloadHistory({}, notesAt(server.url("/notes")), [&](const QByteArray &body) { notes = body; });
        QTRY_COMPARE(notes, "notas");
        QVERIFY(server.requests().first().headers["accept-language"].endsWith("pt-BR,pt"));
    }

    void checksDoNotMix()
    {
        TestServer server;
        server.answer("/slow", {{.body = "[]", .stallAt = 1}});
        server.answer("/quick", {{.body = R"([{"build":1}])"}});
        QList<qint64> statuses;
        const auto note = [&](qint64 status, const QVariantMap &, const QVariant &) { statuses += status; };
        for (const char *path : {"/slow", "/quick"})
            checkForUpdates({.url = server.url(path).toString()}, note);
        QTRY_COMPARE(statuses, QList<qint64>{1});
        server.release();
        QTRY_COMPARE(statuses, (QList<qint64>{1, 2}));
    }

    void logUpload()
    {
        for (const QString server : {"/base/", ""}) { // without one, the host of the check
            TestServer target;
            HostConfig config{.url = target.url("/check?x=1#top").toString(), .version = 7.01};
            if (!server.isEmpty())
                config.server = target.url(server).toString();
            bool ended = false;
            uploadPatchLog(config, {QVariantMap{{"new", QByteArray("\xff")}}}, [&] { ended = true; });
            QTRY_VERIFY(ended);
            const TestServer::Request request = target.requests().first();
            QCOMPARE(request.path, (server.isEmpty() ? "/" : server.toUtf8()) + "wexmoor7/updates/patch/");
            const QJsonDocument body = QJsonDocument::fromJson(request.body);
            QCOMPARE(body["log"][0]["new"], QJsonValue("/w=="));
            QVERIFY(!body.object().contains("model"));
        }
    }

    void statusTexts()
    {
        QCOMPARE(descriptionForStatus(8), "Update Requires Foreground Updater");
        QCOMPARE(descriptionForDownloadStatus(3), "Path Failed");
        for (const qint64 other : {qint64(0), qint64(-1), qint64(9), std::numeric_limits<qint64>::max()})
            QCOMPARE(descriptionForStatus(other), "Unknown Error");
        for (const qint64 other : {0, -1, 4})
            QCOMPARE(descriptionForDownloadStatus(other), "Download Failed");
    }

    void bodies_data()
    {
        const Table<QByteArray, QByteArray> row;
        const HostConfig number{.build = QVariant::fromValue(std::int64_t(9007199254740993)),
                                .version = 7.01,
                                .acceptsBeta = true};
        const HostConfig text{.build = "7001", .version = "7.01"};
        // The minor version stands twice.
        const QByteArray system = R"("os":{"major":6,"minor":1,"patch":1}})";
        row("check", checkRequestBody(number, Machine),
            R"({"arch":"arm","build":9007199254740993,"model":"Machine 1,1",)" + system);
        row("check, build as text", checkRequestBody(text, Nameless),
            R"({"arch":"arm","build":"7001",)" + system);
        row("check, no build", checkRequestBody({}, Nameless), R"({"arch":"arm",)" + system);
        row("history page", historyPageBody(text, Machine), R"({"arch":"arm","build":"7001"})");
        const QVariantMap failure{{"description", "Hash error"},
                                  {"exists", true},
                                  {"original", QByteArray("\x00\xff\x80", 3)},
                                  {"new", QByteArray((1 << 20) + 1, 'x')}};
        row("log", logUploadBody(text, {failure}, Machine),
            R"({"arch":"arm","build":"7001","version":"7.01",)"
            R"("log":[{"description":"Hash error","exists":true,"original":"AP+A"}],)"
                + system);
    }

    void bodies()
    {
        const auto [body, expected] = Table<QByteArray, QByteArray>::current();
        QCOMPARE(object(body), object(expected));
        QVERIFY(!body.contains('\n'));
    }

    void logsLeaveWithoutFolders_data()
    {
        const Table<QString, QString, QString> table;
        const auto row = [&](const char *key, const QString &text, const char *sent) {
            table(text.toUtf8(), key, text, sent);
        };
        row("path", "/home/ann/My: Apps/Old-100.app", "Old-100.app");
        row("path", "/home/ann/Old-100.app//", "Old-100.app");
        row("file", "Contents/MacOS/example", "Contents/MacOS/example");
        row("file", "/home/ann/x", "x");
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
        const auto [key, text, sent] = Table<QString, QString, QString>::current();
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
};

QTEST_GUILESS_MAIN(tst_UpdateCheck)
#include "tst_UpdateCheck.moc"

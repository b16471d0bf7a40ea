#include "install/MD5FromData.h"
#include "install/PatchRunner.h"
#include "install/UpdateInstaller.h"
#include "install/UpdateJob.h"
#include "install/ZELUpdaterValidateCodeSigning.h"
#include "net/URLSession.h"
#include "seal/BundleSeal.h"
#include "support/LogCapture.h"
#include "support/PatchBuilder.h"
#include "support/TemporaryTree.h"
#include "support/TestCertificate.h"
#include "support/TestServer.h"
#include "support/ZipMaker.h"

#include <QSignalSpy>
#include <QThread>

using namespace zel;
using Answer = TestServer::Answer;

namespace {

// One update: what the server answers, and what must come of it.
struct Flow {
    bool offersPatch = true;
    QList<Answer> patch = {};
    QList<Answer> full = {};
    QString patchHash = {}; // null: the key is left out
    QString fullHash = {};
    std::optional<qint64> patchSize = {};
    QVariantMap record = {}; // more keys of the update record
    QString installed = "installed/Example.app";
    SignerPins signers = {};

    int status = 1;
    QString bundle = {}; // the end of the new bundle's path; null: none
    QByteArrayList requests = {};
    QString lastLogged = {}; // last entry of the patch log; null: no log
    QStringList logged = {}; // on the info level, cut at the first blank before "=" and after "{"
    QStringList staged = {}; // what the staging folders hold, in the order of the downloads
    bool onMainQueue = true;
};

} // namespace

Q_DECLARE_METATYPE(Flow)

class tst_UpdateInstaller : public QObject
{
    Q_OBJECT

    void makeBundle(const QString &name, const QByteArray &build,
                    const QByteArray &identifier = "org.example")
    {
        m_tree.write(name + "/Contents/Info.plist",
                     "<plist version=\"1.0\"><dict><key>CFBundleVersion</key><string>" + build
                         + "</string><key>CFBundleIdentifier</key><string>" + identifier
                         + "</string></dict></plist>");
        m_tree.write(name + "/Contents/MacOS/example", "#!/bin/sh\necho build " + build + '\n', 0755);
        const ZELError error = sealBundle(m_tree.path(name), m_signer.keyFile, m_signer.certificateFile);
        if (error)
            qFatal("%s", qPrintable(error.message));
    }

    // A patch that adds every file of a bundle over the old one's.
    QByteArray patchTo(const QString &bundle, const QByteArray &oneMore = {}) const
    {
        QByteArray commands;
        QByteArray payload;
        const auto add = [&](const QString &path, const QByteArray &bytes) {
            commands += (commands.isEmpty() ? "" : ",")
                + command("add", path.toUtf8(), slice(payload.size(), bytes.size()));
            payload += bytes;
        };
        QDirIterator files(m_tree.path(bundle), QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString path = files.next();
            add(QDir(m_tree.path(bundle)).relativeFilePath(path), TemporaryTree::contents(path));
        }
        if (!oneMore.isEmpty())
            add(QString::fromUtf8(oneMore), "not sealed");
        return patchOfCommands(commands, payload);
    }

    QByteArray zipOf(const QString &bundle, const QByteArray &top, std::vector<ZipItem> items = {}) const
    {
        items.push_back(ZipMaker::folder(top + '/'));
        QDirIterator files(m_tree.path(bundle), QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString path = files.next();
            const QString name = QDir(m_tree.path(bundle)).relativeFilePath(path);
            items.push_back({.name = top + '/' + name.toUtf8(),
                             .data = TemporaryTree::contents(path),
                             .mode = uint32_t(S_IFREG | TemporaryTree::mode(path))});
        }
        return ZipMaker::make(items);
    }

private slots:
    void initTestCase()
    {
        m_signer = makeTestCertificate(m_tree.path(), "maker");
        makeBundle("installed/Example.app", "100");
        makeBundle("new/Example.app", "101");
        makeBundle("older/Example.app", "50");
        makeBundle("other/Example.app", "101", "org.other");
        m_tree.write("unreadable/Example.app/Contents/Info.plist", "no property list");
        m_patch = patchTo("new/Example.app");
        m_zip = zipOf("new/Example.app", "Example.app");
        const qsizetype comment = 32768 - m_zip.size() % 32768;
        m_wholeChunks = m_zip.chopped(2) + ZipMaker::le16(uint16_t(comment)) + QByteArray(comment, ' ');
        QCOMPARE(MD5FromData(m_wholeChunks), "");
    }

    void flows_data()
    {
        QTest::addColumn<Flow>("flow");

        const auto row = [](const char *name, Flow flow, const std::function<void(Flow &)> &change) {
            change(flow);
            QTest::newRow(name) << flow;
        };
        const QStringList afterFull{"Example.app", "full.zip"};
        const QStringList afterPatch{"Old-100.app", "Patched-100.app", "p 1"};
        const QStringList stored{"Download location", "temp", "payload"};
        const QStringList patchStart{"Downloading patch", "{"};
        const QStringList patchRun = patchStart + stored + QStringList("verifying patch");
        const QStringList fullRun = QStringList{"Downloading full update", "{"} + stored
            + QStringList{"extracting update", "extraction succeeded"};
        const QStringList fallBack =
            QStringList("Attempting to download full update after patch failure") + fullRun;

        const Flow byPatch{.patch = {{.body = m_patch}},
                           .full = {{.body = m_zip}},
                           .patchHash = MD5FromData(m_patch),
                           .fullHash = MD5FromData(m_zip),
                           .bundle = "/Patched-100.app",
                           .requests = {"/p%201"},
                           .staged = afterPatch};
        Flow byArchive = byPatch;
        byArchive.offersPatch = false;
        byArchive.bundle = "/Example.app";
        byArchive.requests = {"/full.zip"};
        byArchive.staged = afterFull;
        Flow fallsBack = byArchive;
        fallsBack.offersPatch = true;
        fallsBack.requests = {"/p%201", "/full.zip"};
        Flow badArchive = byArchive;
        badArchive.status = 2;
        badArchive.bundle = QString();
        badArchive.staged.clear();

        row("by patch", byPatch,
            [&](Flow &flow) { flow.logged = patchRun + QStringList("patch succeeded"); });
        row("by full archive", byArchive, [&](Flow &flow) { flow.logged = fullRun; });
        row("a patch with a wrong hash", fallsBack, [&](Flow &flow) {
            flow.patchHash = flow.fullHash;
            flow.logged = patchStart + stored + QStringList("MD5 Error") + fallBack;
        });
        row("a patch that is longer than announced", fallsBack, [&](Flow &flow) {
            flow.patchSize = m_patch.size() - 1;
            flow.logged = patchStart + QStringList("MD5 Error") + fallBack;
        });
        row("a patch without a hash, even an empty one", fallsBack, [&](Flow &flow) {
            flow.patch = {{.body = ""}};
            flow.patchHash = QString();
        });
        row("a patch that does not apply", fallsBack, [&](Flow &flow) {
            const QByteArray broken = patchOfCommands(command("delete", ".."));
            flow.patch = {{.body = broken}};
            flow.patchHash = MD5FromData(broken);
            flow.lastLogged = "Patch failed";
            flow.logged = patchRun + QStringList("patch failed") + fallBack;
        });
        row("a patch whose result is not sealed", fallsBack, [&](Flow &flow) {
            const QByteArray altered = patchTo("new/Example.app", "Contents/extra");
            flow.patch = {{.body = altered}};
            flow.patchHash = MD5FromData(altered);
            flow.lastLogged = "failed with code signing error";
            flow.logged =
                patchRun + QStringList{"patch failed with codesigning error", "patch failed"} + fallBack;
        });
        row("an installed bundle that cannot be copied", fallsBack, [&](Flow &flow) {
            flow.installed = "gone/Example.app";
            flow.lastLogged = "Unable to copy old appliocation to temp folder";
            flow.logged = patchRun + QStringList{"Unable to copy old app", "patch failed"} + fallBack;
        });
        row("a patch whose transfer fails does not fall back", byPatch, [&](Flow &flow) {
            flow.patch = {{.body = m_patch, .dropAt = 10}};
            flow.status = 0;
            flow.bundle = QString();
            flow.staged.clear();
            flow.onMainQueue = false;
            flow.logged = patchStart + QStringList("Error downloading file");
        });
        row("patch and archive with wrong hashes", fallsBack, [&](Flow &flow) {
            flow.patchHash = "x";
            flow.fullHash = flow.fullHash.toUpper();
            flow.status = 0;
            flow.bundle = QString();
            flow.staged.clear();
        });
        row("an empty archive is what an empty hash stands for", badArchive, [&](Flow &flow) {
            flow.full = {{.body = ""}};
            flow.fullHash = "";
        });
        row("an archive that is none", badArchive, [&](Flow &flow) {
            flow.full = {{.body = "no zip"}};
            flow.fullHash = MD5FromData("no zip");
            flow.logged = fullRun.first(6) + QStringList("extraction failed");
        });
        row("an archive without a bundle", badArchive, [&](Flow &flow) {
            const QByteArray zip = ZipMaker::make({{.name = "file", .data = "x"}});
            flow.full = {{.body = zip}};
            flow.fullHash = MD5FromData(zip);
            flow.logged = fullRun;
        });
        const auto archived = [](Flow &flow, const QByteArray &zip) {
            flow.full = {{.body = zip}};
            flow.fullHash = MD5FromData(zip);
        };
        for (const bool pinned : {false, true}) {
            const auto pinnedRow = [&](const char *name, Flow flow,
                                       const std::function<void(Flow &)> &change) {
                if (pinned)
                    flow.signers = {m_signer.fingerprint};
                row(qPrintable(QString(name) + (pinned ? ", pinned" : "")), flow, change);
            };
            pinnedRow("a link to a sealed bundle", badArchive, [&](Flow &flow) {
                archived(flow, zipOf("new/Example.app", "a/real", {ZipMaker::link("Example.app", "a/real")}));
            });
            pinnedRow("an older build under a new number", badArchive,
                      [&](Flow &flow) { archived(flow, zipOf("older/Example.app", "Example.app")); });
            pinnedRow("a build of another number", badArchive,
                      [&](Flow &flow) { flow.record["build"] = 102; });
            pinnedRow("a build that is no newer than the installed one", badArchive, [&](Flow &flow) {
                flow.record["build"] = 50;
                archived(flow, zipOf("older/Example.app", "Example.app"));
            });
            pinnedRow("an installed bundle whose build cannot be read", badArchive,
                      [](Flow &flow) { flow.installed = "unreadable/Example.app"; });
            pinnedRow("another application of the same signer", badArchive,
                      [&](Flow &flow) { archived(flow, zipOf("other/Example.app", "Example.app")); });
            pinnedRow("a patch to an older build", fallsBack, [&](Flow &flow) {
                const QByteArray patch = patchTo("older/Example.app");
                flow.patch = {{.body = patch}};
                flow.patchHash = MD5FromData(patch);
                flow.lastLogged = "failed with another bundle than announced";
            });
            pinnedRow("a whole number of chunks and an empty hash", byArchive, [&](Flow &flow) {
                archived(flow, m_wholeChunks);
                if (!pinned)
                    return;
                flow.status = 0;
                flow.bundle = QString();
                flow.staged.clear();
            });
            pinnedRow("a whole number of chunks with SHA-256 and size", byArchive, [&](Flow &flow) {
                archived(flow, m_wholeChunks);
                flow.record.insert(
                    {{"sha256", sha256(m_wholeChunks).toUpper()}, {"size", m_wholeChunks.size()}});
            });
        }
        for (const auto &[name, key, value] :
             {std::tuple("another SHA-256", "sha256", QVariant(sha256("other"))),
              {"an empty SHA-256", "sha256", ""},
              {"a SHA-256 that is no text", "sha256", QVariantList()},
              {"a greater size", "size", m_zip.size() + 1},
              {"a smaller size", "size", m_zip.size() - 1},
              {"a size that is a text", "size", QString::number(m_zip.size())}}) {
            row(name, badArchive, [&, key = key, value = value](Flow &flow) {
                flow.status = 0;
                flow.record[key] = value;
            });
        }
        for (const char *name : {"/Example.app", "/Old-100.app"}) {
            row(name, byArchive, [&](Flow &flow) {
                flow.full = {Answer::redirect(name)};
                flow.requests.append(name);
                flow.staged = {"Example.app", name + 1};
            });
        }
        row("pins that cannot be read accept nobody", badArchive,
            [&](Flow &flow) { flow.signers = QStringList(); });
        row("a patch sealed by a pinned signer", byPatch,
            [&](Flow &flow) { flow.signers = {m_signer.fingerprint}; });
        row("neither is sealed by the pinned signer", fallsBack, [&](Flow &flow) {
            flow.signers = {QString(64, u'0')};
            flow.status = 2;
            flow.bundle = QString();
            flow.staged.clear();
            flow.lastLogged = "failed with code signing error";
        });
        row("the file is named by the address that answers", byArchive, [&](Flow &flow) {
            flow.full = {Answer::redirect("/elsewhere/..%2Fnamed.zip?key=1")};
            flow.requests.append("/elsewhere/..%2Fnamed.zip?key=1");
            flow.staged = {"Example.app", "named.zip"};
        });
    }

    void flows()
    {
        QFETCH(Flow, flow);
        TestServer server;
        server.answer("/p%201", flow.patch);
        server.answer("/full.zip", flow.full);
        for (const char *name : {"/elsewhere/..%2Fnamed.zip", "/Example.app", "/Old-100.app"})
            server.answer(name, {{.body = m_zip}});
        const TemporaryTree staging;
        const QString root = staging.path("it's \"a\" $(staging) folder\n");

        const LogCapture capture;
        QList<QVariantList> logs;
        std::atomic<int> prepared = 0;
        const auto installer =
            UpdateInstaller::create({.handleLog = [&](const QVariantList &log) { logs.append(log); },
                                     .preparing = [&] { ++prepared; },
                                     .progress = {}});
        installer->setSettings({m_tree.path(flow.installed), root, flow.signers});
        QVariantMap entry{{"build", "100/../.."},
                          {"file", server.url("/p%201").toString(QUrl::FullyEncoded)}};
        if (!flow.patchHash.isNull())
            entry["hash"] = flow.patchHash;
        if (flow.patchSize)
            entry["size"] = *flow.patchSize;
        QVariantMap record{
            {"build", 101}, {"file", server.url("/full.zip").toString()}, {"hash", flow.fullHash}};
        record.insert(flow.record);
        QVariantMap update{{"update", record}};
        if (flow.offersPatch)
            update["patch"] = entry;
        installer->setUpdate(update);

        std::atomic<int> calls = 0;
        std::atomic<qint64> status = -1;
        QString path;
        QThread *thread = nullptr;
        installer->downloadUpdate([&](qint64 reported, const QString &bundle) {
            thread = QThread::currentThread();
            path = bundle;
            status = reported;
            ++calls;
        });
        QTRY_COMPARE_WITH_TIMEOUT(calls.load(), 1, 60000);

        const QStringList logged = capture.lines("zel.updater");
        for (const QString &line : logged.filter(" = "))
            QVERIFY2(line.contains(" = " + root), qPrintable(line));
        if (!flow.logged.isEmpty())
            QCOMPARE(QStringList(logged).replaceInStrings(m_variable, QString()), flow.logged);
        QCOMPARE(prepared.load(), int(logged.count("verifying patch")));
        QVERIFY(!capture.hasMainThreadIn("zel.system")); // long work and its diagnostics are elsewhere
        QCOMPARE(int(status), flow.status);
        QCOMPARE(thread == QThread::currentThread(), flow.onMainQueue);
        QCOMPARE(path.isNull(), flow.bundle.isNull());
        if (!path.isNull()) {
            QVERIFY(path.startsWith(root) && path.endsWith(flow.bundle));
            QVERIFY(ZELUpdaterValidateCodeSigning(QUrl::fromLocalFile(path)));
            QVERIFY(TemporaryTree::contents(path + "/Contents/MacOS/example").contains("build 101"));
        }
        QByteArrayList requests;
        for (const TestServer::Request &request : server.requests())
            requests.append(request.path);
        QCOMPARE(requests, flow.requests);
        QCOMPARE(logs.size(), flow.lastLogged.isNull() ? 0 : 1);
        if (!logs.isEmpty())
            QCOMPARE(logs[0].last().toMap()["description"].toString(), flow.lastLogged);
        compareStaged(root, flow.staged);
        QVERIFY(ZELUpdaterValidateCodeSigning(QUrl::fromLocalFile(m_tree.path("installed/Example.app"))));
        installer->cleanup();
        QVERIFY(!QFileInfo::exists(root));
    }

    void updateInFlightKeepsItsInputs()
    {
        TestServer server;
        server.answer("/p", {{.body = "useless", .stallAt = 2}});
        server.answer("/full.zip", {{.body = m_zip}});
        const TemporaryTree staging;
        QList<QVariantList> logs;
        const auto installer =
            UpdateInstaller::create({.handleLog = [&](const QVariantList &log) { logs.append(log); },
                                     .preparing = {},
                                     .progress = {}});
        installer->setSettings({m_tree.path("installed/Example.app"), staging.path("first")});
        installer->setUpdate(offer(server, MD5FromData("useless")));
        QString bundle;
        installer->downloadUpdate([&](qint64, const QString &path) { bundle = path; });
        QVERIFY(server.waitForRequests(1));
        const QVariantMap second{{"update", "of a second check"}, {"patch", "too"}};
        installer->setUpdate(second);
        installer->setSettings({"gone", staging.path("second"), QStringList()});
        server.release();
        QTRY_VERIFY_WITH_TIMEOUT(!bundle.isNull(), 60'000);
        QVERIFY(bundle.startsWith(staging.path("first")));
        QCOMPARE(logs.size(), 1);
        QCOMPARE(installer->update(), second);
    }

    void failedPatchIsGoneBeforeTheArchiveIsFetched()
    {
        TestServer server;
        const QByteArray broken = patchOfCommands(command("delete", ".."));
        server.answer("/p", {{.body = broken}});
        server.answer("/full.zip", {{.body = m_zip, .stallAt = 5}});
        const TemporaryTree staging;
        const auto installer = UpdateInstaller::create({});
        installer->setSettings({m_tree.path("installed/Example.app"), staging.path("root")});
        installer->setUpdate(offer(server, MD5FromData(broken)));
        int calls = 0;
        installer->downloadUpdate([&](qint64, const QString &) { ++calls; });
        QVERIFY(server.waitForRequests(2));
        QTRY_COMPARE(installer->task()->countOfBytesReceived(), qint64(5));
        const QStringList folders =
            QDir(staging.path("root")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
        QCOMPARE(folders.size(), 1);
        const QStringList items =
            QDir(staging.path("root/" + folders[0])).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
        QVERIFY2(items.size() == 1 && items[0].endsWith(".download"), qPrintable(items.join(u' ')));
        installer->task()->cancel();
        QTRY_COMPARE(QDir(staging.path("root")).entryList(QDir::Dirs | QDir::NoDotAndDotDot), QStringList());
        QCoreApplication::processEvents();
        QCOMPARE(calls, 0);
    }

    void cleanupSparesWhatIsInUse()
    {
        TestServer server;
        server.answer("/full.zip", {{.body = m_zip, .stallAt = 5}});
        const TemporaryTree staging;
        const QString root = staging.path("root");
        const auto installer = UpdateInstaller::create({});
        const auto otherProcess = UpdateInstaller::create({});
        for (const auto &one : {installer, otherProcess})
            one->setSettings({m_tree.path("installed/Example.app"), root});
        QVariantMap update = offer(server, {});
        update.remove("patch");
        installer->setUpdate(update);
        QString bundle;
        installer->downloadUpdate([&](qint64, const QString &path) { bundle = path; });
        QVERIFY(server.waitForRequests(1));
        staging.write("root/00000000-LEFT-OVER/of/a/killed/process", "x");
        for (const auto &one : {installer, otherProcess})
            one->cleanup();
        QVERIFY(!QFileInfo::exists(staging.path("root/00000000-LEFT-OVER")));
        server.release();
        QTRY_VERIFY_WITH_TIMEOUT(!bundle.isNull(), 60'000);
        otherProcess->cleanup();
        QVERIFY(ZELUpdaterValidateCodeSigning(QUrl::fromLocalFile(bundle)));
        installer->cleanup();
        QVERIFY(!QFileInfo::exists(root));
    }

    void cancelledDownloadEndsSilently()
    {
        TestServer server;
        server.answer("/full.zip", {{.body = m_zip, .framing = TestServer::Framing::Close, .stallAt = 5}});
        const TemporaryTree staging;
        const LogCapture capture;
        int calls = 0;
        QList<std::pair<qint64, qint64>> progress;
        const auto installer = UpdateInstaller::create(
            {.handleLog = {}, .preparing = {}, .progress = [&](qint64 received, qint64 expected) {
                 progress.append({received, expected});
             }});
        installer->setSettings({{}, staging.path("staging"), {}});
        installer->setUpdate(
            {{"update", QVariantMap{{"file", server.url("/full.zip")}, {"size", m_zip.size()}}}});
        installer->downloadUpdate([&](qint64, const QString &) { ++calls; });
        QTRY_VERIFY(!progress.isEmpty() && progress.last() == std::pair(qint64(5), qint64(m_zip.size())));
        installer->task()->cancel();
        QTRY_VERIFY(capture.lines("zel.updater").contains("download was cancelled"));
        QCoreApplication::processEvents();
        QCOMPARE(calls, 0);
        compareStaged(staging.path("staging"), {});
    }

    void cancelEndsAnArchiveToolThatHangs()
    {
        TestServer server;
        server.answer("/full.zip", {{.body = m_zip}});
        const TemporaryTree staging;
        const QString started = staging.path("started");
        const QString tool = staging.write(
            "tool", "#!/bin/sh\ncat >/dev/null; : >'" + started.toUtf8() + "'; exec sleep 1000\n", 0755);
        QVariantMap update = offer(server, {});
        update.remove("patch");
        const LogCapture capture;
        int calls = 0;
        const auto job = UpdateJob::create({.offer = CheckResult::fromMap(update),
                                            .installedBundle = m_tree.path("installed/Example.app"),
                                            .stagingRoot = staging.path("root"),
                                            .archiveTool = tool},
                                           {}, [&](qint64, const QString &) { ++calls; });
        job->resume();
        QTRY_VERIFY(QFileInfo::exists(started));
        job->cancel();
        QTRY_VERIFY(capture.lines("zel.updater").contains("download was cancelled"));
        QVERIFY(QDir(staging.path("root")).isEmpty());
        QCoreApplication::processEvents();
        QCOMPARE(calls, 0);
    }

    // Commands that go on and on would hold up the application's end.
    void stopEndsThePatch()
    {
        const TemporaryTree staging;
        const QString patch = staging.write("patch", patchOfCommands(command("delete", "..")));
        std::stop_source stop;
        stop.request_stop();
        QVariantList log;
        QVERIFY(!applyBundlePatch(m_tree.path("installed/Example.app"), staging.path("New.app"), patch, log,
                                  stop.get_token()));
        QCOMPARE(log.last().toMap()["description"].toString(), "Patch failed");
        for (const QVariant &entry : log)
            QVERIFY(!entry.toMap()["description"].toString().startsWith("Error"));
    }

    void completionMayBeLeftOut()
    {
        TestServer server;
        server.answer("/dropped", {{.body = m_zip, .dropAt = 5}});
        const TemporaryTree staging;
        const LogCapture capture;
        const auto installer = UpdateInstaller::create({});
        installer->setSettings({{}, staging.path("staging"), {}});
        for (const auto &[path, end] :
             {std::pair("/dropped", "Error downloading file"), std::pair("/wrong", "MD5 Error")}) {
            const QVariantMap record{{"file", server.url(path)}};
            installer->setUpdate({{"update", record}});
            installer->downloadUpdate({});
            QTRY_VERIFY(capture.lines("zel.updater").contains(end));
        }
        QVERIFY(capture.lines("zel.system").first().contains("/dropped\": "));
    }

    void payloadNames_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("name");
        const auto row = [](const char *url, const char *name) {
            QTest::newRow(url) << QString::fromUtf8(url) << QString::fromUtf8(name);
        };
        row("http://h/a/b.zip?x=/y", "b.zip");
        row("http://h/a%20b%28.zip", "a b(.zip");
        row("http://h/a/..%2F..%2Fetc%2Fpasswd", "passwd");
        row("http://h/a/%2E%2E", "download");
        row("http://h/folder/", "folder");
        row("http://h/", "download");
        row("http://h/x%00y", "xy");
        QTest::newRow("as long as names can be")
            << QString(QLatin1String("http://h/") + QString(300, u'\u00e4')) << QString(127, u'\u00e4');
    }

    void payloadNames()
    {
        QFETCH(QString, url);
        QFETCH(QString, name);
        QCOMPARE(payloadName(QUrl(url)), name);
    }

private:
    QVariantMap offer(const TestServer &server, const QString &patchHash) const
    {
        return {
            {"update",
             QVariantMap{{"build", 101}, {"file", server.url("/full.zip")}, {"hash", MD5FromData(m_zip)}}},
            {"patch", QVariantMap{{"build", 100}, {"file", server.url("/p")}, {"hash", patchHash}}}};
    }

    static QString sha256(const QByteArray &bytes)
    {
        return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
    }

    void compareStaged(const QString &root, QStringList expected)
    {
        QStringList staged;
        for (const QFileInfo &folder :
             QDir(root).entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)) {
            QVERIFY2(m_uuid.match(folder.fileName()).hasMatch(), qPrintable(folder.fileName()));
            QCOMPARE(TemporaryTree::mode(folder.filePath()), 0700);
            for (const QFileInfo &item :
                 QDir(folder.filePath())
                     .entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)) {
                const bool built = m_uuid.match(item.fileName()).hasMatch();
                staged += built ? QDir(item.filePath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot)
                                : QStringList(item.fileName());
            }
        }
        staged.sort();
        expected.sort();
        QCOMPARE(staged, expected);
    }

    const QRegularExpression m_uuid{"^[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$"};
    const QRegularExpression m_variable{" = .*|(?<=\\{).*", QRegularExpression::DotMatchesEverythingOption};
    const TemporaryTree m_tree;
    TestCertificate m_signer;
    QByteArray m_patch;
    QByteArray m_zip;
    QByteArray m_wholeChunks; // a zip archive whose MD5 is the empty text
};

QTEST_GUILESS_MAIN(tst_UpdateInstaller)
#include "tst_UpdateInstaller.moc"

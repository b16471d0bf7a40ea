#include "install/MD5FromData.h"
#include "install/PatchRunner.h"
#include "install/UpdateInstaller.h"
#include "install/UpdateJob.h"
#include "install/ZELUpdaterValidateCodeSigning.h"
#include "net/URLSession.h"
#include "seal/BundleSeal.h"
#include "support/LogCapture.h"
#include "support/PatchBuilder.h"
#include "support/Signing.h"
#include "support/TemporaryTree.h"
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

    // The same flow, but for what each names.
    template <typename T> Flow with(T Flow::*member, const std::type_identity_t<T> &value) const
    {
        Flow flow = *this;
        flow.*member = value;
        return flow;
    }
    Flow patched(const QByteArray &bytes) const
    {
        return with(&Flow::patch, {{.body = bytes}}).with(&Flow::patchHash, MD5FromData(bytes));
    }
    Flow archived(const QByteArray &bytes) const
    {
        return with(&Flow::full, {{.body = bytes}}).with(&Flow::fullHash, MD5FromData(bytes));
    }
    Flow fails(int as) const
    {
        return with(&Flow::status, as).with(&Flow::bundle, QString()).with(&Flow::staged, {});
    }
    Flow logs(const QStringList &lines) const { return with(&Flow::logged, lines); }
    Flow blames(const QString &entry) const { return with(&Flow::lastLogged, entry); }
};

} // namespace

Q_DECLARE_METATYPE(Flow)

// An update under way.
struct Running {
    void start(const QVariantMap &update, const QString &installed, const SignerPins &signers = {})
    {
        std::optional<RecordPolicy> policy;
        if (signers)
            policy = {*signers, "org.example", 0, QDateTime::currentSecsSinceEpoch()};
        installer->setSettings({installed, root, policy});
        installer->setUpdate(update);
        installer->downloadUpdate([this](qint64 reported, const QString &path) {
            thread = QThread::currentThread();
            bundle = path;
            status = int(reported);
            ++calls;
        });
    }

    // Nobody is told of an update that the user has cancelled, and nothing stays.
    void verifyCancelled()
    {
        QTRY_VERIFY(capture.lines("zel.updater").contains("download was cancelled"));
        QTRY_VERIFY(QDir(root).isEmpty());
        QCoreApplication::processEvents();
        QCOMPARE(calls.load(), 0);
    }

    TestServer server;
    const TemporaryTree staging;
    const QString root = staging.path("it's \"a\" $(staging) folder\n");
    const LogCapture capture;
    std::atomic<int> prepared = 0;
    QList<QVariantList> logs;
    QList<std::pair<qint64, qint64>> progress;
    QThread *thread = nullptr;
    QString bundle;
    std::atomic<int> status = -1;
    std::atomic<int> calls = 0;
    const std::shared_ptr<UpdateInstaller> installer =
        UpdateInstaller::create({.handleLog = [this](const QVariantList &log) { logs.append(log); },
                                 .preparing = [this] { ++prepared; },
                                 .progress =
                                     [this](qint64 received, qint64 expected) {
                                         progress.append({received, expected});
                                     }});
};

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
        const ZELError error = sealWith(m_tree.path(name), m_signer);
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
        m_other = makeTestCertificate(m_tree.path(), "other");
        m_recordSigners = signersOf({m_signer, m_other});
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

        const auto row = [](const QString &name, const Flow &flow) {
            QTest::newRow(qPrintable(name)) << flow;
        };
        const QStringList afterFull{"Example.app", "full.zip"};
        const QStringList afterPatch{"Old-100.app", "Patched-100.app", "p 1"};
        const QStringList stored{"Download location", "temp", "payload"};
        const QStringList patchStart{"Downloading patch", "{"};
        const QStringList patchRun = patchStart + stored + QStringList("verifying patch");
        const QStringList fullRun = QStringList{"Downloading full update", "{"} + stored
            + QStringList{"extracting update", "extraction succeeded"};
        const QStringList wrong{"MD5 Error"};
        const QStringList fallBack =
            QStringList("Attempting to download full update after patch failure") + fullRun;
        const QStringList failsThen = QStringList("patch failed") + fallBack;

        const Flow byPatch = Flow{.bundle = "/Patched-100.app", .requests = {"/p%201"}, .staged = afterPatch}
                                 .patched(m_patch)
                                 .archived(m_zip);
        Flow byArchive = byPatch;
        byArchive.offersPatch = false;
        byArchive.bundle = "/Example.app";
        byArchive.requests = {"/full.zip"};
        byArchive.staged = afterFull;
        Flow fallsBack = byArchive;
        fallsBack.offersPatch = true;
        fallsBack.requests = {"/p%201", "/full.zip"};
        const Flow badArchive = byArchive.fails(2);
        const SignerPins pins = QStringList(m_signer.fingerprint);

        row("by patch", byPatch.logs(patchRun + QStringList("patch succeeded")));
        row("by full archive", byArchive.logs(fullRun));
        row("a patch with a wrong hash",
            fallsBack.with(&Flow::patchHash, "x").logs(patchStart + stored + wrong + fallBack));
        row("a patch that is longer than announced",
            fallsBack.with(&Flow::patchSize, m_patch.size() - 1).logs(patchStart + wrong + fallBack));
        row("a patch without a hash, even an empty one",
            fallsBack.patched("").with(&Flow::patchHash, QString()));
        row("a patch that does not apply",
            fallsBack.patched(patchOfCommands(command("delete", "..")))
                .logs(patchRun + failsThen)
                .blames("Patch failed"));
        row("a patch whose result is not sealed",
            fallsBack.patched(patchTo("new/Example.app", "Contents/extra"))
                .logs(patchRun + QStringList("patch failed with codesigning error") + failsThen)
                .blames("failed with code signing error"));
        row("an installed bundle that cannot be copied",
            fallsBack.with(&Flow::installed, "gone/Example.app")
                .logs(patchRun + QStringList("Unable to copy old app") + failsThen)
                .blames("Unable to copy old appliocation to temp folder"));
        row("a patch whose transfer fails does not fall back",
            byPatch.with(&Flow::patch, {{.body = m_patch, .headers = {{"Transfer-Encoding", "gzip"}}}})
                .with(&Flow::onMainQueue, false)
                .fails(0)
                .logs(patchStart + QStringList("Error downloading file")));
        row("patch and archive with wrong hashes",
            fallsBack.with(&Flow::patchHash, "x")
                .with(&Flow::fullHash, fallsBack.fullHash.toUpper())
                .fails(0));
        row("an empty archive is what an empty hash stands for", badArchive.archived(""));
        row("an archive that is none",
            badArchive.archived("no zip").logs(fullRun.first(6) + QStringList("extraction failed")));
        row("an archive without a bundle",
            badArchive.archived(ZipMaker::make({{.name = "file", .data = "x"}})).logs(fullRun));
        for (const SignerPins &signers : {SignerPins(), pins}) {
            const auto either = [&](const QString &name, const Flow &flow) {
                row(name + (signers ? ", pinned" : ""), flow.with(&Flow::signers, signers));
            };
            const QByteArray older = zipOf("older/Example.app", "Example.app");
            either("a link to a sealed bundle",
                   badArchive.archived(
                       zipOf("new/Example.app", "a/real", {ZipMaker::link("Example.app", "a/real")})));
            either("an older build under a new number", badArchive.archived(older));
            either("a build of another number", badArchive.with(&Flow::record, {{"build", 102}}));
            either("a build that is no newer than the installed one",
                   badArchive.archived(older).with(&Flow::record, {{"build", 50}}));
            either("an installed bundle whose build cannot be read",
                   badArchive.with(&Flow::installed, "unreadable/Example.app"));
            either("another application of the same signer",
                   badArchive.archived(zipOf("other/Example.app", "Example.app")));
            either("a patch to an older build",
                   fallsBack.patched(patchTo("older/Example.app"))
                       .blames("failed with another bundle than announced"));
            either("a whole number of chunks and an empty hash", byArchive.archived(m_wholeChunks));
        }
        for (const auto &[name, key, value] :
             {std::tuple("another SHA-256", "sha256", QVariant(sha256("other"))),
              {"an empty SHA-256", "sha256", ""},
              {"a SHA-256 that is no text", "sha256", QVariantList()},
              {"a greater size", "size", m_zip.size() + 1},
              {"a smaller size", "size", m_zip.size() - 1},
              {"a size that is a text", "size", QString::number(m_zip.size())}})
            row(name, byArchive.fails(0).with(&Flow::record, {{key, value}}));
        const auto redirected = [&](const QString &name, const char *to, const QString &staged) {
            row(name,
                byArchive.with(&Flow::full, {Answer::redirect(to)})
                    .with(&Flow::requests, {"/full.zip", to})
                    .with(&Flow::staged, {"Example.app", staged}));
        };
        redirected("an archive named like the bundle", "/Example.app", "Example.app");
        redirected("an archive named like the old bundle", "/Old-100.app", "Old-100.app");
        redirected("the file is named by the address that answers", "/elsewhere/..%2Fnamed.zip?key=1",
                   "named.zip");
        for (const char *key : {"sha256", "size", "builds"})
            row(QString("a signed record without ") + key,
                byArchive.with(&Flow::signers, pins)
                    .with(&Flow::record, {{key, {}}})
                    .fails(0)
                    .with(&Flow::requests, {}));
        row("pins that cannot be read accept nobody",
            byPatch.with(&Flow::signers, QStringList()).fails(0).with(&Flow::requests, {}));
        row("a patch sealed by a pinned signer", byPatch.with(&Flow::signers, pins));
        row("neither is sealed by the pinned signer",
            fallsBack.with(&Flow::signers, QStringList(m_other.fingerprint))
                .fails(2)
                .blames("failed with code signing error"));
    }

    void flows()
    {
        QFETCH(Flow, flow);
        Running run;
        run.server.answer("/p%201", flow.patch);
        run.server.answer("/full.zip", flow.full);
        for (const char *name : {"/elsewhere/..%2Fnamed.zip", "/Example.app", "/Old-100.app"})
            run.server.answer(name, {{.body = m_zip}});
        QVariantMap entry{{"build", "100/../.."},
                          {"file", run.server.url("/p%201").toString(QUrl::FullyEncoded)}};
        if (!flow.patchHash.isNull())
            entry["hash"] = flow.patchHash;
        if (flow.patchSize)
            entry["size"] = *flow.patchSize;
        QVariantMap record{
            {"build", 101}, {"file", run.server.url("/full.zip").toString()}, {"hash", flow.fullHash}};
        record.insert(flow.record);
        if (flow.signers)
            sign(record, flow, entry);
        QVariantMap update{{"update", record}};
        if (flow.offersPatch)
            update["patch"] = entry;
        run.start(update, m_tree.path(flow.installed), flow.signers);
        QTRY_COMPARE_WITH_TIMEOUT(run.calls.load(), 1, 60000);

        const QStringList logged = run.capture.lines("zel.updater");
        for (const QString &line : logged.filter(" = "))
            QVERIFY2(line.contains(" = " + run.root), qPrintable(line));
        if (!flow.logged.isEmpty())
            QCOMPARE(QStringList(logged).replaceInStrings(m_variable, QString()), flow.logged);
        QCOMPARE(run.prepared.load(), int(logged.count("verifying patch")));
        QVERIFY(!run.capture.hasMainThreadIn("zel.system")); // long work and its diagnostics are elsewhere
        QCOMPARE(run.status.load(), flow.status);
        QCOMPARE(run.thread == QThread::currentThread(), flow.onMainQueue);
        QCOMPARE(run.bundle.isNull(), flow.bundle.isNull());
        if (!run.bundle.isNull()) {
            QVERIFY(run.bundle.startsWith(run.root) && run.bundle.endsWith(flow.bundle));
            QVERIFY(ZELUpdaterValidateCodeSigning(QUrl::fromLocalFile(run.bundle)));
            QVERIFY(TemporaryTree::contents(run.bundle + "/Contents/MacOS/example").contains("build 101"));
        }
        QByteArrayList requests;
        for (const TestServer::Request &request : run.server.requests())
            requests.append(request.path);
        QCOMPARE(requests, flow.requests);
        QCOMPARE(run.logs.size(), flow.lastLogged.isNull() ? 0 : 1);
        if (!run.logs.isEmpty())
            QCOMPARE(run.logs[0].last().toMap()["description"].toString(), flow.lastLogged);
        compareStaged(run.root, flow.staged);
        QVERIFY(ZELUpdaterValidateCodeSigning(QUrl::fromLocalFile(m_tree.path("installed/Example.app"))));
        run.installer->cleanup();
        QVERIFY(!QFileInfo::exists(run.root));
    }

    void updateInFlightKeepsItsInputs()
    {
        Running run;
        run.server.answer("/p", {{.body = "useless", .stallAt = 2}});
        run.server.answer("/full.zip", {{.body = m_zip}});
        run.start(offer(run.server, MD5FromData("useless")), m_tree.path("installed/Example.app"));
        QVERIFY(run.server.waitForRequests(1));
        const QVariantMap second{{"update", "of a second check"}, {"patch", "too"}};
        run.installer->setUpdate(second);
        run.installer->setSettings({"gone", run.staging.path("second"), RecordPolicy()});
        run.server.release();
        QTRY_VERIFY_WITH_TIMEOUT(!run.bundle.isNull(), 60'000);
        QVERIFY(run.bundle.startsWith(run.root));
        QCOMPARE(run.logs.size(), 1);
        QCOMPARE(run.installer->update(), second);
    }

    void failedPatchIsGoneBeforeTheArchiveIsFetched()
    {
        Running run;
        const QByteArray broken = patchOfCommands(command("delete", ".."));
        run.server.answer("/p", {{.body = broken}});
        run.server.answer("/full.zip", {{.body = m_zip, .stallAt = 5}});
        run.start(offer(run.server, MD5FromData(broken)), m_tree.path("installed/Example.app"));
        QVERIFY(run.server.waitForRequests(2));
        QTRY_COMPARE(run.installer->task()->countOfBytesReceived(), qint64(5));
        const QStringList items = TemporaryTree::listing(run.root);
        QVERIFY2(items.size() == 2 && items[1].contains(".download = "), qPrintable(items.join(u'\n')));
        run.installer->task()->cancel();
        run.verifyCancelled();
    }

    void cleanupSparesWhatIsInUse()
    {
        Running run;
        run.server.answer("/full.zip", {{.body = m_zip, .stallAt = 5}});
        const auto otherProcess = UpdateInstaller::create({});
        otherProcess->setSettings({m_tree.path("installed/Example.app"), run.root});
        run.start(offer(run.server), m_tree.path("installed/Example.app"));
        QVERIFY(run.server.waitForRequests(1));
        const QString leftOver = run.root + "/00000000-LEFT-OVER";
        QVERIFY(QDir().mkpath(leftOver + "/of/a/killed/process"));
        for (const auto &one : {run.installer, otherProcess})
            one->cleanup();
        QVERIFY(!QFileInfo::exists(leftOver));
        run.server.release();
        QTRY_VERIFY_WITH_TIMEOUT(!run.bundle.isNull(), 60'000);
        otherProcess->cleanup();
        QVERIFY(ZELUpdaterValidateCodeSigning(QUrl::fromLocalFile(run.bundle)));
        run.installer->cleanup();
        QVERIFY(!QFileInfo::exists(run.root));
    }

    void cancelledDownloadEndsSilently()
    {
        Running run;
        run.server.answer("/full.zip",
                          {{.body = m_zip, .framing = TestServer::Framing::Close, .stallAt = 5}});
        const QVariantMap record{{"file", run.server.url("/full.zip")}, {"size", m_zip.size()}};
        run.start({{"update", record}}, {});
        const std::pair expected(qint64(5), qint64(m_zip.size()));
        QTRY_VERIFY(!run.progress.isEmpty() && run.progress.last() == expected);
        run.installer->task()->cancel();
        run.verifyCancelled();
    }

    void cancelEndsAnArchiveToolThatHangs()
    {
        Running run;
        run.server.answer("/full.zip", {{.body = m_zip}});
        const QString started = run.staging.path("started");
        const QString tool = run.staging.write(
            "tool", "#!/bin/sh\ncat >/dev/null; : >'" + started.toUtf8() + "'; exec sleep 1000\n", 0755);
        const auto job = UpdateJob::create({.offer = CheckResult::fromMap(offer(run.server)),
                                            .installedBundle = m_tree.path("installed/Example.app"),
                                            .stagingRoot = run.root,
                                            .archiveTool = tool},
                                           {}, [&](qint64, const QString &) { ++run.calls; });
        job->resume();
        QTRY_VERIFY(QFileInfo::exists(started));
        job->cancel();
        run.verifyCancelled();
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
        Running run;
        run.server.answer("/dropped", {{.body = m_zip, .headers = {{"Transfer-Encoding", "gzip"}}}});
        run.installer->setSettings({{}, run.root, {}});
        for (const auto &[path, end] :
             {std::pair("/dropped", "Error downloading file"), {"/wrong", "MD5 Error"}}) {
            run.installer->setUpdate({{"update", QVariantMap{{"file", run.server.url(path)}}}});
            run.installer->downloadUpdate({});
            QTRY_VERIFY(run.capture.lines("zel.updater").contains(end));
        }
        QVERIFY(run.capture.lines("zel.system").first().contains("/dropped\": "));
    }

    void payloadNames()
    {
        const std::pair<QString, QString> cases[] = {
            {"http://h/a/b.zip?x=/y", "b.zip"},
            {"http://h/a%20b%28.zip", "a b(.zip"},
            {"http://h/a/..%2F..%2Fetc%2Fpasswd", "passwd"},
            {"http://h/a/%2E%2E", "download"},
            {"http://h/folder/", "folder"},
            {"http://h/", "download"},
            {"http://h/x%00y", "xy"},
            {"http://h/" + QString(300, u'\u00e4'), QString(127, u'\u00e4')},
        };
        for (const auto &[url, name] : cases)
            QCOMPARE(payloadName(QUrl(url)), name);
    }

private:
    // Without the hash of a patch, there is none.
    // All signers sign the record; which files it offers the server decides.
    void sign(QVariantMap &record, const Flow &flow, QVariantMap &entry) const
    {
        const auto describe = [](QVariantMap &offered, const QList<Answer> &answers) {
            const QByteArray body = answers.value(0).body;
            for (const auto &[key, value] :
                 {std::pair("sha256", QVariant(sha256(body))), {"size", body.size()}})
                offered.insert(key, offered.value(key, value));
        };
        describe(record, flow.full);
        describe(entry, flow.patch);
        record["patches"] = QVariantList{entry};
        record["identifier"] = "org.example";
        record = signedRecord(QJsonObject::fromVariantMap(record), m_recordSigners).toVariantMap();
    }

    QVariantMap offer(const TestServer &server, const QString &patchHash = {}) const
    {
        const QVariantMap record{
            {"build", 101}, {"file", server.url("/full.zip")}, {"hash", MD5FromData(m_zip)}};
        if (patchHash.isNull())
            return {{"update", record}};
        const QVariantMap patch{{"build", 100}, {"file", server.url("/p")}, {"hash", patchHash}};
        return {{"update", record}, {"patch", patch}};
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
    TestCertificate m_other;
    QList<Signer> m_recordSigners;
    QByteArray m_patch;
    QByteArray m_zip;
    QByteArray m_wholeChunks; // a zip archive whose MD5 is the empty text
};

QTEST_GUILESS_MAIN(tst_UpdateInstaller)
#include "tst_UpdateInstaller.moc"

#include "BundleSeal.h"
#include "FileTree.h"
#include "LogCapture.h"
#include "MD5FromData.h"
#include "PatchBuilder.h"
#include "TemporaryTree.h"
#include "TestCertificate.h"
#include "TestServer.h"
#include "UpdateInstaller.h"
#include "URLSession.h"
#include "ZELUpdaterValidateCodeSigning.h"
#include "ZipMaker.h"

#include "DDLog.h"

#include <QSignalSpy>
#include <QThread>

using namespace zel;
using Answer = TestServer::Answer;

namespace {

// One update: what the server answers, and what must come of it.
struct Flow {
    bool offersPatch = true;
    QList<Answer> patch;
    QList<Answer> full;
    QString patchHash; // null: the key is left out
    QString fullHash;
    QString installed = QStringLiteral("installed/Example.app");
    QStringList signers = {};

    int status = 1;
    QString bundle; // the end of the new bundle's path; null: none
    QByteArrayList requests;
    QString lastLogged; // last entry of the patch log; null: no log
    QStringList logged; // on the info level, cut at the first blank before "=" and after "{"
    QStringList staged; // what the staging folders hold, in the order of the downloads
    bool onMainQueue = true;
};

} // namespace

Q_DECLARE_METATYPE(Flow)

class tst_UpdateInstaller : public QObject
{
    Q_OBJECT

    void makeBundle(const QString &name, const QByteArray &build)
    {
        m_tree.write(name + QStringLiteral("/Contents/Info.plist"),
                     "<plist version=\"1.0\"><dict><key>CFBundleVersion</key><string>" + build
                         + "</string></dict></plist>");
        m_tree.write(name + QStringLiteral("/Contents/MacOS/example"),
                     "#!/bin/sh\necho build " + build + '\n', 0755);
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
            commands += (commands.isEmpty() ? "" : ",") + QByteArray(R"({"actions":["add"],"path":")")
                + path.toUtf8() + "\",\"position\":" + QByteArray::number(payload.size())
                + ",\"length\":" + QByteArray::number(bytes.size()) + '}';
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

    QByteArray zipOf(const QString &bundle, const QByteArray &top) const
    {
        std::vector<ZipItem> items{ZipMaker::folder(top + '/')};
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
        m_signer = makeTestCertificate(m_tree.path(), QStringLiteral("maker"));
        makeBundle(QStringLiteral("installed/Example.app"), "100");
        makeBundle(QStringLiteral("new/Example.app"), "101");
        m_patch = patchTo(QStringLiteral("new/Example.app"));
        m_zip = zipOf(QStringLiteral("new/Example.app"), "Example.app");
    }

    void flows_data()
    {
        QTest::addColumn<Flow>("flow");

        const QString patchHash = MD5FromData(m_patch);
        const QString fullHash = MD5FromData(m_zip);
        const auto row = [&](const char *name, const std::function<void(Flow &)> &change) {
            Flow flow;
            flow.patch = {{.body = m_patch}};
            flow.full = {{.body = m_zip}};
            flow.patchHash = patchHash;
            flow.fullHash = fullHash;
            change(flow);
            QTest::newRow(name) << flow;
        };
        const QStringList afterFull{QStringLiteral("Example.app"), QStringLiteral("full.zip")};
        const QStringList afterPatch{QStringLiteral("Old-100.app"), QStringLiteral("Patched-100.app"),
                                     QStringLiteral("p 1")};
        const QByteArrayList both{"/p%201", "/full.zip"};
        const QStringList stored{QStringLiteral("Download location"), QStringLiteral("temp"),
                                 QStringLiteral("payload")};
        const QStringList patchStart{QStringLiteral("Downloading patch"), QStringLiteral("{")};
        const QStringList patchRun = patchStart + stored + QStringList(QStringLiteral("verifying patch"));
        const QStringList fullRun =
            QStringList{QStringLiteral("Downloading full update"), QStringLiteral("{")} + stored
            + QStringList{QStringLiteral("extracting update"), QStringLiteral("extraction succeeded")};
        const QStringList fallBack =
            QStringList(QStringLiteral("Attempting to download full update after patch failure")) + fullRun;

        row("by patch", [&](Flow &flow) {
            flow.bundle = QStringLiteral("/Patched-100.app");
            flow.requests = {"/p%201"};
            flow.staged = afterPatch;
            flow.logged = patchRun + QStringList(QStringLiteral("patch succeeded"));
        });
        row("by full archive", [&](Flow &flow) {
            flow.offersPatch = false;
            flow.bundle = QStringLiteral("/Example.app");
            flow.requests = {"/full.zip"};
            flow.staged = afterFull;
            flow.logged = fullRun;
        });
        row("a patch with a wrong hash falls back", [&](Flow &flow) {
            flow.patchHash = fullHash;
            flow.bundle = QStringLiteral("/Example.app");
            flow.requests = both;
            flow.staged = QStringList{QStringLiteral("p 1")} + afterFull;
            flow.logged = patchStart + stored + QStringList(QStringLiteral("MD5 Error")) + fallBack;
        });
        row("a patch without a hash falls back, even an empty one", [&](Flow &flow) {
            flow.patch = {{.body = ""}};
            flow.patchHash = QString();
            flow.bundle = QStringLiteral("/Example.app");
            flow.requests = both;
            flow.staged = QStringList{QStringLiteral("p 1")} + afterFull;
        });
        row("a patch that is not found is a wrong file, and falls back", [&](Flow &flow) {
            flow.patch = {{.status = 404, .body = "Not found"}};
            flow.bundle = QStringLiteral("/Example.app");
            flow.requests = both;
            flow.staged = QStringList{QStringLiteral("p 1")} + afterFull;
        });
        row("a patch that does not apply falls back", [&](Flow &flow) {
            const QByteArray broken = patchOfCommands(R"({"actions":["delete"],"path":".."})");
            flow.patch = {{.body = broken}};
            flow.patchHash = MD5FromData(broken);
            flow.bundle = QStringLiteral("/Example.app");
            flow.requests = both;
            flow.lastLogged = QStringLiteral("Patch failed");
            flow.staged = afterPatch + afterFull;
            flow.logged = patchRun + QStringList(QStringLiteral("patch failed")) + fallBack;
        });
        row("a patch whose result is not sealed falls back", [&](Flow &flow) {
            const QByteArray altered = patchTo(QStringLiteral("new/Example.app"), "Contents/extra");
            flow.patch = {{.body = altered}};
            flow.patchHash = MD5FromData(altered);
            flow.bundle = QStringLiteral("/Example.app");
            flow.requests = both;
            flow.lastLogged = QStringLiteral("failed with code signing error");
            flow.staged = afterPatch + afterFull;
            flow.logged = patchRun
                + QStringList{QStringLiteral("patch failed with codesigning error"),
                              QStringLiteral("patch failed")}
                + fallBack;
        });
        row("an installed bundle that cannot be copied falls back", [&](Flow &flow) {
            flow.installed = QStringLiteral("gone/Example.app");
            flow.bundle = QStringLiteral("/Example.app");
            flow.requests = both;
            flow.lastLogged = QStringLiteral("Unable to copy old appliocation to temp folder");
            flow.staged = QStringList{QStringLiteral("p 1")} + afterFull;
            flow.logged = patchRun
                + QStringList{QStringLiteral("Unable to copy old app"), QStringLiteral("patch failed")}
                + fallBack;
        });
        row("a patch whose transfer fails does not fall back", [&](Flow &flow) {
            flow.patch = {{.body = m_patch, .dropAt = 10}};
            flow.status = 0;
            flow.requests = {"/p%201"};
            flow.onMainQueue = false;
            flow.logged = patchStart + QStringList(QStringLiteral("Error downloading file"));
        });
        row("patch and archive with wrong hashes", [&](Flow &flow) {
            flow.patchHash = QString(u'x');
            flow.fullHash = fullHash.toUpper();
            flow.status = 0;
            flow.requests = both;
            flow.staged = {QStringLiteral("p 1"), QStringLiteral("full.zip")};
        });
        row("an empty archive is what an empty hash stands for", [&](Flow &flow) {
            flow.offersPatch = false;
            flow.full = {{.body = ""}};
            flow.fullHash = QStringLiteral("");
            flow.status = 2;
            flow.requests = {"/full.zip"};
        });
        row("an archive that is none removes all staging folders", [&](Flow &flow) {
            flow.offersPatch = false;
            flow.full = {{.body = "no zip"}};
            flow.fullHash = MD5FromData(QByteArray("no zip"));
            flow.status = 2;
            flow.requests = {"/full.zip"};
            flow.logged = fullRun.first(6) + QStringList(QStringLiteral("extraction failed"));
        });
        row("an archive without a bundle", [&](Flow &flow) {
            const QByteArray zip = ZipMaker::make({{.name = "file", .data = "x"}});
            flow.offersPatch = false;
            flow.full = {{.body = zip}};
            flow.fullHash = MD5FromData(zip);
            flow.status = 2;
            flow.requests = {"/full.zip"};
            flow.staged = {QStringLiteral("file"), QStringLiteral("full.zip")};
        });
        row("a patch sealed by a pinned signer", [&](Flow &flow) {
            flow.signers = {m_signer.fingerprint};
            flow.bundle = QStringLiteral("/Patched-100.app");
            flow.requests = {"/p%201"};
            flow.staged = afterPatch;
        });
        row("neither is sealed by the pinned signer", [&](Flow &flow) {
            flow.signers = {QString(64, u'0')};
            flow.status = 2;
            flow.requests = both;
            flow.lastLogged = QStringLiteral("failed with code signing error");
        });
        row("the file is named by the address that answers", [&](Flow &flow) {
            flow.offersPatch = false;
            flow.full = {Answer::redirect(QStringLiteral("/elsewhere/..%2Fnamed.zip?key=1"))};
            flow.bundle = QStringLiteral("/Example.app");
            flow.requests = {"/full.zip", "/elsewhere/..%2Fnamed.zip?key=1"};
            flow.staged = {QStringLiteral("Example.app"), QStringLiteral("named.zip")};
        });
    }

    void flows()
    {
        QFETCH(Flow, flow);
        TestServer server;
        server.answer(QStringLiteral("/p%201"), flow.patch);
        server.answer(QStringLiteral("/full.zip"), flow.full);
        server.answer(QStringLiteral("/elsewhere/..%2Fnamed.zip"), {{.body = m_zip}});
        const TemporaryTree staging;
        const QString root = staging.path(QStringLiteral("it's \"a\" $(staging) folder\n"));

        DDLog::flushLog();
        const LogCapture capture;
        QList<QVariantList> logs;
        std::atomic<int> prepared = 0;
        const auto installer =
            UpdateInstaller::create({.handleLog = [&](const QVariantList &log) { logs.append(log); },
                                     .preparing = [&] { ++prepared; },
                                     .progress = {}});
        installer->setSettings({m_tree.path(flow.installed), root, flow.signers});
        QVariantMap entry{
            {QStringLiteral("build"), QStringLiteral("100/../..")},
            {QStringLiteral("file"), server.url(QStringLiteral("/p%201")).toString(QUrl::FullyEncoded)}};
        if (!flow.patchHash.isNull())
            entry[QStringLiteral("hash")] = flow.patchHash;
        QVariantMap update{
            {QStringLiteral("update"),
             QVariantMap{{QStringLiteral("file"), server.url(QStringLiteral("/full.zip")).toString()},
                         {QStringLiteral("hash"), flow.fullHash}}}};
        if (flow.offersPatch)
            update[QStringLiteral("patch")] = entry;
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

        DDLog::flushLog();
        const QStringList logged = capture.lines("zel.updater");
        for (const QString &line : logged.filter(QStringLiteral(" = ")))
            QVERIFY2(line.contains(QLatin1String(" = ") + root), qPrintable(line));
        if (!flow.logged.isEmpty())
            QCOMPARE(QStringList(logged).replaceInStrings(m_variable, QString()), flow.logged);
        QCOMPARE(prepared.load(), int(logged.count(QStringLiteral("verifying patch"))));
        QVERIFY(!capture.hasMainThreadIn("zel.system")); // long work and its diagnostics are elsewhere
        QCOMPARE(int(status), flow.status);
        QCOMPARE(thread == QThread::currentThread(), flow.onMainQueue);
        QCOMPARE(path.isNull(), flow.bundle.isNull());
        if (!path.isNull()) {
            QVERIFY(path.startsWith(root) && path.endsWith(flow.bundle));
            QVERIFY(ZELUpdaterValidateCodeSigning(QUrl::fromLocalFile(path)));
            QVERIFY(TemporaryTree::contents(path + QStringLiteral("/Contents/MacOS/example"))
                        .contains("build 101"));
        }
        QByteArrayList requests;
        for (const TestServer::Request &request : server.requests())
            requests.append(request.path);
        QCOMPARE(requests, flow.requests);
        QCOMPARE(logs.size(), flow.lastLogged.isNull() ? 0 : 1);
        if (!logs.isEmpty())
            QCOMPARE(logs[0].last().toMap()[QStringLiteral("description")].toString(), flow.lastLogged);
        compareStaged(root, flow.staged);
        QVERIFY(ZELUpdaterValidateCodeSigning(
            QUrl::fromLocalFile(m_tree.path(QStringLiteral("installed/Example.app")))));
        installer->cleanup();
        QVERIFY(!QFileInfo::exists(root));
    }

    void cancelledDownloadEndsSilently()
    {
        TestServer server;
        server.answer(QStringLiteral("/full.zip"), {{.body = m_zip, .stallAt = 5}});
        const TemporaryTree staging;
        const LogCapture capture;
        int calls = 0;
        QList<std::pair<qint64, qint64>> progress;
        const auto installer = UpdateInstaller::create(
            {.handleLog = {}, .preparing = {}, .progress = [&](qint64 received, qint64 expected) {
                 progress.append({received, expected});
             }});
        installer->setSettings({{}, staging.path(QStringLiteral("staging")), {}});
        installer->setUpdate(
            {{QStringLiteral("update"),
              QVariantMap{{QStringLiteral("file"), server.url(QStringLiteral("/full.zip")).toString()}}}});
        installer->downloadUpdate([&](qint64, const QString &) { ++calls; });
        QTRY_VERIFY(!progress.isEmpty() && progress.last() == std::pair(qint64(5), qint64(m_zip.size())));
        installer->task()->cancel();
        const auto cancelled = [&] {
            DDLog::flushLog();
            return capture.lines("zel.updater").contains(QStringLiteral("download was cancelled"));
        };
        QTRY_VERIFY(cancelled());
        QCoreApplication::processEvents();
        QCOMPARE(calls, 0);
        compareStaged(staging.path(QStringLiteral("staging")), {});
    }

    void completionMayBeLeftOut()
    {
        TestServer server;
        server.answer(QStringLiteral("/dropped"), {{.body = m_zip, .dropAt = 5}});
        const TemporaryTree staging;
        const LogCapture capture;
        const auto installer = UpdateInstaller::create({});
        installer->setSettings({{}, staging.path(QStringLiteral("staging")), {}});
        for (const auto &[path, end] :
             {std::pair("/dropped", "Error downloading file"), std::pair("/wrong", "MD5 Error")}) {
            const QVariantMap record{{QStringLiteral("file"), server.url(QLatin1String(path))}};
            installer->setUpdate({{QStringLiteral("update"), record}});
            installer->downloadUpdate({});
            const auto ended = [&] {
                DDLog::flushLog();
                return capture.lines("zel.updater").contains(QLatin1String(end));
            };
            QTRY_VERIFY(ended());
        }
        QVERIFY(capture.lines("zel.system").first().contains(QLatin1String("/dropped\": ")));
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
        row("http://h/..%2F..", "download");
        row("http://h/folder/", "folder");
        row("http://h/", "download");
        row("http://h", "download");
        row("http://h/x%00y", "xy");
    }

    void payloadNames()
    {
        QFETCH(QString, url);
        QFETCH(QString, name);
        QCOMPARE(payloadName(QUrl(url)), name);
    }

    void fractions()
    {
        QCOMPARE(downloadFraction(0, 0), 0.0);
        QCOMPARE(downloadFraction(50, 200), 0.25);
        QCOMPARE(downloadFraction(50, -1), -50.0);
        QVERIFY(qIsInf(downloadFraction(1, 0)));
    }

private:
    void compareStaged(const QString &root, QStringList expected)
    {
        QStringList staged;
        for (const QFileInfo &folder :
             QDir(root).entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)) {
            QVERIFY2(QRegularExpression(QStringLiteral("^[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$"))
                         .match(folder.fileName())
                         .hasMatch(),
                     qPrintable(folder.fileName()));
            QCOMPARE(TemporaryTree::mode(folder.filePath()), 0700);
            staged +=
                QDir(folder.filePath()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
        }
        staged.sort();
        expected.sort();
        QCOMPARE(staged, expected);
    }

    const QRegularExpression m_variable{QStringLiteral(" = .*|(?<=\\{).*"),
                                        QRegularExpression::DotMatchesEverythingOption};
    const TemporaryTree m_tree;
    TestCertificate m_signer;
    QByteArray m_patch;
    QByteArray m_zip;
};

QTEST_GUILESS_MAIN(tst_UpdateInstaller)
#include "tst_UpdateInstaller.moc"

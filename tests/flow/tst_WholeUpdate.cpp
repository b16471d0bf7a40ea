#include "install/MD5FromData.h"
#include "install/StagingFolder.h"
#include "support/TemporaryTree.h"
#include "support/TestCertificate.h"
#include "support/TestServer.h"
#include "support/ZipMaker.h"
#include "ui/ZELProgressIndicator.h"
#include "ui/ZELUpdaterButton.h"
#include "ui/ZELUpdaterHistoryPage.h"
#include "ui/ZELUpdaterPages.h"
#include "ui/ZELUpdaterWindow.h"
#include "updater/ZELUpdater.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QWindow>

using Answer = TestServer::Answer;

namespace {

const Answer Gone{.dropAt = TestServer::BeforeHead};
const Answer Stalled{.stallAt = TestServer::BeforeHead};

/// What the server answers, path by path, and what it offers.
struct Offer {
    QJsonObject record;
    QMap<QString, QList<Answer>> answers;
};

/// A click of the user: on a button of a page, once that page is shown.
struct Click {
    QString page;
    QString button;
};

struct Flow {
    std::function<void(Offer &)> change = {};
    QVariantMap config = {};
    QList<Click> clicks = {};

    QStringList events = {}; // what the host hears
    QStringList pages = {}; // what is shown
    QStringList requests = {}; // what the server hears, sorted; with the keys of their bodies
    QStringList staged = {}; // what the staging folders hold, sorted
};

QString keysOf(const QByteArray &body)
{
    return body.isEmpty() ? QString() : u' ' + QJsonDocument::fromJson(body).object().keys().join(u' ');
}

} // namespace

Q_DECLARE_METATYPE(Flow)

/// Updates between two builds that the publisher's tool released, driven by clicks in the updater's window.
class WholeUpdateTest : public QObject
{
    Q_OBJECT

    static constexpr char Patch[] = "/Example-100-to-101.zelpatch";
    static constexpr char Archive[] = "/Example-101.zip";

private slots:
    void initTestCase()
    {
        qputenv("HOME", QFile::encodeName(m_home.path()));
        makeBundle(100);
        makeBundle(101);
        m_updater->setOnCancel([this] { m_events += "cancel"; });
        m_updater->setOnRetry([this] { retry(); });
        m_updater->window()->contentView()->installEventFilter(this);
    }

    void updates_data()
    {
        QTest::addColumn<Flow>("flow");

        const QString model = ZELUpdater::modelIdentifier().isNull() ? "" : "model ";
        const QString check = "POST /check arch build " + model + "os",
                      notes = "POST /notes.html arch build " + model + "os",
                      ownNotes = "POST /notes.html arch build", patch = QString("GET ") + Patch,
                      archive = QString("GET ") + Archive,
                      log = "POST /wexmoor7/updates/patch/ arch build log os version";
        const QStringList patched{"Example-100-to-101.zelpatch", "Old-100.app", "Patched-100.app"};
        const QStringList unpacked{"Example-101.zip", "Example.app"};
        const Click install{"history", "download"};
        const QStringList toTheEnd{"checking", "history", "download", "updated"};

        QTest::newRow("by patch") << Flow{
            .clicks = {install, {"updated", "cancel"}},
            .events = {"check 1", "choice 2", "download 1 Patched-100.app", "cancel"},
            .pages = toTheEnd,
            .requests = {patch, check, notes},
            .staged = patched};
        QTest::newRow("patch that fails, server gone at the log")
            << Flow{.change =
                        [](Offer &offer) {
                            QJsonObject entry = offer.record["patches"][0].toObject();
                            entry["hash"] = MD5FromData("useless");
                            entry.remove("sha256");
                            entry.remove("size");
                            offer.record["patches"] = QJsonArray{entry};
                            offer.answers[Patch] = {{.body = "useless"}};
                            offer.answers["/wexmoor7/updates/patch/"] = {Gone};
                        },
                    .clicks = {install},
                    .events = {"check 1", "choice 2", "download 1 Example.app"},
                    .pages = toTheEnd,
                    .requests = {patch, archive, check, notes, log},
                    .staged = unpacked};
        QTest::newRow("no update") << Flow{.change = [](Offer &offer) { offer.record["build"] = 100; },
                                           .clicks = {{"noUpdates", "cancel"}},
                                           .events = {"check 2", "cancel"},
                                           .pages = {"checking", "noUpdates"},
                                           .requests = {check}};
        QTest::newRow("server gone at the check, back for the next")
            << Flow{.change = [](Offer &offer) { offer.answers["/check"].prepend(Gone); },
                    .clicks = {{"error", "retry"}, {"history", "skip"}},
                    .events = {"check 0", "retry", "check 1", "choice 1"},
                    .pages = {"checking", "error", "checking", "history"},
                    .requests = {check, check, notes}};
        QTest::newRow("server gone at the notes") // the page asks for them itself
            << Flow{.change = [](Offer &offer) { offer.answers["/notes.html"].prepend(Gone); },
                    .clicks = {{"history", "later"}},
                    .events = {"check 1", "choice 0"},
                    .pages = {"checking", "history"},
                    .requests = {check, ownNotes, notes}};
        QTest::newRow("notes that do not come until the user has cancelled")
            << Flow{.change = [](Offer &offer) { offer.answers["/notes.html"] = {Stalled}; },
                    .clicks = {{"checking", "cancel"}},
                    .events = {"cancel", "check 1"},
                    .pages = {"checking", "history"},
                    .requests = {check, notes}};
        QTest::newRow("server gone at the download")
            << Flow{.change = [](Offer &offer) { offer.answers[Patch] = {{.body = "begin", .dropAt = 2}}; },
                    .clicks = {install, {"error", "cancel"}},
                    .events = {"check 1", "choice 2", "download 0", "cancel"},
                    .pages = {"checking", "history", "download", "error"},
                    .requests = {patch, check, notes}};
        QTest::newRow("cancelled while checking") // the check itself goes on
            << Flow{.change = [](Offer &offer) { offer.answers["/check"] = {Stalled}; },
                    .clicks = {{"checking", "cancel"}},
                    .events = {"cancel", "check 1"},
                    .pages = {"checking", "history"},
                    .requests = {check, notes}};
        QTest::newRow("cancelled while downloading")
            << Flow{.change = [](Offer &offer) { offer.answers[Patch] = {Stalled}; },
                    .clicks = {install, {"download", "cancel"}},
                    .events = {"check 1", "choice 2", "cancel"},
                    .pages = {"checking", "history", "download"},
                    .requests = {patch, check, notes}};
        QTest::newRow("quiet mode") << Flow{.config = {{"mode", 1}},
                                            .clicks = {install},
                                            .events = {"check 1", "choice 2", "download 1 Patched-100.app"},
                                            .pages = {"history", "download", "updated"},
                                            .requests = {patch, check, ownNotes},
                                            .staged = patched};
        const QVariantMap pinned{{"signers", QStringList(m_signer.fingerprint)}};
        QTest::newRow("by patch, pinned")
            << Flow{.config = pinned,
                    .clicks = {install},
                    .events = {"check 1", "choice 2", "download 1 Patched-100.app"},
                    .pages = toTheEnd,
                    .requests = {patch, check, notes},
                    .staged = patched};
        QTest::newRow("a link to a genuine bundle, pinned")
            << Flow{.change =
                        [this](Offer &offer) {
                            const QByteArray zip = archiveWithLink();
                            offer.record.remove("patches");
                            offer.record["hash"] = MD5FromData(zip);
                            offer.record.remove("sha256");
                            offer.record.remove("size");
                            offer.answers[Archive] = {{.body = zip}};
                        },
                    .config = pinned,
                    .clicks = {install},
                    .events = {"check 1", "choice 2", "download 2"},
                    .pages = {"checking", "history", "download", "error"},
                    .requests = {archive, check, notes}};
        QTest::newRow("an archive without integrity, pinned")
            << Flow{.change =
                        [](Offer &offer) {
                            offer.record.remove("patches");
                            offer.record["hash"] = "";
                            offer.record.remove("sha256");
                            offer.answers[Archive] = {{.body = QByteArray(32768, ' ')}};
                        },
                    .config = pinned,
                    .clicks = {install},
                    .events = {"check 1", "choice 2", "download 0"},
                    .pages = {"checking", "history", "download", "error"},
                    .requests = {archive, check, notes}};
        for (const char *key : {"hidechecking", "sheet"})
            QTest::addRow("shown by the host, %s", key) << Flow{.config = {{key, false}},
                                                                .clicks = {{"history", "skip"}},
                                                                .events = {"check 1", "choice 1"},
                                                                .pages = {"checking", "history"},
                                                                .requests = {check, notes}};
    }

    void updates()
    {
        QFETCH(Flow, flow);
        begin(flow);
        m_updater->setUpdate({{"update", "of before"}});
        check();
        QVERIFY(m_updater->update().isEmpty());
        const ZELUpdaterWindow &window = *m_updater->window();
        QCOMPARE(window.isVisible(), flow.config.isEmpty() || flow.config.contains("signers"));
        if (window.isVisible())
            QCOMPARE(window.frame().center(), window.screen()->availableGeometry().center());
        for (const Click &click : flow.clicks)
            QVERIFY2(clicked(click), qPrintable(click.page + u' ' + click.button));
        m_server->release();
        QTRY_COMPARE_WITH_TIMEOUT(m_events, flow.events, 30'000);
        QCOMPARE(m_pages.join(u' '), flow.pages.join(u' '));
        QTRY_COMPARE(requests().join(u'\n'), flow.requests.join(u'\n'));
        for (const TestServer::Request &request : m_server->requests())
            QVERIFY2(!request.body.contains(QFile::encodeName(m_home.path()))
                         && !request.body.contains(QFile::encodeName(m_tree.path())),
                     request.body.constData());
        flow.staged.sort();
        QTRY_COMPARE(staged().join(u' '), flow.staged.join(u' '));
    }

    void progressIsShown_data()
    {
        QTest::addColumn<TestServer::Framing>("framing");
        QTest::addColumn<QString>("text");

        QTest::newRow("size is announced") << TestServer::Framing::Length << "42% completed";
        QTest::newRow("size is unknown") << TestServer::Framing::Close << "0% completed";
    }

    void progressIsShown()
    {
        QFETCH(TestServer::Framing, framing);
        QFETCH(QString, text);
        begin({.change = [=](Offer &offer) {
            QJsonObject entry = offer.record["patches"][0].toObject();
            entry.remove("size"); // which would stand in for what the server does not tell
            offer.record["patches"] = QJsonArray{entry};
            offer.answers[Patch] = {{.body = QByteArray(100, 'x'), .framing = framing, .stallAt = 42}};
        }});
        check();
        QVERIFY(clicked({"history", "download"}));
        QTRY_COMPARE_WITH_TIMEOUT(m_updater->downloadPage()->text()->text(), text, 30'000);
        QVERIFY(!m_updater->downloadPage()->progress()->isIndeterminate());
        QVERIFY(clicked({"download", "cancel"}));
    }

    void sheetStaysWithItsHost()
    {
        begin({.config = {{"sheet", true}}});
        QWidget host;
        host.setGeometry(50, 60, 700, 600);
        host.show();
        m_updater->window()->beginSheet(&host);
        check();
        QVERIFY(clicked({"history", "skip"}));
        QCOMPARE(m_updater->window()->frame(), QRect(0, 0, 500, 470));
        QCOMPARE(m_updater->window()->windowHandle()->transientParent(), host.windowHandle());
        m_updater->window()->endSheet();
    }

    void twoChecksAtOnce()
    {
        begin({});
        check();
        check();
        QTRY_COMPARE_WITH_TIMEOUT(m_events, (QStringList{"check 1", "check 1"}), 30'000);
    }

    void secondUpdateRightAfterTheFirst()
    {
        begin({});
        for (const int round : {1, 2}) {
            check();
            QVERIFY(clicked({"history", "download"}));
            QTRY_COMPARE_WITH_TIMEOUT(m_events.count("download 1 Patched-100.app"), round, 30'000);
        }
        QCOMPARE(QDir(zel::stagingRoot()).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), 2);
        m_updater->cleanup();
        QVERIFY(!QFileInfo::exists(zel::stagingRoot()));
    }

    void visibleWindowStaysWhereItIs()
    {
        begin({});
        m_updater->window()->setFrame({7, 9, 350, 400}, false);
        m_updater->window()->show();
        check();
        QCOMPARE(m_updater->window()->frame(), QRect(7, 9, 350, 400));
        QTRY_COMPARE_WITH_TIMEOUT(m_events, QStringList{"check 1"}, 30'000);
        QTRY_COMPARE(m_updater->window()->frame(), QRect(7 - 75, 9 - 35, 500, 470));
    }

    void slotsThatAHostHasSetAreServed()
    {
        ZELUpdaterView view;
        QLabel label;
        begin({});
        m_updater->setDownloadView(&view);
        m_updater->setProgressText(&label);
        view.show();
        check();
        QVERIFY(clicked({"history", "download"}));
        QTRY_VERIFY_WITH_TIMEOUT(m_events.contains("download 1 Patched-100.app"), 30'000);
        QTRY_VERIFY(view.isHidden());
        QCOMPARE(label.text(), "Preparing update");
        m_updater->setDownloadView(nullptr);
        m_updater->setProgressText(nullptr);
    }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        const QString page = event->type() == QEvent::ChildAdded
            ? pageName(static_cast<QChildEvent *>(event)->child())
            : QString();
        if (!page.isEmpty())
            m_pages += page;
        return QObject::eventFilter(watched, event);
    }

private:
    void makeBundle(int build)
    {
        const QByteArray number = QByteArray::number(build);
        const QString bundle = number + "/Example.app";
        m_tree.write(bundle + "/Contents/Info.plist",
                     "<plist version=\"1.0\"><dict><key>CFBundleVersion</key><string>" + number
                         + "</string></dict></plist>");
        m_tree.write(bundle + "/Contents/MacOS/example", "program " + number.repeated(5000), 0755);
        m_tree.write("notes.html", "<p>notes</p>");
        tool({"sign", m_tree.path(bundle), "--key", m_signer.keyFile, "--cert", m_signer.certificateFile});
        tool({"release", m_tree.path(bundle), m_tree.path("releases"), "--notes", m_tree.path("notes.html")});
    }

    /// The new build, sealed as it is, below a folder, and a link to it in the bundle's place.
    QByteArray archiveWithLink() const
    {
        std::vector<ZipItem> items{ZipMaker::link("Example.app", "d/e/real")};
        const QDir bundle(m_tree.path("101/Example.app"));
        QDirIterator files(bundle.path(), QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString path = files.next();
            items.push_back({.name = "d/e/real/" + bundle.relativeFilePath(path).toUtf8(),
                             .data = TemporaryTree::contents(path),
                             .mode = uint32_t(S_IFREG | TemporaryTree::mode(path))});
        }
        return ZipMaker::make(items);
    }

    void tool(const QStringList &arguments)
    {
        QProcess process;
        process.start(ZELUPDATER, arguments);
        if (!process.waitForFinished(60'000) || process.exitCode() != 0)
            qFatal("%s", process.readAllStandardError().constData());
    }

    /// A fresh server that offers the newest build, and an updater as after its start.
    void begin(const Flow &flow)
    {
        m_server = std::make_unique<TestServer>();
        Offer offer;
        offer.record =
            QJsonDocument::fromJson(m_tree.read("releases/releases.json")).array().last().toObject();
        QJsonObject entry = offer.record["patches"][0].toObject();
        entry["file"] = m_server->url(Patch).toString();
        offer.record["patches"] = QJsonArray{entry};
        offer.record["file"] = m_server->url(Archive).toString();
        offer.record["history"] = m_server->url("/notes.html").toString();
        for (const QString path : {Patch, Archive})
            offer.answers[path] = {{.body = m_tree.read("releases" + path)}};
        offer.answers["/notes.html"] = {{.body = "<p>notes</p>", .headers = {{"Content-Type", "text/html"}}}};
        offer.answers["/check"] = {{}};
        if (flow.change)
            flow.change(offer);
        for (Answer &answer : offer.answers["/check"])
            answer.body = QJsonDocument(QJsonArray{offer.record}).toJson();
        for (auto i = offer.answers.cbegin(); i != offer.answers.cend(); ++i)
            m_server->answer(i.key(), i.value());

        QVariantMap config{{"url", m_server->url("/check").toString()},
                           {"build", 100},
                           {"version", "1.0"},
                           {"path", m_tree.path("100/Example.app")}};
        config.insert(flow.config);
        m_updater->setConfig(config);
        m_updater->cleanup();
        m_updater->window()->hide();
        m_events.clear();
        m_pages.clear();
    }

    void check()
    {
        m_updater->checkForUpdates([this](qint64 status, const QVariantMap &result, const QVariant &) {
            m_events += QString("check %1").arg(status);
            if (status == 2)
                m_updater->showNoUpdates();
            if (status == 0)
                m_updater->showErrorPage();
            if (status != 1)
                return;
            m_updater->setUpdate(result);
            m_updater->showUpdate([this](qint64 choice) { chosen(choice); });
        });
    }

    void retry()
    {
        m_events += "retry";
        check();
    }

    void chosen(qint64 choice)
    {
        m_events += QString("choice %1").arg(choice);
        QCOMPARE(m_updater->currentPage() == m_updater->downloadPage(), choice == 2);
        if (choice != 2)
            return;
        m_updater->downloadUpdate([this](qint64 status, const QString &path) {
            QMetaObject::invokeMethod(this, [=, this] {
                m_events += QString("download %1 %2").arg(status).arg(path.section(u'/', -1)).trimmed();
                status == 1 ? m_updater->showUpdated() : m_updater->showErrorPage();
            });
        });
    }

    bool clicked(const Click &click)
    {
        const QMap<QString, ZELUpdaterButton *> buttons{
            {"checking cancel", m_updater->checkingPage()->cancelButton()},
            {"download cancel", m_updater->downloadPage()->cancelButton()},
            {"noUpdates cancel", m_updater->noUpdatesPage()->cancelButton()},
            {"updated cancel", m_updater->updatedPage()->cancelButton()},
            {"error cancel", m_updater->errorPage()->cancelButton()},
            {"error retry", m_updater->errorPage()->retryButton()},
            {"history download", m_updater->historyPage()->downloadButton()},
            {"history skip", m_updater->historyPage()->skipButton()},
            {"history later", m_updater->historyPage()->laterButton()},
        };
        ZELUpdaterButton *button = buttons[click.page + ' ' + click.button];
        const auto isShown = [&] { return pageName(m_updater->currentPage()) == click.page; };
        if (!QTest::qWaitFor(isShown, 30'000))
            return false;
        // A request that is to be cancelled must have been sent.
        if (!m_server->waitForRequests(click.page == "download" ? 3 : 1))
            return false;
        m_updater->window()->show();
        QTest::mouseClick(button, Qt::LeftButton);
        return true;
    }

    QString pageName(QObject *page) const
    {
        const QMap<QObject *, QString> names{
            {m_updater->checkingPage(), "checking"},   {m_updater->historyPage(), "history"},
            {m_updater->downloadPage(), "download"},   {m_updater->errorPage(), "error"},
            {m_updater->noUpdatesPage(), "noUpdates"}, {m_updater->updatedPage(), "updated"},
        };
        return names[page];
    }

    QStringList requests() const
    {
        QStringList result;
        for (const TestServer::Request &request : m_server->requests())
            result += QString::fromUtf8(request.method + ' ' + request.path) + keysOf(request.body);
        result.sort();
        return result;
    }

    static QStringList staged()
    {
        QStringList result;
        for (const QFileInfo &folder :
             QDir(zel::stagingRoot()).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot))
            result += QDir(folder.filePath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
        // What is built lies in a folder of its own.
        for (const QFileInfo &folder :
             QDir(zel::stagingRoot()).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            for (const QFileInfo &built :
                 QDir(folder.filePath()).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot)) {
                result.removeOne(built.fileName());
                result += QDir(built.filePath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
            }
        }
        result.sort();
        return result;
    }

    const QTemporaryDir m_home;
    TemporaryTree m_tree;
    const TestCertificate m_signer = makeTestCertificate(m_tree.path(), "maker");
    ZELUpdater *const m_updater = ZELUpdater::shared();
    std::unique_ptr<TestServer> m_server;
    QStringList m_events;
    QStringList m_pages;
};

QTEST_MAIN(WholeUpdateTest)
#include "tst_WholeUpdate.moc"

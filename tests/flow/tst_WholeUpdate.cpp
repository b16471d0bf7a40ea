#include "install/MD5FromData.h"
#include "install/StagingFolder.h"
#include "support/TemporaryTree.h"
#include "support/TestCertificate.h"
#include "support/TestServer.h"
#include "ui/ZELProgressIndicator.h"
#include "ui/ZELUpdaterButton.h"
#include "ui/ZELUpdaterHistoryPage.h"
#include "ui/ZELUpdaterPages.h"
#include "ui/ZELUpdaterWindow.h"
#include "updater/ZELUpdater.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QWindow>

using Answer = TestServer::Answer;

namespace {

const Answer Gone{.dropAt = TestServer::BeforeHead};
const Answer Stalled{.stallAt = TestServer::BeforeHead};

// What the server answers, path by path, and what it offers.
struct Offer {
    QJsonObject record;
    QMap<QString, QList<Answer>> answers = {};

    // A key without a value goes.
    void changePatch(const QVariantMap &keys)
    {
        QVariantMap entry = record["patches"].toArray().last().toObject().toVariantMap();
        entry.insert(keys);
        entry.removeIf([](const auto &key) { return !key.value().isValid(); });
        record["patches"] = QJsonArray{QJsonObject::fromVariantMap(entry)};
    }
};

using Change = std::function<void(Offer &)>;

// The server answers at a path in another way.
Change answering(const QString &path, const QList<Answer> &answers)
{
    return [=](Offer &offer) { offer.answers[path] = answers; };
}

// The server is gone at the first request.
Change goneAt(const QString &path)
{
    return [=](Offer &offer) { offer.answers[path].prepend(Gone); };
}

struct Flow {
    Change change;
    QVariantMap config;
    QStringList clicks; // of the user: on a button of a page, once that page is shown
    QStringList events; // what the host hears
    QString pages; // what is shown
    QStringList requests; // what the server hears, sorted; with the keys of their bodies
    QString staged; // what the staging folders hold, sorted
};

QString keysOf(const QByteArray &body)
{
    return body.isEmpty() ? QString() : u' ' + QJsonDocument::fromJson(body).object().keys().join(u' ');
}

} // namespace

// Updates between two builds that the publisher's tool released, driven by clicks in the updater's window.
class WholeUpdateTest : public QObject
{
    Q_OBJECT

    static constexpr char Patch[] = "/Example-100-to-101.2.zelpatch";
    static constexpr char Notes[] = "/Example-101.html";
    static constexpr char Archive[] = "/Example-101.zip";

private slots:
    void initTestCase()
    {
        qputenv("HOME", QFile::encodeName(m_home.path()));
        makeBundle(100);
        makeBundle(101);
        m_updater->setOnCancel([this] { m_events += "cancel"; });
        m_updater->setOnRetry([this] {
            m_events += "retry";
            check();
        });
        m_updater->window()->contentView()->installEventFilter(this);
    }

    void updates_data()
    {
        QTest::addColumn<Flow>("flow");

        const QString facts =
            ZELUpdater::modelIdentifier().isNull() ? "arch build os" : "arch build model os";
        const QString check = "POST /check " + facts, notes = QString("POST ") + Notes + ' ' + facts,
                      ownNotes = QString("POST ") + Notes + " arch build", patch = QString("GET ") + Patch,
                      archive = QString("GET ") + Archive,
                      log = "POST /wexmoor7/updates/patch/ arch build log os version";
        const auto row = [](const QString &name, const Change &change, const QVariantMap &config,
                            const QStringList &clicks, const QStringList &events, const QString &pages,
                            const QStringList &asked, const QString &staged = {}) {
            QTest::newRow(qPrintable(name)) << Flow{change, config, clicks, events, pages, asked, staged};
        };
        const Change nothing = [](Offer &) {};
        const QVariantMap pinned{{"signers", QStringList(m_signer.fingerprint)}};
        const QStringList patched{"check 1", "choice 2", "download 1 Patched-100.app"};
        const QString patchedFiles = "Example-100-to-101.2.zelpatch Old-100.app Patched-100.app";

        row("by patch, pinned", nothing, pinned, {"History: Install", "Updated: Done"},
            patched + QStringList("cancel"), "Checking History Download Updated", {patch, check, notes},
            patchedFiles);
        const auto uselessPatch = [](Offer &offer) {
            offer.changePatch({{"hash", MD5FromData("useless")}, {"sha256", {}}, {"size", {}}});
            offer.answers[Patch] = {{.body = "useless"}};
            offer.answers["/wexmoor7/updates/patch/"] = {Gone};
        };
        row("patch that fails, server gone at the log", uselessPatch, {}, {"History: Install"},
            {"check 1", "choice 2", "download 1 Example.app"}, "Checking History Download Updated",
            {patch, archive, check, notes, log}, "Example-101.zip Example.app");
        row("no update", [](Offer &offer) { offer.record["build"] = 100; }, {}, {"NoUpdates: Done"},
            {"check 2", "cancel"}, "Checking NoUpdates", {check});
        row("server gone at the check, back for the next", goneAt("/check"), {},
            {"Error: Retry", "History: Skip"}, {"check 0", "retry", "check 1", "choice 1"},
            "Checking Error Checking History", {check, check, notes});
        // The page asks for them itself.
        row("server gone at the notes", goneAt(Notes), {}, {"History: Cancel"}, {"check 1", "choice 0"},
            "Checking History", {check, ownNotes, notes});
        row("a download that fails", answering(Patch, {Answer::redirect("file:///x")}), {},
            {"History: Install", "Error: Cancel"}, {"check 1", "choice 2", "download 0", "cancel"},
            "Checking History Download Error", {patch, check, notes});
        for (const QString path : {"/check", "/Example-101.html"}) // the request itself goes on
            row("cancelled at " + path, answering(path, {Stalled}), {}, {"Checking: Cancel"},
                {"cancel", "check 1"}, "Checking History", {check, notes});
        row("cancelled while downloading", answering(Patch, {Stalled}), {},
            {"History: Install", "Download: Cancel"}, {"check 1", "choice 2", "cancel"},
            "Checking History Download", {patch, check, notes});
        row("quiet mode", nothing, {{"mode", 1}}, {"History: Install"}, patched, "History Download Updated",
            {patch, check, ownNotes}, patchedFiles);
        row("a record without a signature, pinned", [](Offer &offer) { offer.record.remove("signed"); },
            pinned, {"Error: Cancel"}, {"check 0", "cancel"}, "Checking Error", {check});
        row("notes that are not the publisher's, pinned", answering(Notes, {{.body = "<p>buy</p>"}}), pinned,
            {"History: Install"}, patched, "Checking History Download Updated", {patch, check, notes, notes},
            patchedFiles);
        for (const QString key : {"hidechecking", "sheet"})
            row("shown by the host, " + key, nothing, {{key, false}}, {"History: Skip"},
                {"check 1", "choice 1"}, "Checking History", {check, notes});
    }

    void updates()
    {
        QFETCH(Flow, flow);
        begin(flow.config, flow.change);
        m_updater->setUpdate({{"update", "of before"}});
        check();
        QVERIFY(m_updater->update().isEmpty());
        const ZELUpdaterWindow &window = *m_updater->window();
        QCOMPARE(window.isVisible(), flow.config.isEmpty() || flow.config.contains("signers"));
        if (window.isVisible())
            QCOMPARE(window.frame().center(), window.screen()->availableGeometry().center());
        for (const QString &click : flow.clicks)
            QVERIFY2(clicked(click), qPrintable(click));
        m_server->release();
        QTRY_COMPARE_WITH_TIMEOUT(m_events, flow.events, 30'000);
        QCOMPARE(m_pages.join(u' '), flow.pages);
        flow.requests.sort();
        QTRY_COMPARE(requests().join(u'\n'), flow.requests.join(u'\n'));
        for (const TestServer::Request &request : m_server->requests())
            QVERIFY2(!request.body.contains(QFile::encodeName(m_home.path()))
                         && !request.body.contains(QFile::encodeName(m_tree.path())),
                     request.body.constData());
        QTRY_COMPARE(staged().join(u' '), flow.staged);
    }

    void progressIsShown()
    {
        for (const auto &[framing, text] : {std::pair(TestServer::Framing::Length, "42% completed"),
                                            {TestServer::Framing::Close, "0% completed"}}) {
            const Answer half{.body = QByteArray(100, 'x'), .framing = framing, .stallAt = 42};
            begin({}, [&](Offer &offer) {
                offer.changePatch({{"size", {}}}); // which would stand in for what the server does not tell
                offer.answers[Patch] = {half};
            });
            check();
            QVERIFY(clicked("History: Install"));
            QTRY_COMPARE_WITH_TIMEOUT(m_updater->downloadPage()->text()->text(), text, 30'000);
            QVERIFY(!m_updater->downloadPage()->progress()->isIndeterminate());
            QVERIFY(clicked("Download: Cancel"));
        }
    }

    void sheetStaysWithItsHost()
    {
        begin({{"sheet", true}});
        QWidget host;
        host.setGeometry(50, 60, 700, 600);
        host.show();
        m_updater->window()->beginSheet(&host);
        check();
        QVERIFY(clicked("History: Skip"));
        QCOMPARE(m_updater->window()->frame(), QRect(0, 0, 500, 470));
        QCOMPARE(m_updater->window()->windowHandle()->transientParent(), host.windowHandle());
        m_updater->window()->endSheet();
    }

    void twoChecksAtOnce()
    {
        begin();
        check();
        check();
        QTRY_COMPARE_WITH_TIMEOUT(m_events, (QStringList{"check 1", "check 1"}), 30'000);
    }

    void secondUpdateRightAfterTheFirst()
    {
        begin();
        for (const int round : {1, 2}) {
            check();
            QVERIFY(clicked("History: Install"));
            QTRY_COMPARE_WITH_TIMEOUT(m_events.count("download 1 Patched-100.app"), round, 30'000);
        }
        QCOMPARE(QDir(zel::stagingRoot()).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), 2);
        m_updater->cleanup();
        QVERIFY(!QFileInfo::exists(zel::stagingRoot()));
    }

    void visibleWindowStaysWhereItIs()
    {
        begin();
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
        begin();
        m_updater->setDownloadView(&view);
        m_updater->setProgressText(&label);
        view.show();
        check();
        QVERIFY(clicked("History: Install"));
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
        tool({"release", m_tree.path(bundle), m_tree.path("releases"), "--notes", m_tree.path("notes.html"),
              "--key", m_signer.keyFile, "--cert", m_signer.certificateFile});
    }

    void tool(const QStringList &arguments)
    {
        QProcess process;
        process.start(ZELUPDATER, arguments);
        if (!process.waitForFinished(60'000) || process.exitCode() != 0)
            qFatal("%s", process.readAllStandardError().constData());
    }

    // A fresh server that offers the newest build, and an updater as after its start.
    void begin(
        const QVariantMap &config = {}, const Change &change = [](Offer &) {})
    {
        m_server = std::make_unique<TestServer>();
        const QJsonDocument feed = QJsonDocument::fromJson(m_tree.read("releases/releases.json"));
        Offer offer{feed.array().last().toObject()};
        offer.changePatch({{"file", m_server->url(Patch).toString()}});
        offer.record["file"] = m_server->url(Archive).toString();
        offer.record["history"] = m_server->url(Notes).toString();
        for (const QString path : {Patch, Archive})
            offer.answers[path] = {{.body = m_tree.read("releases" + path)}};
        offer.answers[Notes] = {{.body = "<p>notes</p>", .headers = {{"Content-Type", "text/html"}}}};
        offer.answers["/check"] = {{}};
        change(offer);
        for (Answer &answer : offer.answers["/check"])
            answer.body = QJsonDocument(QJsonArray{offer.record}).toJson();
        for (auto i = offer.answers.cbegin(); i != offer.answers.cend(); ++i)
            m_server->answer(i.key(), i.value());

        QVariantMap all{{"url", m_server->url("/check").toString()},
                        {"build", 100},
                        {"version", "1.0"},
                        {"path", m_tree.path("100/Example.app")}};
        all.insert(config);
        m_updater->setConfig(all);
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

    // Clicks on a button of a page, named as in "Error: Retry", once that page is shown.
    bool clicked(const QString &click)
    {
        const QString page = click.section(": ", 0, 0);
        // A request that is to be cancelled must have been sent.
        if (!QTest::qWaitFor([&] { return pageName(m_updater->currentPage()) == page; }, 30'000)
            || !m_server->waitForRequests(page == "Download" ? 3 : 1))
            return false;
        m_updater->window()->show();
        for (ZELUpdaterButton *button : m_updater->currentPage()->findChildren<ZELUpdaterButton *>()) {
            if (button->label() != click.section(": ", 1))
                continue;
            QTest::mouseClick(button, Qt::LeftButton);
            return true;
        }
        return false;
    }

    // "Checking" for a ZELUpdaterCheckingPage; nothing for what is no page.
    static QString pageName(const QObject *object)
    {
        const QString type = object ? object->metaObject()->className() : "";
        return type.endsWith("Page") ? type.sliced(10).chopped(4) : QString();
    }

    QStringList requests() const
    {
        QStringList result;
        for (const TestServer::Request &request : m_server->requests())
            result += QString::fromUtf8(request.method + ' ' + request.path) + keysOf(request.body);
        result.sort();
        return result;
    }

    // What is built lies in a folder of its own.
    static QStringList staged()
    {
        QStringList result;
        const auto all = QDir::AllEntries | QDir::NoDotAndDotDot;
        for (const QFileInfo &folder : QDir(zel::stagingRoot()).entryInfoList(all))
            for (const QFileInfo &item : QDir(folder.filePath()).entryInfoList(all))
                result += item.isDir() ? QDir(item.filePath()).entryList(all) : QStringList(item.fileName());
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

#include "support/NotesTest.h"
#include "support/TestServer.h"
#include "ui/ZELUpdaterWindow.h"

#include <QTimer>
#include <QWebEngineProfile>
#include <QWindow>

#include <unistd.h>

// Shows real pages of a real server in the real web engine.
class tst_ReleaseNotes : public NotesTest
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QGuiApplication::setApplicationDisplayName("Example");
        takeLinks();
    }
    void init() { begin(); }
    void cleanup() { m_page.reset(); }

    void engineWaitsUntilNotesAreShown()
    {
        QVERIFY(!m_page->webview());
        QVERIFY(loaded("<p>notes</p>"));
        QTRY_COMPARE(m_page->webview()->geometry(), QRect(0, 0, 500, 470 - 96));
        QVERIFY(m_page->webview()->page()->profile()->isOffTheRecord());
    }

    void hostsViewIsNamedWhileItExists()
    {
        auto view = std::make_unique<QWebEngineView>();
        m_page->setWebview(view.get());
        QCOMPARE(m_page->webview(), view.get());
        view.reset();
        QCOMPARE(m_page->webview(), nullptr);
    }

    void postIsShown()
    {
        TestServer server;
        TestServer other;
        server.answer("/notes",
                      {{.body = "<p id=a>Grüße</p><img src=/own.png><img src='"
                            + other.url("/other.png").toEncoded() + "'>",
                        .headers = {{"Content-Type", "text/html; charset=utf-8"}}}});
        server.answer("/own.png", {{.body = picture()}});
        QVERIFY(loaded([&] { m_page->loadURL(server.url("/notes"), R"({"build":100})"); }));
        QCOMPARE(text("document.getElementById('a').textContent"), "Grüße");
        QCOMPARE(text("document.images[0].naturalWidth"), "7");
        QCOMPARE(other.requests().size(), 0);
        const TestServer::Request request = server.requests().constFirst();
        QCOMPARE(request.method, "POST");
        QCOMPARE(request.body, R"({"build":100})");
        for (const TestServer::Request &each : server.requests())
            QCOMPARE(each.headers["user-agent"], "corrand");
        QCOMPARE(text("getComputedStyle(document.getElementById('a')).webkitUserSelect"), "none");
    }

    void versionOfTheRecordIsMadeSafe()
    {
        const QString hostile = "<img src=x>\u202E\n" + QString(5000, 'A');
        m_page->updateButtons({{"update", QVariantMap{{"version", hostile}}}});
        const QString shown = summary().constFirst();
        QVERIFY(shown.size() < 60 && shown.startsWith("<img src=x>") && !shown.contains(u'\u202E')
                && !shown.contains(u'\n'));
        m_page->updateButtons({{"update", QVariantMap{{"build", 150}}}});
        QCOMPARE(summary().constFirst(), "150");
    }

    void engineIsLeftAloneWhereItWouldEndTheProcess_data()
    {
        const Table<QByteArray, QByteArray> row; // a variable of the environment, and its value
        if (geteuid() == 0)
            row("superuser", "QTWEBENGINE_DISABLE_SANDBOX", {});
        row("no program", "QTWEBENGINEPROCESS_PATH", "/nonexistent");
        row("no program but a folder", "QTWEBENGINEPROCESS_PATH", "/");
        row("no resources", "QTWEBENGINE_RESOURCES_PATH", "/nonexistent");
    }

    void engineIsLeftAloneWhereItWouldEndTheProcess()
    {
        const auto [variable, value] = Table<QByteArray, QByteArray>::current();
        const auto set = [name = variable.constData()](const QByteArray &text) {
            text.isNull() ? qunsetenv(name) : qputenv(name, text);
        };
        const auto restore = qScopeGuard([=, before = qgetenv(variable.constData())] { set(before); });
        set(value);
        m_page->loadHTML("<p>notes</p>");
        QVERIFY(!m_page->webview());
        QVERIFY(summaryIsShown());
    }

    void failureShowsNothing()
    {
        const QUrl nobodyAnswers = TestServer().url("/notes"); // the server is gone by then
        for (const QUrl &address : {nobodyAnswers, QUrl(), QUrl("file:///etc/hostname")}) {
            QVERIFY(loaded("<p>notes of another build</p>"));
            QTRY_VERIFY(!summaryIsShown());
            m_page->loadURL(address, "{}");
            QTRY_COMPARE(text("document.body.innerText"), QString());
            QTRY_VERIFY(summaryIsShown());
        }
    }

    void lateNotesAreGivenUp_data()
    {
        const Table<qsizetype, QString> row; // where the server stalls, and what is shown then
        row("before they begin", TestServer::BeforeHead, "");
        row("in the midst", 1000, "notes");
    }

    void lateNotesAreGivenUp()
    {
        const auto [stallAt, shown] = Table<qsizetype, QString>::current();
        TestServer server;
        server.answer("/notes",
                      {{.body = "<p>notes</p>" + QByteArray(2000, ' '),
                        .headers = {{"Content-Type", "text/html"}},
                        .stallAt = stallAt}});
        QVERIFY(loaded(shown.isEmpty() ? "<p>notes of another build</p>" : ""));
        QTRY_COMPARE(summaryIsShown(), !shown.isEmpty());
        m_page->loadURL(server.url("/notes"), "{}");
        QTRY_COMPARE(server.requests().size(), 1);
        if (!shown.isEmpty())
            QTRY_COMPARE(text("document.body.innerText"), shown);
        auto *deadline = webPage().findChild<QTimer *>("deadline");
        QVERIFY(deadline->isActive());
        deadline->start(0);
        QTRY_COMPARE(summaryIsShown(), shown.isEmpty());
        QTRY_COMPARE(text("document.readyState"), "complete");
        QCOMPARE(text("document.body.innerText"), shown);
    }

    void endlessNotesAreGivenUp()
    {
        TestServer server;
        server.answer("/notes",
                      {{.body = QByteArray("<p>notes</p>").repeated(1000),
                        .headers = {{"Content-Type", "text/html"}},
                        .framing = TestServer::Framing::Close,
                        .endless = TestServer::Endless::Body}});
        QVERIFY(loaded("<p>notes of another build</p>"));
        QTRY_VERIFY(!summaryIsShown());
        m_page->loadURL(server.url("/notes"), "{}");
        // Before the deadline, which would show what has come.
        QTRY_VERIFY_WITH_TIMEOUT(summaryIsShown() && !webPage().isLoading(), 110'000);
        QVERIFY(loaded("<p>notes</p>"));
        QTRY_VERIFY(!summaryIsShown());
    }

    void htmlIsShown_data()
    {
        const Table<QByteArray, QString, bool> row; // its text; do name and version stand for it?
        row("text", "<p>Grüße — 更新</p>", "Grüße — 更新", false);
        row("a picture", "<svg></svg>", "", false);
        row("an empty page", "<html><body> <p></p></body></html>", "", true);
        row("none", "", "", true);
        row("not UTF-8", "<p>Gr\xfc\xdf", "", true);
        row("cut within a character", "<p>Gr\xc3", "", true);
        row("beyond 2 MB",
            "<p>begin</p><img width=1 height=1 src='data:image/png;base64," + QByteArray(3'000'000, 'A')
                + "'><p>end</p>",
            "begin end", false);
    }

    void htmlIsShown()
    {
        const auto [html, shown, isSummaryShown] = Table<QByteArray, QString, bool>::current();
        QVERIFY(summaryIsShown());
        QVERIFY(loaded(isSummaryShown ? "<p>notes of another build</p>" : ""));
        QTRY_COMPARE(summaryIsShown(), !isSummaryShown);
        QVERIFY(loaded(html));
        QTRY_COMPARE(summaryIsShown(), isSummaryShown);
        QCOMPARE(text("document.body.innerText").simplified(), shown);
        QCOMPARE(summary(), (QStringList{"1.5", "Example"}));
    }

    void styleIsDarkUnlessThePageHasOne_data()
    {
        const Table<QByteArray, QString, QString> row; // the colours of text and link
        const char *light = "rgb(255, 255, 255)", *dark = "rgb(0, 0, 0)";
        const char *lightLink = "rgb(158, 158, 255)", *darkLink = "rgb(0, 0, 238)";
        row("none", "", light, lightLink); // 14.5:1 and 5.9:1 on the window
        row("rules", "<style>body{color:#123456} a{color:#654321}</style>", "rgb(18, 52, 86)",
            "rgb(101, 67, 33)");
        row("attributes", "<body text=red link=green>", "rgb(255, 0, 0)", "rgb(0, 128, 0)");
        row("light background", "<style>body{background:#fff}</style>", dark, darkLink);
        row("dark background", "<style>body{background:#111}</style>", light, lightLink);
        row("light scheme", "<meta name=color-scheme content=light>", dark, darkLink);
    }

    void styleIsDarkUnlessThePageHasOne()
    {
        const auto [html, textColour, linkColour] = Table<QByteArray, QString, QString>::current();
        QVERIFY(loaded(html + "<p>text <a href='http://example.invalid'>link</a></p>"));
        QCOMPARE(text("getComputedStyle(document.body).color"), textColour);
        QCOMPARE(text("getComputedStyle(document.querySelector('a')).color"), linkColour);
    }

    void upperEdgeMovesTheWindow_data()
    {
        // Where the mouse is pressed, how it moves, and whether the window does.
        const Table<int, QPoint, bool> row;
        row("drag at the edge", 10, {60, 40}, true);
        row("drag below it", 100, {60, 40}, false);
        row("click at the edge", 10, {2, 2}, false);
    }

    void upperEdgeMovesTheWindow()
    {
        const auto [from, way, moves] = Table<int, QPoint, bool>::current();
        ZELUpdaterWindow window;
        m_page->setParent(window.contentView());
        const auto takeOut = qScopeGuard([this] { m_page->setParent(nullptr); });
        m_page->setGeometry(0, 0, 350, 450);
        m_page->show();
        window.show();
        QVERIFY(loaded("<p>notes</p>" + linkTo("http://example.invalid/", "draggable=false")));
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QTRY_VERIFY(!summaryIsShown());
        const QPoint place = window.pos();
        const QPoint start(100, from);
        QTest::mousePress(window.windowHandle(), Qt::LeftButton, {}, start);
        QTest::mouseMove(window.windowHandle(), start + way);
        QTest::mouseRelease(window.windowHandle(), Qt::LeftButton, {}, place + start + way - window.pos());
        QCOMPARE(window.pos(), moves ? place + way : place);
        const qsizetype clicks = moves ? 1 : 2; // the drag that moves is no click
        click(); // to know when what came before has arrived
        QTRY_VERIFY(m_opened.size() >= clicks);
        QCOMPARE(m_opened.size(), clicks);
    }

public slots:
    void opened(const QUrl &url) { m_opened += url.toString(); }

private:
    QWidget *summaryWidget() { return m_page->findChild<QLabel *>()->parentWidget(); }
    bool summaryIsShown() { return summaryWidget()->isVisible(); }

    // The texts that stand for the notes.
    QStringList summary()
    {
        QStringList texts;
        for (const QLabel *label : summaryWidget()->findChildren<QLabel *>())
            texts += label->text();
        return texts;
    }
};

QTEST_MAIN(tst_ReleaseNotes)
#include "tst_ReleaseNotes.moc"

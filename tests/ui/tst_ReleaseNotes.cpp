#include "common/WireValues.h"
#include "notes/NotesReach.h"
#include "support/TestServer.h"
#include "ui/ZELUpdaterButton.h"
#include "ui/ZELUpdaterHistoryPage.h"
#include "ui/ZELUpdaterWindow.h"

#include <QBuffer>
#include <QDesktopServices>
#include <QLabel>
#include <QNetworkProxy>
#include <QSignalSpy>
#include <QTemporaryFile>
#include <QTest>
#include <QTimer>
#include <QWebEnginePage>
#include <QWebEngineProfile>
#include <QWebEngineScript>
#include <QWebEngineView>

#include <unistd.h>

namespace {

const QString Marker = "http://example.invalid/marker";

QByteArray picture()
{
    QByteArray data;
    QBuffer buffer(&data);
    QImage(7, 5, QImage::Format_RGB32).save(&buffer, "png");
    return data;
}

/// Stands for the open network while it exists: a proxy that answers for every name.
class OpenNetwork
{
public:
    OpenNetwork()
    {
        const QUrl url = server.url("/");
        QNetworkProxy::setApplicationProxy(
            {QNetworkProxy::HttpProxy, url.host(), quint16(url.port())}); // loopback goes past it
    }
    ~OpenNetwork() { QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy); }

    TestServer server;
};

} // namespace

/// Shows real pages of a real server in the real web engine.
class tst_ReleaseNotes : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QGuiApplication::setApplicationDisplayName("Example");
        for (const char *scheme : {"http", "https", "mailto", "file", "ftp"})
            QDesktopServices::setUrlHandler(QString::fromLatin1(scheme), this, "opened");
    }

    void init()
    {
        m_opened.clear();
        m_page = std::make_unique<ZELUpdaterHistoryPage>();
        m_page->resize(500, 470);
        m_page->updateButtons({{"update", QVariantMap{{"version", "1.5"}, {"build", 150}}}});
        m_page->show();
    }

    void cleanup() { m_page.reset(); }

    void addressesAreJudged_data()
    {
        QTest::addColumn<bool>("isPublic");

        const auto rows = [](bool isPublic, const char *hosts) {
            for (const QByteArray &host : QByteArray(hosts).split(' '))
                QTest::newRow(host.constData()) << isPublic;
        };
        rows(true,
             "example.com 1.2.3.4 [2606:4700::1111] [::ffff:8.8.8.8] 172.32.0.1 local.example "
             "9gag.com");
        rows(false,
             "localhost LOCALHOST. a.localhost printer nas.local router.lan localhost.localdomain "
             "1.0.0.127.in-addr.arpa 127.0.0.1 127.1 2130706433 0x7f000001 0x7f.1 0177.0.0.1 0 "
             "127.0.0.1. 10.1.2.3 172.16.0.1 172.31.255.255 192.168.1.1 169.254.169.254 100.64.0.1 "
             "224.0.0.1 255.255.255.255 [::1] [::] [fe80::1] [fd00::1] [ff02::1] [::ffff:127.0.0.1] "
             "[::ffff:c0a8:101] [::127.0.0.1] [64:ff9b::7f00:1] [2002:7f00:1::] 1.2.3.4.5");
    }

    void addressesAreJudged()
    {
        QFETCH(bool, isPublic);
        const QUrl url("http://" + QByteArray(QTest::currentDataTag()));
        zel::NotesReach fromOutside;
        fromOutside.start(QUrl("https://notes.example/"));
        QCOMPARE(fromOutside.allows(url), isPublic);
        zel::NotesReach fromThere;
        fromThere.start(url);
        QCOMPARE(fromThere.allows(url), zel::isWebAddress(url));
        QCOMPARE(fromThere.allows(QUrl("http://127.0.0.1:81")), false);
        fromThere.follow(QUrl("https://notes.example/"));
        QCOMPARE(fromThere.allows(url), isPublic);
    }

    void engineWaitsUntilNotesAreShown()
    {
        QVERIFY(!m_page->webview());
        QVERIFY(loaded([&] { m_page->loadHTML("<p>notes</p>"); }));
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

    void notesOfTheOpenNetworkAreShown()
    {
        OpenNetwork network;
        TestServer &server = network.server;
        server.answer("http://notes.example/",
                      {TestServer::Answer::redirect("http://other.example/notes", 303)});
        server.answer(
            "http://other.example/notes",
            {{.body = "<link rel=stylesheet href=style.css><img src='http://pictures.example/a'><p>notes</p>",
              .headers = {{"Content-Type", "text/html"}, {"Content-Security-Policy", "default-src http:"}}}});
        server.answer("http://other.example/style.css",
                      {{.body = "p{margin:77px}", .headers = {{"Content-Type", "text/css"}}}});
        server.answer("http://pictures.example/a", {TestServer::Answer::redirect("b")});
        server.answer("http://pictures.example/b", {{.body = picture()}});
        QVERIFY(loaded([&] { m_page->loadURL(QUrl("http://notes.example/"), "{}"); }));
        QCOMPARE(text("document.images[0].naturalWidth"), "7");
        QCOMPARE(text("getComputedStyle(document.querySelector('p')).marginTop"), "77px");
    }

    void nameAndVersionStandForNotes_data()
    {
        QTest::addColumn<QByteArray>("html");
        QTest::addColumn<bool>("isShown");

        QTest::newRow("nothing") << QByteArray() << true;
        QTest::newRow("not UTF-8") << QByteArray("<p>Gr\xfc\xdf") << true;
        QTest::newRow("an empty page") << QByteArray("<html><body> <p></p></body></html>") << true;
        QTest::newRow("a text") << QByteArray("notes") << false;
        QTest::newRow("a picture") << QByteArray("<svg></svg>") << false;
    }

    void nameAndVersionStandForNotes()
    {
        QFETCH(QByteArray, html);
        QFETCH(bool, isShown);
        QVERIFY(summaryIsShown());
        QVERIFY(loaded([&] { m_page->loadHTML(isShown ? "<p>notes of another build</p>" : ""); }));
        QTRY_COMPARE(summaryIsShown(), !isShown);
        QVERIFY(loaded([&] { m_page->loadHTML(html); }));
        QTRY_COMPARE(summaryIsShown(), isShown);
        QCOMPARE(summary(), (QStringList{"Example", "1.5"}));
    }

    void versionOfTheRecordIsMadeSafe()
    {
        const QString hostile = "<img src=x>\u202E\n" + QString(5000, 'A');
        m_page->updateButtons({{"update", QVariantMap{{"version", hostile}}}});
        const QString shown = summary().constLast();
        QVERIFY(shown.size() < 60 && shown.startsWith("<img src=x>") && !shown.contains(u'\u202E')
                && !shown.contains(u'\n'));
        m_page->updateButtons({{"update", QVariantMap{{"build", 150}}}});
        QCOMPARE(summary().constLast(), "150");
    }

    void engineIsLeftAloneWhereItWouldEndTheProcess_data()
    {
        QTest::addColumn<QByteArray>("variable");
        QTest::addColumn<QByteArray>("value");

        if (geteuid() == 0)
            QTest::newRow("superuser") << QByteArray("QTWEBENGINE_DISABLE_SANDBOX") << QByteArray();
        QTest::newRow("no program") << QByteArray("QTWEBENGINEPROCESS_PATH") << QByteArray("/nonexistent");
        QTest::newRow("no program but a folder") << QByteArray("QTWEBENGINEPROCESS_PATH") << QByteArray("/");
        QTest::newRow("no resources")
            << QByteArray("QTWEBENGINE_RESOURCES_PATH") << QByteArray("/nonexistent");
    }

    void engineIsLeftAloneWhereItWouldEndTheProcess()
    {
        QFETCH(QByteArray, variable);
        QFETCH(QByteArray, value);
        const QByteArray before = qgetenv(variable.constData());
        const auto restore = qScopeGuard([&] {
            before.isNull() ? qunsetenv(variable.constData()) : qputenv(variable.constData(), before);
        });
        value.isNull() ? qunsetenv(variable.constData()) : qputenv(variable.constData(), value);
        m_page->loadHTML("<p>notes</p>");
        QVERIFY(!m_page->webview());
        QVERIFY(summaryIsShown());
    }

    void failureShowsNothing_data()
    {
        QTest::addColumn<QUrl>("address");

        QTest::newRow("nobody answers") << TestServer().url("/notes"); // the server is gone by then
        QTest::newRow("no address") << QUrl();
        QTest::newRow("another scheme") << QUrl("file:///etc/hostname");
    }

    void failureShowsNothing()
    {
        QFETCH(QUrl, address);
        QVERIFY(loaded([&] { m_page->loadHTML("<p>notes of another build</p>"); }));
        QTRY_VERIFY(!summaryIsShown());
        m_page->loadURL(address, "{}");
        QTRY_COMPARE(text("document.body.innerText"), QString());
        QTRY_VERIFY(summaryIsShown());
    }

    void lateNotesAreGivenUp_data()
    {
        QTest::addColumn<qsizetype>("stallAt");
        QTest::addColumn<QString>("shown");

        QTest::newRow("before they begin") << TestServer::BeforeHead << "";
        QTest::newRow("in the midst") << qsizetype(1000) << "notes";
    }

    void lateNotesAreGivenUp()
    {
        QFETCH(qsizetype, stallAt);
        QFETCH(QString, shown);
        TestServer server;
        server.answer("/notes",
                      {{.body = "<p>notes</p>" + QByteArray(2000, ' '),
                        .headers = {{"Content-Type", "text/html"}},
                        .stallAt = stallAt}});
        QVERIFY(loaded([&] { m_page->loadHTML(shown.isEmpty() ? "<p>notes of another build</p>" : ""); }));
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
        QVERIFY(loaded([&] { m_page->loadHTML("<p>notes of another build</p>"); }));
        QTRY_VERIFY(!summaryIsShown());
        m_page->loadURL(server.url("/notes"), "{}");
        // Before the deadline, which would show what has come.
        QTRY_VERIFY_WITH_TIMEOUT(summaryIsShown(), 110'000);
        QVERIFY(loaded([&] { m_page->loadHTML("<p>notes</p>"); }));
        QTRY_VERIFY(!summaryIsShown());
    }

    void htmlIsShown_data()
    {
        QTest::addColumn<QByteArray>("html");
        QTest::addColumn<QString>("shown");

        QTest::newRow("text") << QByteArray("<p>Grüße — 更新</p>") << "Grüße — 更新";
        QTest::newRow("not UTF-8") << QByteArray("<p>Gr\xfc\xdf"
                                                 "e</p>")
                                   << "";
        QTest::newRow("cut within a character") << QByteArray("<p>Gr\xc3") << "";
        QTest::newRow("none") << QByteArray() << "";
        QTest::newRow("beyond 2 MB") << "<p>begin</p><img width=1 height=1 src='data:image/png;base64,"
                + QByteArray(3'000'000, 'A') + "'><p>end</p>"
                                     << "begin end";
    }

    void htmlIsShown()
    {
        QFETCH(QByteArray, html);
        QFETCH(QString, shown);
        QVERIFY(loaded([&] { m_page->loadHTML("<p>before</p>"); }));
        QVERIFY(loaded([&] { m_page->loadHTML(html); }));
        QCOMPARE(text("document.body.innerText").simplified(), shown);
    }

    void styleIsDarkUnlessThePageHasOne_data()
    {
        QTest::addColumn<QByteArray>("html");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("link");

        const char *light = "rgb(255, 255, 255)";
        QTest::newRow("none") << QByteArray() << light
                              << "rgb(158, 158, 255)"; // 14.5:1 and 5.9:1 on the window
        QTest::newRow("rules") << QByteArray("<style>body{color:#123456} a{color:#654321}</style>")
                               << "rgb(18, 52, 86)"
                               << "rgb(101, 67, 33)";
        QTest::newRow("attributes") << QByteArray("<body text=red link=green>") << "rgb(255, 0, 0)"
                                    << "rgb(0, 128, 0)";
        QTest::newRow("light background")
            << QByteArray("<style>body{background:#fff}</style>") << "rgb(0, 0, 0)"
            << "rgb(0, 0, 238)";
        QTest::newRow("dark background")
            << QByteArray("<style>body{background:#111}</style>") << light << "rgb(158, 158, 255)";
        QTest::newRow("light scheme")
            << QByteArray("<meta name=color-scheme content=light>") << "rgb(0, 0, 0)"
            << "rgb(0, 0, 238)";
    }

    void styleIsDarkUnlessThePageHasOne()
    {
        QFETCH(QByteArray, html);
        QVERIFY(loaded(
            [&] { m_page->loadHTML(html + "<p>text <a href='http://example.invalid'>link</a></p>"); }));
        QTEST(text("getComputedStyle(document.body).color"), "text");
        QTEST(text("getComputedStyle(document.querySelector('a')).color"), "link");
    }

    void linksOpenOutside_data()
    {
        QTest::addColumn<QByteArray>("html");
        QTest::addColumn<Qt::MouseButton>("button");
        QTest::addColumn<Qt::KeyboardModifiers>("modifiers");
        QTest::addColumn<QString>("opened");

        const auto row = [](const char *name, const QByteArray &html, const QString &opened,
                            Qt::MouseButton button = Qt::LeftButton, Qt::KeyboardModifiers modifiers = {}) {
            QTest::newRow(name) << html << button << modifiers << opened;
        };
        const auto link = [](const QByteArray &attributes) {
            return "<a style='position:absolute;inset:0' " + attributes + ">link</a>";
        };
        const QByteArray there = "href='http://example.invalid/there'";
        const QString away = "http://example.invalid/there";
        row("click", link(there), away);
        row("target=_blank", link(there + " target=_blank"), away);
        row("a target by name", link(there + " target=other"), away);
        row("middle click", link(there), away, Qt::MiddleButton);
        row("click with Control", link(there), away, Qt::LeftButton, Qt::ControlModifier);
        row("by the keyboard", link(there), away, Qt::NoButton);
        row("download", link(there + " download"), away);
        row("with a base", "<base href='http://example.invalid/'>" + link("href=there"), away);
        row("in a picture",
            "<svg style='position:absolute;inset:0' width=400 height=300><a "
            "href='http://example.invalid/there'>"
            "<rect width=400 height=300 /></a><text>link</text></svg>",
            away);
        row("in a frame",
            "link<iframe style='position:absolute;inset:0' width=400 height=300 srcdoc=\"" + link(there)
                + "\"></iframe>",
            away);
        row("mail", link("href='mailto:a@example.invalid'"), "mailto:a@example.invalid");
        row("file", link("href='file:///etc/passwd'"), "");
        row("script", link("href='javascript:location=\"http://example.invalid/\"'"), "");
        row("data", link("href='data:text/html,other'"), "");
        row("another scheme", link("href='ftp://example.invalid/'"), "");
        row("within the document", link("href='#there'") + "<p id=there style='margin-top:3000px'>", "");
        row("button of a form",
            "link<form action='http://example.invalid/'><button "
            "style='position:absolute;inset:0;width:400px'>",
            "");
        row("button of a form, posting to a window",
            "link<form action='http://example.invalid/' method=post target=_blank>"
            "<button style='position:absolute;inset:0;width:400px'>",
            "");
        row("button of a form in a frame",
            "link<iframe style='position:absolute;inset:0' width=400 height=300 srcdoc=\"<form target=_blank "
            "action='http://example.invalid/'><button "
            "style='position:absolute;inset:0;width:400px'>\"></iframe>",
            "");
    }

    void linksOpenOutside()
    {
        QFETCH(QByteArray, html);
        QFETCH(Qt::MouseButton, button);
        QFETCH(Qt::KeyboardModifiers, modifiers);
        QFETCH(QString, opened);
        QVERIFY(loaded([&] { m_page->loadHTML(html); }));
        const qsizetype windows = QApplication::topLevelWidgets().size();
        if (button == Qt::NoButton)
            enterFirstLink();
        else
            click(button, modifiers);
        if (opened.isEmpty())
            text("1"); // a round trip, after which the click has arrived
        QTRY_COMPARE(m_opened, opened.isEmpty() ? QStringList() : QStringList(opened));
        QVERIFY(text("document.body.textContent").startsWith("link"));
        QCOMPARE(QApplication::topLevelWidgets().size(), windows);
    }

    void pageReachesNothing_data()
    {
        QTest::addColumn<QByteArray>("html"); // with SERVER, a server on loopback, and FILE, a file

        const auto row = [](const char *name, const QByteArray &html) { QTest::newRow(name) << html; };
        const auto script = [](const QByteArray &code) { return "<script>" + code + "</script>"; };
        row("script that clicks a link",
            script("var a = document.createElement('a'); a.href = 'http://example.invalid/'; "
                   "document.documentElement.append(a); a.click()"));
        row("script that goes elsewhere", script("location = 'http://example.invalid/'"));
        row("script of an event",
            "<img src='data:,' onerror=\"location='SERVER'\"><svg onload=\"location='SERVER'\"></svg>"
            "<details open ontoggle=\"location='SERVER'\"></details><style "
            "onload=\"location='SERVER'\"></style>");
        row("script that opens a window", script("window.open('http://example.invalid/')"));
        row("script that posts", script("fetch('SERVER', {method: 'POST', mode: 'no-cors'})"));
        row("script that asks",
            script("alert(1); confirm(1); navigator.geolocation.getCurrentPosition(x => 1)"));
        row("script of a frame",
            "<iframe srcdoc=\"<script>top.location = parent.location = 'SERVER'</script>\"></iframe>");
        row("script of a server",
            "<script src='SERVER/script'></script><script type=module src='SERVER/module'></script>");
        row("refresh", "<meta http-equiv=refresh content='0;url=SERVER/refresh'>");
        row("refresh to the open network", "<meta http-equiv=refresh content='0;url=http://a.example/'>");
        row("frame of the open network", "<iframe src='http://a.example/'></iframe>");
        row("refresh to a file", "<meta http-equiv=refresh content='0;url=FILE'>");
        row("refresh to another document", "<meta http-equiv=refresh content='0;url=data:text/html,other'>");
        row("refresh in a frame",
            "<iframe srcdoc=\"<meta http-equiv=refresh content='0;url=SERVER/refresh'>\"></iframe>");
        row("frames",
            "<iframe src='SERVER/frame'></iframe><frameset><frame src='SERVER/f'></frameset>"
            "<iframe src='FILE'></iframe><iframe src='data:text/html,other'></iframe><iframe "
            "src='qrc:/x'></iframe>");
        row("objects",
            "<object data='SERVER/object'></object><object type='text/html' data='SERVER/o'></object>"
            "<embed src='SERVER/embed'><embed type='text/html' src='SERVER/e'><applet "
            "code='SERVER/a'></applet>");
        row("pictures",
            "<img src='SERVER/img'><img srcset='SERVER/set 1x'><input type=image src='SERVER/input'>"
            "<svg><image href='SERVER/image'/><use href='SERVER/use#a'/></svg><body background='SERVER/body'>"
            "<video src='SERVER/video' poster='SERVER/poster'></video><audio src='SERVER/audio' "
            "autoplay></audio>");
        row("styles",
            "<link rel=stylesheet href='SERVER/link'><style>@import 'SERVER/import'; "
            "@font-face{font-family:f;"
            "src:url(SERVER/font)} "
            "body{font-family:f;background:url(SERVER/background);cursor:url(SERVER/c),auto}"
            "</style>");
        row("hints",
            "<link rel=prefetch href='SERVER/prefetch'><link rel=preload as=image href='SERVER/preload'>"
            "<link rel=prerender href='SERVER/prerender'><link rel=icon href='SERVER/icon'>"
            "<link rel=manifest href='SERVER/manifest'><link rel=modulepreload href='SERVER/module'>");
        row("a base", "<base href='SERVER'><img src=img><link rel=stylesheet href=style>");
        row("the scheme of parts",
            "<img src='zel-part:SERVER/img'><iframe src='zel-part:SERVER/frame'></iframe>");
        row("other names of this machine",
            "<img src='http://localhost:PORT/'><img src='http://[::1]:PORT/'><img "
            "src='http://2130706433:PORT/'>"
            "<img src='http://0x7f.1:PORT/'><img src='http://[::ffff:127.0.0.1]:PORT/'><img "
            "src='http://0:PORT/'>");
    }

    /// Each page is looked at, then the link on it is clicked: the one thing that may come of it.
    void pageReachesNothing()
    {
        QFETCH(QByteArray, html);
        const OpenNetwork network;
        TestServer server;
        QTemporaryFile secret;
        QVERIFY(secret.open() && secret.write("<p>secret</p>") > 0 && secret.flush());
        html = filled(html, server).replace("FILE", QUrl::fromLocalFile(secret.fileName()).toEncoded());
        QVERIFY(loaded([&] { m_page->loadHTML("<p id=own>notes</p>" + html + link()); }));
        const QUrl address = webPage().url();
        const qsizetype windows = QApplication::topLevelWidgets().size();
        click();
        QTRY_COMPARE(m_opened, QStringList{Marker});
        QCOMPARE(text("document.getElementById('own').textContent"), "notes");
        QCOMPARE(webPage().url(), address);
        QCOMPARE(QApplication::topLevelWidgets().size(), windows);
        QCOMPARE(paths(server), QByteArrayList());
        QCOMPARE(paths(network.server), QByteArrayList());
    }

    void redirectionsStayOutside_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QString>("what"); // is redirected

        for (const char *target : {"SERVER/there", "http://localhost:PORT/there", "file:///etc/passwd"}) {
            for (const char *what : {"document", "part", "part of a text", "part of this machine's page"})
                QTest::addRow("%s to %s", what, target) << QByteArray(target) << QString(what);
        }
    }

    void redirectionsStayOutside()
    {
        QFETCH(QByteArray, target);
        QFETCH(QString, what);
        const bool isDocument = what == "document";
        OpenNetwork network;
        TestServer local;
        const auto away = TestServer::Answer::redirect(QString::fromUtf8(filled(target, local)));
        QByteArray pictures; // many: an engine that follows first and asks then lets some through
        for (int i = 0; i < 40; ++i) {
            const QByteArray part = "http://a.example/part" + QByteArray::number(i);
            pictures += "<img src='" + part + "'>";
            network.server.answer(part, {away});
        }
        const TestServer::Answer page{.body = "<p>notes</p>" + pictures,
                                      .headers = {{"Content-Type", "text/html"}}};
        network.server.answer("http://a.example/notes", {isDocument ? away : page});
        TestServer developers;
        developers.answer("/notes", {page});
        const bool isLoaded = loaded([&] {
            if (what == "part of a text")
                m_page->loadHTML(page.body);
            else if (what == "part of this machine's page")
                m_page->loadURL(developers.url("/notes"), "{}");
            else
                m_page->loadURL(QUrl("http://a.example/notes"), "{}");
        });
        QCOMPARE(isLoaded, !isDocument);
        QTRY_COMPARE(text("document.body.innerText").trimmed(), isDocument ? "" : "notes");
        QCOMPARE(text("[...document.images].reduce((sum, image) => sum + image.naturalWidth, 0)"), "0");
        QCOMPARE(paths(local), QByteArrayList());
        QVERIFY(
            paths(network.server).contains(isDocument ? "http://a.example/notes" : "http://a.example/part7"));
    }

    void upperEdgeMovesTheWindow_data()
    {
        QTest::addColumn<int>("from");
        QTest::addColumn<QPoint>("way");
        QTest::addColumn<bool>("moves");

        QTest::newRow("drag at the edge") << 10 << QPoint(60, 40) << true;
        QTest::newRow("drag below it") << 100 << QPoint(60, 40) << false;
        QTest::newRow("click at the edge") << 10 << QPoint(2, 2) << false;
    }

    void upperEdgeMovesTheWindow()
    {
        QFETCH(int, from);
        QFETCH(QPoint, way);
        QFETCH(bool, moves);
        ZELUpdaterWindow window;
        m_page->setParent(window.contentView());
        const auto takeOut = qScopeGuard([this] { m_page->setParent(nullptr); });
        m_page->setGeometry(0, 0, 350, 450);
        m_page->show();
        window.show();
        QVERIFY(loaded([&] { m_page->loadHTML("<p>notes</p>" + link("draggable=false")); }));
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QTRY_VERIFY(!summaryIsShown());
        const QPoint place = window.pos();
        QWidget *target = m_page->webview()->focusProxy();
        const QPoint start(100, from);
        send(target, QEvent::MouseButtonPress, start);
        send(target, QEvent::MouseMove, start + way);
        send(target, QEvent::MouseButtonRelease, target->mapFromGlobal(place + start + way));
        QCOMPARE(window.pos(), moves ? place + way : place);
        const qsizetype clicks = moves ? 1 : 2; // the drag that moves is no click
        click(); // to know when what came before has arrived
        QTRY_VERIFY(m_opened.size() >= clicks);
        QCOMPARE(m_opened.size(), clicks);
    }

public slots:
    void opened(const QUrl &url) { m_opened += url.toString(); }

private:
    QWebEnginePage &webPage() { return *m_page->webview()->page(); }

    /// A link all over the page.
    static QByteArray link(const QByteArray &attributes = {})
    {
        return "<a " + attributes + " href='" + Marker.toUtf8()
            + "' style='position:fixed;inset:0;z-index:9'></a>";
    }

    static QByteArray filled(QByteArray text, const TestServer &server)
    {
        text.replace("SERVER", server.url("").toEncoded());
        return text.replace("PORT", QByteArray::number(server.url("").port()));
    }

    static QByteArrayList paths(const TestServer &server)
    {
        QByteArrayList paths;
        for (const TestServer::Request &request : server.requests())
            paths += request.path;
        return paths;
    }

    QWidget *summaryWidget() { return m_page->findChild<QLabel *>()->parentWidget(); }
    bool summaryIsShown() { return summaryWidget()->isVisible(); }

    /// The texts that stand for the notes.
    QStringList summary()
    {
        QStringList texts;
        for (const QLabel *label : summaryWidget()->findChildren<QLabel *>())
            texts += label->text();
        texts.sort();
        std::reverse(texts.begin(), texts.end());
        return texts;
    }

    bool loaded(const std::function<void()> &load)
    {
        if (!m_page->webview()) {
            m_page->loadHTML("");
            QSignalSpy(&webPage(), &QWebEnginePage::loadFinished).wait(30'000);
        }
        QSignalSpy finished(&webPage(), &QWebEnginePage::loadFinished);
        load();
        return (!finished.isEmpty() || finished.wait(30'000)) && finished.constFirst().constFirst().toBool();
    }

    /// What a script comes to, as text. The page runs none, but for those in another world than its own.
    QString text(const QString &script)
    {
        std::optional<QString> result;
        webPage().runJavaScript(script, QWebEngineScript::ApplicationWorld,
                                [&](const QVariant &value) { result = value.toString(); });
        [&] { QTRY_VERIFY_WITH_TIMEOUT(result, 30'000); }();
        return result.value_or("no answer");
    }

    void click(Qt::MouseButton button = Qt::LeftButton, Qt::KeyboardModifiers modifiers = {})
    {
        QVERIFY(QTest::qWaitForWindowExposed(m_page->window()));
        QWidget *target = m_page->webview()->focusProxy();
        QVERIFY(target);
        QTest::mouseClick(target, button, modifiers, {100, 100});
    }

    void enterFirstLink()
    {
        QVERIFY(QTest::qWaitForWindowActive(m_page.get()));
        m_page->webview()->setFocus();
        QTRY_COMPARE(text("document.hasFocus()"), "true");
        QTest::keyClick(m_page->webview()->focusProxy(), Qt::Key_Tab);
        QTRY_COMPARE(text("document.activeElement.tagName"), "A");
        QTest::keyClick(m_page->webview()->focusProxy(), Qt::Key_Return);
    }

    static void send(QWidget *target, QEvent::Type type, const QPoint &place)
    {
        const bool isMove = type == QEvent::MouseMove;
        const bool isRelease = type == QEvent::MouseButtonRelease;
        QMouseEvent event(type, place, target->mapToGlobal(place), isMove ? Qt::NoButton : Qt::LeftButton,
                          isRelease ? Qt::NoButton : Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(target, &event);
    }

    std::unique_ptr<ZELUpdaterHistoryPage> m_page;
    QStringList m_opened;
};

QTEST_MAIN(tst_ReleaseNotes)
#include "tst_ReleaseNotes.moc"

#include "common/WireValues.h"
#include "notes/NotesReach.h"
#include "support/NotesTest.h"
#include "support/TestServer.h"

#include <QNetworkProxy>
#include <QTemporaryFile>

namespace {

const QString Marker = "http://example.invalid/marker";

// Stands for the open network while it exists: a proxy that answers for every name.
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

// What pages may reach, and what becomes of their links.
class tst_NotesReach : public NotesTest
{
    Q_OBJECT

private slots:
    void initTestCase() { takeLinks(); }
    void init() { begin(); }
    void cleanup() { m_page.reset(); }

    void addressesAreJudged()
    {
        const char *const publicHosts =
            "example.com 1.2.3.4 [2606:4700::1111] [::ffff:8.8.8.8] 172.32.0.1 local.example 9gag.com";
        const char *const privateHosts =
            "localhost LOCALHOST. a.localhost printer nas.local router.lan localhost.localdomain "
            "1.0.0.127.in-addr.arpa 127.0.0.1 127.1 2130706433 0x7f000001 0x7f.1 0177.0.0.1 0 "
            "127.0.0.1. 10.1.2.3 172.16.0.1 172.31.255.255 192.168.1.1 169.254.169.254 100.64.0.1 "
            "224.0.0.1 255.255.255.255 [::1] [::] [fe80::1] [fd00::1] [ff02::1] [::ffff:127.0.0.1] "
            "[::ffff:c0a8:101] [::127.0.0.1] [64:ff9b::7f00:1] [2002:7f00:1::] 1.2.3.4.5";
        for (const auto &[hosts, isPublic] : {std::pair(publicHosts, true), {privateHosts, false}}) {
            for (const QByteArray &host : QByteArray(hosts).split(' ')) {
                const QUrl url("http://" + host);
                zel::NotesReach fromOutside;
                fromOutside.start(QUrl("https://notes.example/"));
                QVERIFY2(fromOutside.allows(url) == isPublic, host);
                zel::NotesReach fromThere;
                fromThere.start(url);
                QVERIFY2(fromThere.allows(url) == zel::isWebAddress(url), host);
                QVERIFY2(!fromThere.allows(QUrl("http://127.0.0.1:81")), host);
                fromThere.follow(QUrl("https://notes.example/"));
                QVERIFY2(fromThere.allows(url) == isPublic, host);
            }
        }
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

    void linksOpenOutside_data()
    {
        const Table<QByteArray, QString, Qt::MouseButton, Qt::KeyboardModifiers> table;
        const auto row = [&](const char *name, const QByteArray &html, const QString &opened,
                             Qt::MouseButton button = Qt::LeftButton, Qt::KeyboardModifiers modifiers = {}) {
            table(name, html, opened, button, modifiers);
        };
        const auto link = [](const QByteArray &attributes) {
            return "<a style='position:absolute;inset:0' " + attributes + ">link</a>";
        };
        const QByteArray there = "href='http://example.invalid/there'";
        const QString away = "http://example.invalid/there";
        const QByteArray frame =
            "link<iframe style='position:absolute;inset:0' width=400 height=300 srcdoc=\"";
        const QByteArray form = "<form action='http://example.invalid/' ";
        const QByteArray button = "><button style='position:absolute;inset:0;width:400px'>";
        row("click", link(there), away);
        row("target=_blank", link(there + " target=_blank"), away);
        row("middle click", link(there), away, Qt::MiddleButton);
        row("click with Control", link(there), away, Qt::LeftButton, Qt::ControlModifier);
        row("by the keyboard", link(there), away, Qt::NoButton);
        row("download", link(there + " download"), away);
        row("with a base", "<base href='http://example.invalid/'>" + link("href=there"), away);
        row("in a picture",
            "<svg style='position:absolute;inset:0' width=400 height=300><a " + there
                + "><rect width=400 height=300 /></a><text>link</text></svg>",
            away);
        row("in a frame", frame + link(there) + "\"></iframe>", away);
        row("mail", link("href='mailto:a@example.invalid'"), "mailto:a@example.invalid");
        row("file", link("href='file:///etc/passwd'"), "");
        row("script", link("href='javascript:location=\"http://example.invalid/\"'"), "");
        row("data", link("href='data:text/html,other'"), "");
        row("another scheme", link("href='ftp://example.invalid/'"), "");
        row("within the document", link("href='#there'") + "<p id=there style='margin-top:3000px'>", "");
        row("button of a form", "link" + form + button, "");
        row("button of a form, posting to a window", "link" + form + "method=post target=_blank" + button,
            "");
        row("button of a form in a frame", frame + form + "target=_blank" + button + "\"></iframe>", "");
    }

    void linksOpenOutside()
    {
        const auto [html, opened, button, modifiers] =
            Table<QByteArray, QString, Qt::MouseButton, Qt::KeyboardModifiers>::current();
        QVERIFY(loaded(html));
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
        const Table<QByteArray> row; // with SERVER, a server on loopback, and FILE, a file
        const auto script = [](const QByteArray &code) { return "<script>" + code + "</script>"; };
        row("script that clicks a link",
            script("var a = document.createElement('a'); a.href = 'http://example.invalid/'; "
                   "document.documentElement.append(a); a.click()"));
        row("script that goes elsewhere", script("location = 'http://example.invalid/'"));
        row("script that opens a window, posts and asks",
            script("window.open('http://example.invalid/')")
                + script("fetch('SERVER', {method: 'POST', mode: 'no-cors'})")
                + script("alert(1); confirm(1); navigator.geolocation.getCurrentPosition(x => 1)"));
        row("script of an event",
            "<img src='data:,' onerror=\"location='SERVER'\"><svg onload=\"location='SERVER'\"></svg>"
            "<details open ontoggle=\"location='SERVER'\"></details><style "
            "onload=\"location='SERVER'\"></style>");
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
            "<video src='SERVER/video' poster='SERVER/poster'></video><audio src='SERVER/a' "
            "autoplay></audio>");
        row("styles",
            "<link rel=stylesheet href='SERVER/link'><style>@import 'SERVER/import'; "
            "@font-face{font-family:f;src:url(SERVER/font)} "
            "body{font-family:f;background:url(SERVER/background);cursor:url(SERVER/c),auto}</style>");
        row("hints",
            "<link rel=prefetch href='SERVER/prefetch'><link rel=preload as=image href='SERVER/preload'>"
            "<link rel=prerender href='SERVER/prerender'><link rel=icon href='SERVER/icon'>"
            "<link rel=manifest href='SERVER/manifest'><link rel=modulepreload href='SERVER/module'>");
        row("a base", "<base href='SERVER'><img src=img><link rel=stylesheet href=style>");
        row("the scheme of parts",
            "<img src='zel-part:SERVER/img'><iframe src='zel-part:SERVER/frame'></iframe>");
        row("other names of this machine",
            "<img src='http://localhost:PORT/'><img src='http://[::1]:PORT/'><img src='http://0:PORT/'>"
            "<img src='http://2130706433:PORT/'><img src='http://0x7f.1:PORT/'>"
            "<img src='http://[::ffff:127.0.0.1]:PORT/'>");
    }

    // Each page is looked at, then the link on it is clicked: the one thing that may come of it.
    void pageReachesNothing()
    {
        auto [html] = Table<QByteArray>::current();
        const OpenNetwork network;
        TestServer server;
        QTemporaryFile secret;
        QVERIFY(secret.open() && secret.write("<p>secret</p>") > 0 && secret.flush());
        html = filled(html, server).replace("FILE", QUrl::fromLocalFile(secret.fileName()).toEncoded());
        QVERIFY(loaded("<p id=own>notes</p>" + html + linkTo(Marker)));
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
        const Table<QByteArray, QByteArray> row; // the target; what is redirected to it
        for (const char *target : {"SERVER/there", "http://localhost:PORT/there", "file:///etc/passwd"}) {
            for (const QByteArray what :
                 {"document", "part", "part of a text", "part of this machine's page"})
                row(what + " to " + target, target, what);
        }
    }

    void redirectionsStayOutside()
    {
        const auto [target, what] = Table<QByteArray, QByteArray>::current();
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

public slots:
    void opened(const QUrl &url) { m_opened += url.toString(); }

private:
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

    void enterFirstLink()
    {
        QVERIFY(QTest::qWaitForWindowActive(m_page.get()));
        m_page->webview()->setFocus();
        QTRY_COMPARE(text("document.hasFocus()"), "true");
        QTest::keyClick(m_page->webview()->focusProxy(), Qt::Key_Tab);
        QTRY_COMPARE(text("document.activeElement.tagName"), "A");
        QTest::keyClick(m_page->webview()->focusProxy(), Qt::Key_Return);
    }
};

QTEST_MAIN(tst_NotesReach)
#include "tst_NotesReach.moc"

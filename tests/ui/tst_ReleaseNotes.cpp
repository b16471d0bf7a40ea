#include "TestServer.h"
#include "ZELUpdaterButton.h"
#include "ZELUpdaterHistoryPage.h"

#include <QBuffer>
#include <QDesktopServices>
#include <QSignalSpy>
#include <QTemporaryFile>
#include <QTest>
#include <QWebEnginePage>
#include <QWebEngineProfile>
#include <QWebEngineView>

/// Shows real pages of a real server in the real web engine.
class ReleaseNotesTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        for (const char *scheme : {"http", "https", "mailto", "file", "ftp"})
            QDesktopServices::setUrlHandler(QString::fromLatin1(scheme), this, "opened");
    }

    void init()
    {
        m_opened.clear();
        m_page = std::make_unique<ZELUpdaterHistoryPage>();
        m_page->resize(500, 470);
        m_page->updateButtons({});
        m_page->show();
    }

    void cleanup() { m_page.reset(); }

    void engineWaitsUntilNotesAreShown()
    {
        QVERIFY(m_page->findChildren<QWidget *>().size() == 3);
        QVERIFY(m_page->webview());
        QTRY_COMPARE(m_page->webview()->geometry(), QRect(0, 0, 500, 470 - 96));
        QVERIFY(m_page->webview()->page()->profile()->isOffTheRecord());
    }

    void postIsShown()
    {
        TestServer server;
        server.answer(
            "/notes",
            {{.body = "<p id=a>Grüße</p>", .headers = {{"Content-Type", "text/html; charset=utf-8"}}}});
        QVERIFY(loaded([&] { m_page->loadURL(server.url("/notes"), R"({"build":100})"); }));
        QCOMPARE(text("document.getElementById('a').textContent"), "Grüße");
        const TestServer::Request request = server.requests().constFirst();
        QCOMPARE(request.method, "POST");
        QCOMPARE(request.body, R"({"build":100})");
        QCOMPARE(request.headers["user-agent"], "corrand");
        QCOMPARE(text("getComputedStyle(document.getElementById('a')).webkitUserSelect"), "none");
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
        m_page->loadURL(address, "{}");
        QTRY_COMPARE(text("document.body.innerText"), QString());
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

    void linksOpenOutside_data()
    {
        QTest::addColumn<QByteArray>("attributes");
        QTest::addColumn<QString>("script"); // instead of a click
        QTest::addColumn<Qt::MouseButton>("button");
        QTest::addColumn<QString>("opened");

        const QByteArray there = "href='http://example.invalid/there'";
        const QString away = "http://example.invalid/there";
        QTest::newRow("click") << there << "" << Qt::LeftButton << away;
        QTest::newRow("target=_blank") << there + " target=_blank"
                                       << "" << Qt::LeftButton << away;
        QTest::newRow("middle click") << there << "" << Qt::MiddleButton << away;
        QTest::newRow("click made by a script")
            << there << "document.getElementById('link').click()" << Qt::NoButton << away;
        QTest::newRow("window opened by a script")
            << there << "window.open('http://example.invalid/popup')" << Qt::NoButton << "";
        QTest::newRow("mail") << QByteArray("href='mailto:a@example.invalid'") << "" << Qt::LeftButton
                              << "mailto:a@example.invalid";
        QTest::newRow("file") << QByteArray("href='file:///etc/passwd'") << "" << Qt::LeftButton << "";
        QTest::newRow("another scheme")
            << QByteArray("href='ftp://example.invalid/'") << "" << Qt::LeftButton << "";
    }

    void linksOpenOutside()
    {
        QFETCH(QByteArray, attributes);
        QFETCH(QString, script);
        QFETCH(Qt::MouseButton, button);
        QFETCH(QString, opened);
        QVERIFY(loaded([&] {
            m_page->loadHTML("<a id=link style='position:absolute;inset:0' " + attributes + ">link</a>");
        }));
        const qsizetype windows = QApplication::topLevelWidgets().size();
        if (button == Qt::NoButton)
            text(script);
        else
            click(button);
        if (opened.isEmpty())
            text("1"); // a round trip, after which the click has arrived
        QTRY_COMPARE(m_opened, opened.isEmpty() ? QStringList() : QStringList(opened));
        QCOMPARE(text("document.getElementById('link').textContent"), "link");
        QCOMPARE(QApplication::topLevelWidgets().size(), windows);
    }

    void nothingElseIsReached_data()
    {
        QTest::addColumn<QString>("script");

        QTest::newRow("a file as the document") << "location.href = 'FILE'";
        QTest::newRow("a file in a frame")
            << "var f = document.createElement('iframe'); f.src = 'FILE'; document.body.appendChild(f)";
        QTest::newRow("dialogs") << "alert('a'); confirm('b'); prompt('c')";
        QTest::newRow("a permission") << "navigator.geolocation.getCurrentPosition(function() {})";
    }

    void nothingElseIsReached()
    {
        QFETCH(QString, script);
        QTemporaryFile secret;
        QVERIFY(secret.open() && secret.write("<p>secret</p>") > 0 && secret.flush());
        QVERIFY(loaded([&] { m_page->loadHTML("<p>notes</p>"); }));
        const qsizetype windows = QApplication::topLevelWidgets().size();
        text(script.replace("FILE", QUrl::fromLocalFile(secret.fileName()).toString()));
        QCOMPARE(text("document.body.innerText").trimmed(), "notes");
        QCOMPARE(text("window.frames.length ? (function() { try { return frames[0].document.body.innerText } "
                      "catch (e) { return '' } })() : ''"),
                 QString());
        QCOMPARE(QApplication::topLevelWidgets().size(), windows);
    }

public slots:
    void opened(const QUrl &url) { m_opened += url.toString(); }

private:
    QWebEnginePage &webPage() { return *m_page->webview()->page(); }

    bool loaded(const std::function<void()> &load)
    {
        QSignalSpy finished(&webPage(), &QWebEnginePage::loadFinished);
        load();
        return (!finished.isEmpty() || finished.wait(30'000)) && finished.constFirst().constFirst().toBool();
    }

    /// What a script in the page comes to, as text.
    QString text(const QString &script)
    {
        std::optional<QString> result;
        webPage().runJavaScript(script, [&](const QVariant &value) { result = value.toString(); });
        [&] { QTRY_VERIFY_WITH_TIMEOUT(result, 30'000); }();
        return result.value_or("no answer");
    }

    void click(Qt::MouseButton button)
    {
        QVERIFY(QTest::qWaitForWindowExposed(m_page.get()));
        QWidget *target = m_page->webview()->focusProxy();
        QVERIFY(target);
        QTest::mouseClick(target, button, {}, {100, 100});
    }

    std::unique_ptr<ZELUpdaterHistoryPage> m_page;
    QStringList m_opened;
};

QTEST_MAIN(ReleaseNotesTest)
#include "tst_ReleaseNotes.moc"

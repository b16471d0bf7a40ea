// Release notes in the real web engine, for tests that link it.
#pragma once

#include "support/Table.h"
#include "ui/ZELUpdaterHistoryPage.h"

#include <QBuffer>
#include <QDesktopServices>
#include <QLabel>
#include <QSignalSpy>
#include <QWebEnginePage>
#include <QWebEngineScript>
#include <QWebEngineView>

/// A page with notes, anew for each test, and what its links have opened. Tests have a slot `opened`, which
/// notes the address, and call the rest from their own `initTestCase`, `init` and `cleanup`.
class NotesTest : public QObject
{
protected:
    void takeLinks()
    {
        for (const char *scheme : {"http", "https", "mailto", "file", "ftp"})
            QDesktopServices::setUrlHandler(QString::fromLatin1(scheme), this, "opened");
    }

    void begin()
    {
        m_opened.clear();
        m_page = std::make_unique<ZELUpdaterHistoryPage>();
        m_page->resize(500, 470);
        m_page->updateButtons({{"update", QVariantMap{{"version", "1.5"}, {"build", 150}}}});
        m_page->show();
    }

    static QByteArray picture()
    {
        QByteArray data;
        QBuffer buffer(&data);
        QImage(7, 5, QImage::Format_RGB32).save(&buffer, "png");
        return data;
    }

    QWebEnginePage &webPage() { return *m_page->webview()->page(); }

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

    bool loaded(const QByteArray &html)
    {
        return loaded([&] { m_page->loadHTML(html); });
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

    /// A link all over the page.
    static QByteArray linkTo(const QString &address, const QByteArray &attributes = {})
    {
        return "<a " + attributes + " href='" + address.toUtf8()
            + "' style='position:fixed;inset:0;z-index:9'></a>";
    }

    void click(Qt::MouseButton button = Qt::LeftButton, Qt::KeyboardModifiers modifiers = {})
    {
        QVERIFY(QTest::qWaitForWindowExposed(m_page->window()));
        QTest::mouseClick(m_page->webview()->focusProxy(), button, modifiers, {100, 100});
    }

    std::unique_ptr<ZELUpdaterHistoryPage> m_page;
    QStringList m_opened;
};

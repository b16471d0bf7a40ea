// The keys of the page with the release notes, whose web view has a focus of its own.
#include "ui/Texts.h"
#include "ui/ZELUpdaterButton.h"
#include "ui/ZELUpdaterHistoryPage.h"
#include "ui/ZELUpdaterWindow.h"
#include "updater/ZELUpdater.h"

#include <QApplication>
#include <QSignalSpy>
#include <QTest>

class tst_NotesKeys : public QObject
{
    Q_OBJECT

private slots:
    void tabLeadsOutOfTheNotes()
    {
        zel::setLanguage("en");
        ZELUpdater *updater = ZELUpdater::shared();
        ZELUpdaterWindow *window = updater->window();
        ZELUpdaterHistoryPage *page = updater->historyPage();
        const QByteArray notes = "<p>Notes</p>";
        updater->setUpdate({{"html", notes}});
        page->loadHTML(notes);
        QWidget *view = webViewIn(page);
        QSignalSpy loaded(view, SIGNAL(loadFinished(bool)));
        QTRY_VERIFY(!loaded.isEmpty());
        qint64 chosen = -1;
        updater->showUpdate([&](qint64 choice) { chosen = choice; });
        QTRY_COMPARE(updater->currentPage(), page);
        window->show();
        window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(window));
        QTRY_VERIFY(hasFocus(view));

        const auto tab = [=] { QTest::keyClick(window->windowHandle(), Qt::Key_Tab); };
        tab();
        QTRY_VERIFY(page->laterButton()->hasFocus());
        QTest::keyClick(window->windowHandle(), Qt::Key_Backtab, Qt::ShiftModifier);
        QTRY_VERIFY(hasFocus(view));
        tab();
        QTRY_VERIFY(page->laterButton()->hasFocus());
        tab();
        QVERIFY(page->skipButton()->hasFocus());
        tab();
        QVERIFY(page->downloadButton()->hasFocus());
        QTest::keyClick(window->windowHandle(), Qt::Key_Return);
        QCOMPARE(chosen, 2);
    }

private:
    static QWidget *webViewIn(QWidget *page)
    {
        const QWidgetList widgets = page->findChildren<QWidget *>();
        return *std::ranges::find_if(widgets, [](QWidget *each) { return each->inherits("QWebEngineView"); });
    }

    static bool hasFocus(const QWidget *view)
    {
        const QWidget *focused = QApplication::focusWidget();
        return focused && (focused == view || view->isAncestorOf(focused));
    }
};

QTEST_MAIN(tst_NotesKeys)
#include "tst_NotesKeys.moc"

#include "support/AccessibilityLog.h"
#include "support/Rendering.h"
#include "support/Table.h"
#include "ui/Texts.h"
#include "ui/ZELProgressIndicator.h"
#include "ui/ZELUpdaterButton.h"
#include "ui/ZELUpdaterHistoryPage.h"
#include "ui/ZELUpdaterPages.h"
#include "ui/ZELUpdaterWindow.h"
#include "updater/ZELUpdater.h"

#include <QLabel>

#include <thread>

namespace {

using Show = void (ZELUpdater::*)();

struct Page {
    Show show;
    QByteArray title;
    QByteArray message;
    QStringList buttons;
    QList<int> keys; // that cancel
};

const QList<int> Both{Qt::Key_Return, Qt::Key_Escape};

// All but that of the notes.
const Page Pages[] = {
    {&ZELUpdater::showCheckingView, "Checking for Updates", "", {"Cancel"}, {Qt::Key_Return}},
    {&ZELUpdater::showDownloadPage, "Downloading", "Connecting", {"Cancel"}, {}},
    {&ZELUpdater::showErrorPage, "Error", "An error occurred while updating.", {"Cancel", "Retry"}, {}},
    {&ZELUpdater::showNoUpdates, "Up To Date", "No updates are available.", {"Done"}, Both},
    {&ZELUpdater::showUpdated, "Completed", "Updates were successfully installed.", {"Done"}, Both},
};

void addPages()
{
    const Table<Page> row;
    for (const Page &page : Pages)
        row(page.title, page);
}

// A download that stands where it is.
struct HalfwayTask : ZELURLSessionTask {
    void resume() override { }
    void cancel() override { }
    qint64 countOfBytesReceived() const override { return received; }
    qint64 countOfBytesExpectedToReceive() const override { return announced; }
    void observeCountOfBytesReceived(std::function<void()>) override { }

    qint64 received = 0;
    qint64 announced = 0;
};

} // namespace

// The pages of the one updater in its window.
class tst_Navigation : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        zel::setLanguage("en");
        QGuiApplication::setApplicationDisplayName("Example");
        std::thread other([this] {
            ZELUpdater *made = ZELUpdater::shared();
            QMetaObject::invokeMethod(this, [=, this] { m_updater = made; });
        });
        QTRY_VERIFY(m_updater);
        other.join();
        QCOMPARE(ZELUpdater::shared(), m_updater);
        QCOMPARE(m_updater->thread(), thread());
    }

    void init()
    {
        m_calls.clear();
        m_updater->setOnCancel([this] { m_calls += "cancel"; });
        m_updater->setOnRetry([this] { m_calls += "retry"; });
    }

    void cleanup()
    {
        window().endSheet();
        window().hide();
        window().setFrame({0, 0, 350, 450}, false);
    }

    void pagesTakeTheirPlace_data() { addPages(); }

    void pagesTakeTheirPlace()
    {
        const auto [page] = Table<Page>::current();
        const bool looksAtSheet = page.buttons != QStringList("Done");
        for (const bool isSheet : {false, true}) {
            QWidget host;
            host.setGeometry(50, 60, 700, 500);
            host.show();
            isSheet ? window().beginSheet(&host) : window().show();
            window().setFrame({100, 100, 500, 470}, false);
            (m_updater->*page.show)();
            (m_updater->*page.show)();
            QCOMPARE(window().frame().topLeft(), isSheet && looksAtSheet ? QPoint(0, 0) : QPoint(175, 135));
            QCOMPARE(window().frame().size(), QSize(350, 400));
            QCOMPARE(window().contentView()->findChildren<QWidget *>(Qt::FindDirectChildrenOnly),
                     QList<QWidget *>{m_updater->currentPage()});
            QVERIFY(m_updater->currentPage()->isVisible());
            QTRY_COMPARE(m_updater->currentPage()->geometry(), QRect(0, 0, 350, 400));
            if (isSheet)
                QCOMPARE(window().pos(), host.geometry().topLeft() + QPoint((700 - 350) / 2, 0));
        }
    }

    void sheetGoesWithItsHost()
    {
        auto host = std::make_unique<QWidget>();
        host->setGeometry(50, 60, 700, 500);
        host->show();
        window().beginSheet(host.get());
        QCOMPARE(window().sheetParent(), host.get());
        QCOMPARE(window().windowModality(), Qt::WindowModal);
        host->move(80, 90);
        QTRY_COMPARE(window().pos(), host->geometry().topLeft() + QPoint((700 - 350) / 2, 0));
        host.reset();
        QVERIFY(!window().sheetParent());
        QVERIFY(!window().isVisible());
        window().show();
        QCOMPARE(window().windowModality(), Qt::NonModal);
    }

    void keysReachTheirButtons_data() { addPages(); }

    void keysReachTheirButtons()
    {
        const auto [page] = Table<Page>::current();
        (m_updater->*page.show)();
        window().show();
        for (const Qt::Key key : {Qt::Key_Return, Qt::Key_Escape, Qt::Key_Enter}) {
            m_calls.clear();
            QTest::keyClick(&window(), key);
            QCOMPARE(m_calls, page.keys.contains(key) ? QStringList("cancel") : QStringList());
        }
    }

    void buttonsReachTheHost()
    {
        const auto clicked = [this](ZELUpdaterButton *button) {
            m_calls.clear();
            window().show();
            QTest::mouseClick(button, Qt::LeftButton);
            return m_calls;
        };
        // The other pages' buttons are clicked in whole updates.
        QCOMPARE(clicked(m_updater->historyPage()->laterButton()), QStringList("cancel"));
        m_updater->showErrorPage();
        m_updater->setOnCancel({});
        m_updater->setOnRetry({});
        QCOMPARE(clicked(m_updater->errorPage()->retryButton()), QStringList());
        QCOMPARE(clicked(m_updater->errorPage()->cancelButton()), QStringList());
    }

    void pagesStartAfresh()
    {
        m_updater->showDownloadPage();
        ZELUpdaterDownloadPage *page = m_updater->downloadPage();
        page->progress()->setIndeterminate(false);
        page->progress()->setDoubleValue(0.7);
        page->text()->setText("70% completed");
        m_updater->showDownloadPage();
        QVERIFY(page->progress()->isIndeterminate());
        QCOMPARE(page->progress()->doubleValue(), 0.);
        QCOMPARE(page->text()->text(), "Connecting");

        m_updater->showCheckingView();
        QVERIFY(!m_updater->checkingPage()->progress()->isHidden());
    }

    void progressIsShown_data()
    {
        const Table<qint64, qint64, QString, double> row; // what was received and announced
        row("announced", 50, 200, "25% completed", 0.25);
        row("more than announced", 500, 400, "100% completed", 1);
        row("unknown", 42, -1, "0% completed", 0);
        row("announced as nothing", 1, 0, "0% completed", 0);
    }

    void progressIsShown()
    {
        const auto [received, announced, text, value] = Table<qint64, qint64, QString, double>::current();
        m_updater->showDownloadPage();
        const auto task = std::make_shared<HalfwayTask>();
        task->received = received;
        task->announced = announced;
        m_updater->setTask(task);
        m_updater->observeValueForKeyPath("countOfBytesReceived");
        const ZELUpdaterDownloadPage *page = m_updater->downloadPage();
        QTRY_VERIFY(!page->progress()->isIndeterminate());
        QCOMPARE(page->text()->text(), text);
        QCOMPARE(page->progress()->doubleValue(), value);
        m_updater->setTask({});
    }

    void tabLeadsThroughThePages_data() { addPages(); }

    void tabLeadsThroughThePages()
    {
        const auto [row] = Table<Page>::current();
        const QStringList &buttons = row.buttons;
        showActive();
        const AccessibilityLog focused(QAccessible::Focus);
        (m_updater->*row.show)();
        QAccessibleInterface *page = QAccessible::queryAccessibleInterface(m_updater->currentPage());
        QCOMPARE(page->role(), QAccessible::Grouping);
        QCOMPARE(page->text(QAccessible::Name), row.title);
        QCOMPARE(page->text(QAccessible::Description), row.message);
        for (qsizetype i = 0; i <= buttons.size(); ++i)
            QTest::keyClick(window().windowHandle(), Qt::Key_Tab);
        QTest::keyClick(window().windowHandle(), Qt::Key_Backtab, Qt::ShiftModifier);
        QStringList expected = QStringList(row.title) + buttons;
        if (buttons.size() > 1) // from the only button Tab leads to itself
            expected += {buttons.first(), buttons.last()};
        QCOMPARE(focused.names(), expected);
        QTest::keyClick(window().windowHandle(), Qt::Key_Space);
        QCOMPARE(m_calls, QStringList(buttons.last() == "Retry" ? "retry" : "cancel"));
    }

    void indicatorsAreNamedByTheirPages()
    {
        const auto name = [](QWidget *indicator) {
            return QAccessible::queryAccessibleInterface(indicator)->text(QAccessible::Name);
        };
        QCOMPARE(name(m_updater->downloadPage()->progress()), "Downloading");
        QCOMPARE(name(m_updater->checkingPage()->progress()), "Checking for Updates");
    }

    void offerIsTold_data()
    {
        const Table<QVariantMap, QVariantMap, QString> row; // the configuration and the record
        row("another version", {{"version", "1.0"}}, {{"version", "1.1"}},
            "Version 1.1 is available, you have 1.0.");
        row("the same version", {{"version", "1.0"}, {"build", 100}}, {{"version", "1.0"}, {"build", "101"}},
            "Version 1.0 (101) is available, you have 1.0 (100).");
        row("placeholders", {{"version", "%2"}}, {{"version", "%2%1"}},
            "Version %2%1 is available, you have %2.");
        row("no version", {}, {{"version", "1.1"}}, "");
    }

    void offerIsTold()
    {
        const auto [config, record, text] = Table<QVariantMap, QVariantMap, QString>::current();
        m_updater->showErrorPage();
        m_updater->setConfig(config);
        m_updater->setUpdate({{"update", record}, {"html", QByteArray()}});
        m_updater->showUpdate({});
        QTRY_COMPARE(m_updater->currentPage(), m_updater->historyPage());
        QAccessibleInterface *page = QAccessible::queryAccessibleInterface(m_updater->historyPage());
        QCOMPARE(page->text(QAccessible::Description), text);
        QCOMPARE(page->text(QAccessible::Name), "Example " + record["version"].toString());

        m_updater->setConfig({});
        m_updater->setUpdate({});
    }

    void iconIsOnFivePages()
    {
        QImage icon(4, 4, QImage::Format_RGB32);
        m_updater->setIcon(icon);
        for (const Page &page : Pages) {
            (m_updater->*page.show)();
            QCOMPARE(static_cast<ZELUpdaterPage *>(m_updater->currentPage())->icon()->image(), icon);
        }
        m_updater->setIcon({});
    }

    void windowIsDarkAndStays()
    {
        m_updater->showErrorPage();
        window().show();
        QVERIFY(window().grab().toImage().pixelColor(349, 200).red() > 80);
        QVERIFY(window().windowFlags() & Qt::FramelessWindowHint);
        QAccessibleInterface *interface = QAccessible::queryAccessibleInterface(&window());
        QCOMPARE(interface->role(), QAccessible::Dialog);
        QCOMPARE(interface->text(QAccessible::Name), "Example");
        QCOMPARE(window().minimumSize(), window().maximumSize());

        QCloseEvent asked;
        QCoreApplication::sendEvent(&window(), &asked);
        QVERIFY(asked.isAccepted()); // code may close it
        QSpontaneKeyEvent::setSpontaneous(&asked);
        QCoreApplication::instance()->notify(&window(), &asked);
        QVERIFY(!asked.isAccepted()); // the user may not
        window().close();
        m_updater->showCheckingView();
        window().show();
        QVERIFY(m_updater->checkingPage()->isVisible());
    }

    void highContrastIsFollowed()
    {
        m_updater->showErrorPage();
        window().show();
        const QPalette usual = QApplication::palette();
        QLabel *message = m_updater->errorPage()->text();
        const auto seen = [this](QWidget *part) {
            return window().grab({part->mapTo(&window(), QPoint()), part->size()}).toImage();
        };
        const int dim = lightest(seen(message));
        for (const auto &[window_, text] : {std::pair(Qt::black, Qt::white), {Qt::white, Qt::black}}) {
            QPalette palette = usual;
            palette.setColor(QPalette::Window, window_);
            palette.setColor(QPalette::WindowText, text);
            QApplication::setPalette(palette);
            QTRY_COMPARE(window().grab().toImage().pixelColor(3, 3), QColor(Qt::black));
            QTRY_VERIFY(lightest(seen(message)) > dim * 5 / 4);
            const QPoint button = m_updater->errorPage()->cancelButton()->pos();
            QCOMPARE(window().grab().toImage().pixelColor(button + QPoint(60, 0)), QColor(Qt::white));
            QCOMPARE(window().grab().toImage().pixelColor(button + QPoint(60, 3)), QColor(Qt::black));
        }
        QApplication::setPalette(usual);
        QTRY_COMPARE(window().grab().toImage().pixelColor(3, 3), QColor(41, 41, 41));
        QTRY_COMPARE(lightest(seen(message)), dim);
    }

private:
    void showActive()
    {
        // The platform of the tests does not notice that a window comes back, unless another one was there
        // meanwhile.
        QWidget other;
        other.show();
        other.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&other));
        window().show();
        window().activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window()));
    }

    ZELUpdaterWindow &window() { return *m_updater->window(); }

    ZELUpdater *m_updater = nullptr;
    QStringList m_calls;
};

QTEST_MAIN(tst_Navigation)
#include "tst_Navigation.moc"

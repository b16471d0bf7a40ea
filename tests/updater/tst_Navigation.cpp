#include "support/AccessibilityLog.h"
#include "ui/Texts.h"
#include "ui/ZELProgressIndicator.h"
#include "ui/ZELUpdaterButton.h"
#include "ui/ZELUpdaterHistoryPage.h"
#include "ui/ZELUpdaterPages.h"
#include "ui/ZELUpdaterWindow.h"
#include "updater/ZELUpdater.h"

#include <QLabel>
#include <QTest>

#include <thread>

namespace {

using Show = void (ZELUpdater::*)();

enum Presentation { Free, Sheet };

/// A download that stands where it is.
class HalfwayTask : public ZELURLSessionTask
{
public:
    HalfwayTask(qint64 received, qint64 expected)
        : m_received(received)
        , m_expected(expected)
    {
    }
    void resume() override { }
    void cancel() override { }
    qint64 countOfBytesReceived() const override { return m_received; }
    qint64 countOfBytesExpectedToReceive() const override { return m_expected; }
    void observeCountOfBytesReceived(std::function<void()>) override { }

private:
    const qint64 m_received;
    const qint64 m_expected;
};

} // namespace

Q_DECLARE_METATYPE(Show)

/// The pages of the one updater in its window.
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

    void pagesTakeTheirPlace_data()
    {
        QTest::addColumn<Show>("show");
        QTest::addColumn<QRect>("before");
        QTest::addColumn<Presentation>("presentation");
        QTest::addColumn<QRect>("after");

        struct Method {
            const char *name;
            Show show;
            bool looksAtSheet;
        };
        const QRect first(100, 100, 350, 450), notes(100, 100, 500, 470);
        for (const Method &method : {Method{"checking", &ZELUpdater::showCheckingView, true},
                                     Method{"download", &ZELUpdater::showDownloadPage, true},
                                     Method{"error", &ZELUpdater::showErrorPage, true},
                                     Method{"no updates", &ZELUpdater::showNoUpdates, false},
                                     Method{"updated", &ZELUpdater::showUpdated, false}}) {
            QTest::addRow("%s, free", method.name)
                << method.show << first << Free << QRect(100, 125, 350, 400);
            QTest::addRow("%s, free, after the notes", method.name)
                << method.show << notes << Free << QRect(175, 135, 350, 400);
            QTest::addRow("%s, sheet", method.name)
                << method.show << notes << Sheet
                << (method.looksAtSheet ? QRect(0, 0, 350, 400) : QRect(175, 135, 350, 400));
        }
    }

    void pagesTakeTheirPlace()
    {
        QFETCH(Show, show);
        QFETCH(QRect, before);
        QFETCH(Presentation, presentation);
        QFETCH(QRect, after);

        QWidget host;
        host.setGeometry(50, 60, 700, 500);
        host.show();
        if (presentation == Sheet)
            window().beginSheet(&host);
        else
            window().show();
        window().setFrame(before, false);
        (m_updater->*show)();
        (m_updater->*show)();
        QCOMPARE(window().frame(), after);
        QCOMPARE(window().contentView()->findChildren<QWidget *>(Qt::FindDirectChildrenOnly),
                 QList<QWidget *>{m_updater->currentPage()});
        QVERIFY(m_updater->currentPage()->isVisible());
        QTRY_COMPARE(m_updater->currentPage()->geometry(), QRect(0, 0, 350, 400));
        if (presentation == Sheet)
            QCOMPARE(window().pos(), host.geometry().topLeft() + QPoint((700 - 350) / 2, 0));
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

    void keysReachTheirButtons_data()
    {
        QTest::addColumn<Show>("show");
        QTest::addColumn<bool>("onReturn");
        QTest::addColumn<bool>("onEscape");

        QTest::newRow("checking") << Show(&ZELUpdater::showCheckingView) << true << false;
        QTest::newRow("download") << Show(&ZELUpdater::showDownloadPage) << false << false;
        QTest::newRow("error") << Show(&ZELUpdater::showErrorPage) << false << false;
        QTest::newRow("no updates") << Show(&ZELUpdater::showNoUpdates) << true << true;
        QTest::newRow("updated") << Show(&ZELUpdater::showUpdated) << true << true;
    }

    void keysReachTheirButtons()
    {
        QFETCH(Show, show);
        QFETCH(bool, onReturn);
        QFETCH(bool, onEscape);
        (m_updater->*show)();
        window().show();
        for (const auto &[key, cancels] :
             {std::pair(Qt::Key_Return, onReturn), {Qt::Key_Escape, onEscape}, {Qt::Key_Enter, false}}) {
            m_calls.clear();
            QTest::keyClick(&window(), key);
            QCOMPARE(m_calls, cancels ? QStringList("cancel") : QStringList());
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
        QCOMPARE(clicked(m_updater->errorPage()->cancelButton()), QStringList("cancel"));
        QCOMPARE(clicked(m_updater->errorPage()->retryButton()), QStringList("retry"));
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
        QTest::addColumn<qint64>("received");
        QTest::addColumn<qint64>("announced");
        QTest::addColumn<QString>("text");
        QTest::addColumn<double>("value");

        const auto row = [](const char *name, qint64 received, qint64 announced, const char *text,
                            double value) {
            QTest::newRow(name) << received << announced << QString(text) << value;
        };
        row("announced", 50, 200, "25% completed", 0.25);
        row("more than announced", 500, 400, "100% completed", 1);
        row("unknown", 42, -1, "0% completed", 0);
        row("announced as nothing", 1, 0, "0% completed", 0);
    }

    void progressIsShown()
    {
        QFETCH(qint64, received);
        QFETCH(qint64, announced);
        QFETCH(double, value);
        m_updater->showDownloadPage();
        m_updater->setTask(std::make_shared<HalfwayTask>(received, announced));
        m_updater->observeValueForKeyPath("countOfBytesReceived");
        const ZELUpdaterDownloadPage *page = m_updater->downloadPage();
        QTRY_VERIFY(!page->progress()->isIndeterminate());
        QTEST(page->text()->text(), "text");
        QCOMPARE(page->progress()->doubleValue(), value);
        m_updater->setTask({});
    }

    void tabLeadsThroughThePages_data()
    {
        QTest::addColumn<Show>("show");
        QTest::addColumn<QStringList>("title"); // what the page is called, and what it tells
        QTest::addColumn<QStringList>("buttons");

        const auto row = [](const char *name, Show show, const QStringList &title,
                            const QStringList &buttons) { QTest::newRow(name) << show << title << buttons; };
        row("checking", &ZELUpdater::showCheckingView, {"Checking for Updates", ""}, {"Cancel"});
        row("download", &ZELUpdater::showDownloadPage, {"Downloading", "Connecting"}, {"Cancel"});
        row("error", &ZELUpdater::showErrorPage, {"Error", "An error occurred while updating."},
            {"Cancel", "Retry"});
        row("no updates", &ZELUpdater::showNoUpdates, {"Up To Date", "No updates are available."}, {"Done"});
        row("updated", &ZELUpdater::showUpdated, {"Completed", "Updates were successfully installed."},
            {"Done"});
    }

    void tabLeadsThroughThePages()
    {
        QFETCH(Show, show);
        QFETCH(QStringList, title);
        QFETCH(QStringList, buttons);
        showActive();
        const AccessibilityLog focused(QAccessible::Focus);
        (m_updater->*show)();
        QAccessibleInterface *page = QAccessible::queryAccessibleInterface(m_updater->currentPage());
        QCOMPARE(page->role(), QAccessible::Grouping);
        QCOMPARE((QStringList{page->text(QAccessible::Name), page->text(QAccessible::Description)}), title);
        for (qsizetype i = 0; i <= buttons.size(); ++i)
            QTest::keyClick(window().windowHandle(), Qt::Key_Tab);
        QTest::keyClick(window().windowHandle(), Qt::Key_Backtab, Qt::ShiftModifier);
        // From the only button Tab leads to itself.
        const bool goesRound = buttons.size() > 1;
        QCOMPARE(focused.names(),
                 title.first(1) + buttons
                     + (goesRound ? QStringList{buttons.first(), buttons.last()} : QStringList()));
        QTest::keyClick(window().windowHandle(), Qt::Key_Space);
        QCOMPARE(m_calls, QStringList(buttons.last() == "Retry" ? "retry" : "cancel"));
    }

    void indicatorsAreNamedByTheirPages()
    {
        for (ZELProgressIndicator *indicator :
             {m_updater->downloadPage()->progress(), m_updater->checkingPage()->progress()}) {
            QAccessibleInterface *interface = QAccessible::queryAccessibleInterface(indicator);
            const bool isBar = indicator == m_updater->downloadPage()->progress();
            QCOMPARE(interface->role(), QAccessible::ProgressBar);
            QCOMPARE(interface->text(QAccessible::Name), isBar ? "Downloading" : "Checking for Updates");
        }
    }

    void offerIsTold_data()
    {
        QTest::addColumn<QVariantMap>("config");
        QTest::addColumn<QVariantMap>("record");
        QTest::addColumn<QString>("text");
        const auto row = [](const char *name, const QVariantMap &config, const QVariantMap &record,
                            const char *text) { QTest::newRow(name) << config << record << QString(text); };
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
        QFETCH(QVariantMap, config);
        QFETCH(QVariantMap, record);
        m_updater->showErrorPage();
        m_updater->setConfig(config);
        m_updater->setUpdate({{"update", record}, {"html", QByteArray()}});
        m_updater->showUpdate({});
        QTRY_COMPARE(m_updater->currentPage(), m_updater->historyPage());
        QAccessibleInterface *page = QAccessible::queryAccessibleInterface(m_updater->historyPage());
        QTEST(page->text(QAccessible::Description), "text");
        QCOMPARE(page->text(QAccessible::Name), "Example " + record["version"].toString());

        showActive();
        QStringList labels;
        for (int i = 0; i < 3; ++i) {
            QTest::keyClick(window().windowHandle(), Qt::Key_Tab);
            labels += QAccessible::queryAccessibleInterface(qApp->focusWidget())->text(QAccessible::Name);
        }
        QCOMPARE(labels, (QStringList{"Cancel", "Skip", "Install"}));
        m_updater->setConfig({});
        m_updater->setUpdate({});
    }

    void iconIsOnFivePages()
    {
        QImage icon(4, 4, QImage::Format_RGB32);
        icon.fill(Qt::green);
        m_updater->setIcon(icon);
        for (ZELUpdaterPage *page : std::initializer_list<ZELUpdaterPage *>{
                 m_updater->downloadPage(), m_updater->checkingPage(), m_updater->errorPage(),
                 m_updater->noUpdatesPage(), m_updater->updatedPage()})
            QCOMPARE(page->icon()->image(), icon);
        m_updater->setIcon({});
        QVERIFY(m_updater->errorPage()->icon()->image().isNull());
    }

    void windowIsDarkAndStays()
    {
        m_updater->showErrorPage();
        window().show();
        QCOMPARE(window().grab().toImage().pixelColor(3, 3), QColor(41, 41, 41));
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
        const auto lightest = [](const QWidget *label) {
            const QImage seen = const_cast<QWidget *>(label)
                                    ->window()
                                    ->grab(QRect(label->mapTo(label->window(), QPoint()), label->size()))
                                    .toImage();
            int light = 0;
            for (int y = 0; y < seen.height(); ++y)
                for (int x = 0; x < seen.width(); ++x)
                    light = std::max(light, qGray(seen.pixel(x, y)));
            return light;
        };
        const QLabel *message = m_updater->errorPage()->text();
        const int dim = lightest(message);
        for (const auto &[window_, text] : {std::pair(Qt::black, Qt::white), {Qt::white, Qt::black}}) {
            QPalette palette = usual;
            palette.setColor(QPalette::Window, window_);
            palette.setColor(QPalette::WindowText, text);
            QApplication::setPalette(palette);
            QTRY_COMPARE(window().grab().toImage().pixelColor(3, 3), QColor(Qt::black));
            QTRY_VERIFY(lightest(message) > dim * 5 / 4);
            const QPoint button = m_updater->errorPage()->cancelButton()->pos();
            QCOMPARE(window().grab().toImage().pixelColor(button + QPoint(60, 0)), QColor(Qt::white));
            QCOMPARE(window().grab().toImage().pixelColor(button + QPoint(60, 3)), QColor(Qt::black));
        }
        QApplication::setPalette(usual);
        QTRY_COMPARE(window().grab().toImage().pixelColor(3, 3), QColor(41, 41, 41));
        QTRY_COMPARE(lightest(message), dim);
    }

    void dragMovesTheWindow()
    {
        m_updater->showErrorPage();
        window().setFrame({100, 100, 350, 400}, false);
        window().show();
        QTest::mousePress(m_updater->errorPage()->label(), Qt::LeftButton, {}, {10, 5});
        const QPoint from = m_updater->errorPage()->label()->mapToGlobal(QPoint(10, 5));
        QMouseEvent move(QEvent::MouseMove, QPointF(10, 5), from + QPoint(30, 20), Qt::LeftButton,
                         Qt::LeftButton, {});
        QCoreApplication::sendEvent(m_updater->errorPage()->label(), &move);
        QTest::mouseRelease(m_updater->errorPage()->label(), Qt::LeftButton);
        QCOMPARE(window().pos(), QPoint(130, 120));
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

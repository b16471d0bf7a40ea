#include "ZELImageView.h"
#include "ZELLayout.h"
#include "ZELLocalization.h"
#include "ZELProgressIndicator.h"
#include "ZELUpdaterButton.h"
#include "ZELUpdaterCheckingPage.h"
#include "ZELUpdaterDownloadPage.h"
#include "ZELUpdaterErrorPage.h"
#include "ZELUpdaterFooter.h"
#include "ZELUpdaterHistoryPage.h"
#include "ZELUpdaterNoUpdatesPage.h"
#include "ZELUpdaterUpdatedPage.h"
#include "ZELUpdaterView.h"

#include <QLabel>
#include <QTest>

namespace {

/// Every kind of page, in a container as the window is one.
struct Pages {
    ZELUpdaterCheckingPage checking;
    ZELUpdaterDownloadPage download;
    ZELUpdaterErrorPage error;
    ZELUpdaterNoUpdatesPage noUpdates;
    ZELUpdaterUpdatedPage updated;
    ZELUpdaterHistoryPage history;

    void show(const QSize &size)
    {
        for (QWidget *page :
             std::initializer_list<QWidget *>{&checking, &download, &error, &noUpdates, &updated, &history}) {
            page->resize(size);
            page->show();
        }
    }

    QWidget *part(const QString &page, const QString &part)
    {
        const QMap<QString, QWidget *> parts{
            {"checking icon", checking.icon()},
            {"checking label", checking.label()},
            {"checking activity", checking.progress()->parentWidget()},
            {"checking progress", checking.progress()},
            {"checking cancel", checking.cancelButton()},
            {"download icon", download.icon()},
            {"download label", download.label()},
            {"download text", download.text()},
            {"download progress", download.progress()},
            {"download cancel", download.cancelButton()},
            {"error icon", error.icon()},
            {"error label", error.label()},
            {"error text", error.text()},
            {"error activity", error.progress()->parentWidget()},
            {"error cancel", error.cancelButton()},
            {"error retry", error.retryButton()},
            {"noUpdates icon", noUpdates.icon()},
            {"noUpdates label", noUpdates.label()},
            {"noUpdates text", noUpdates.text()},
            {"noUpdates cancel", noUpdates.cancelButton()},
            {"updated icon", updated.icon()},
            {"updated label", updated.label()},
            {"updated text", updated.text()},
            {"updated cancel", updated.cancelButton()},
            {"history later", history.laterButton()},
            {"history skip", history.skipButton()},
            {"history download", history.downloadButton()},
        };
        return parts.value(page + u' ' + part);
    }
};

constexpr int Content = -1; // a height that the content decides

} // namespace

class PagesTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { zel::setLanguage(QStringLiteral("en")); }

    void partsArePlaced_data()
    {
        QTest::addColumn<QString>("page");
        QTest::addColumn<QString>("part");
        QTest::addColumn<QRect>("place"); // at 350 × 400
        QTest::addColumn<QString>("text");

        const auto row = [](const char *page, const char *part, const QRect &place, const char *text = "") {
            QTest::addRow("%s, %s", page, part) << page << part << place << text;
        };
        const QRect icon(87, 32, 176, 176);
        const QRect button(32, 336, 286, 32);
        row("checking", "icon", icon);
        row("checking", "label", {32, 238, 286, Content}, "Checking for Updates");
        row("checking", "cancel", button, "Cancel");
        row("download", "icon", icon);
        row("download", "label", {32, 230, 286, Content}, "Downloading");
        row("download", "text", {32, 266, 286, Content});
        row("download", "cancel", button, "Cancel");
        row("error", "icon", icon);
        row("error", "label", {32, 230, 286, Content}, "Error");
        row("error", "text", {32, 266, 286, Content}, "An error occurred while updating.");
        row("error", "cancel", {32, 336, 127, 32}, "Cancel");
        row("error", "retry", {191, 336, 127, 32}, "Retry");
        row("noUpdates", "icon", icon);
        row("noUpdates", "label", {32, 230, 286, Content}, "Up To Date");
        row("noUpdates", "text", {24, 266, 302, Content}, "No updates are available.");
        row("noUpdates", "cancel", button, "Done");
        row("updated", "icon", icon);
        row("updated", "label", {32, 230, 286, Content}, "Completed");
        row("updated", "text", {24, 266, 302, Content}, "Updates were successfully installed.");
        row("updated", "cancel", button, "Done");
        row("history", "later", {32, 336, 82, 32}, "Cancel");
        row("history", "skip", {134, 336, 82, 32}, "Skip");
        row("history", "download", {236, 336, 82, 32}, "Install");
    }

    void partsArePlaced()
    {
        QFETCH(QString, page);
        QFETCH(QString, part);
        QFETCH(QRect, place);
        QFETCH(QString, text);

        Pages pages;
        pages.history.updateButtons({});
        pages.show({350, 400});
        QWidget *widget = pages.part(page, part);
        if (place.height() == Content)
            place.setHeight(widget->heightForWidth(place.width()) >= 0 ? widget->heightForWidth(place.width())
                                                                       : widget->sizeHint().height());
        QCOMPARE(widget->geometry(), place);
        if (const auto *label = qobject_cast<QLabel *>(widget))
            QCOMPARE(label->text(), text);
        if (const auto *button = qobject_cast<ZELUpdaterButton *>(widget))
            QCOMPARE(button->label(), text);
    }

    void activityFillsTheRoomAboveTheButton()
    {
        Pages pages;
        pages.show({350, 400});
        const auto middleOf = [&](const QString &page, const QString &above, int bottom) {
            const int top = pages.part(page, above)->geometry().bottom() + 1;
            return QRect(0, top, 350, bottom - top);
        };
        QCOMPARE(pages.part("checking", "activity")->geometry(), middleOf("checking", "label", 336));
        QCOMPARE(pages.part("error", "activity")->geometry(), middleOf("error", "text", 350));
        const QRect room = pages.part("checking", "activity")->rect();
        QCOMPARE(pages.checking.progress()->size(), QSize(18, 18));
        QVERIFY((pages.checking.progress()->geometry().center() - room.center()).manhattanLength() <= 1);
        QVERIFY(pages.checking.progress()->isHidden());
        QVERIFY(pages.error.progress()->isHidden());
    }

    void barFollowsAMessageThatGrows()
    {
        Pages pages;
        pages.show({350, 400});
        ZELUpdaterDownloadPage &page = pages.download;
        const int oneLine = page.text()->height();
        page.text()->setText(
            QStringLiteral("Many words that take more than one line of this page. ").repeated(3));
        QTRY_VERIFY(page.text()->height() >= 3 * oneLine);
        QTRY_COMPARE(page.progress()->geometry(),
                     QRect(60, page.text()->geometry().bottom() + 1 + 12, 350 - 120, 18));
        QCOMPARE(page.width(), 350);
    }

    void updateButtonsTwiceLeavesThree()
    {
        ZELUpdaterHistoryPage page;
        page.resize(500, 470);
        page.show();
        page.updateButtons({});
        page.updateButtons({});
        QTRY_COMPARE(page.laterButton()->geometry(), QRect(32, 406, 132, 32));
        QCOMPARE(page.skipButton()->geometry(), QRect(184, 406, 132, 32));
        QCOMPARE(page.downloadButton()->geometry(), QRect(336, 406, 132, 32));
        QVERIFY(page.skipButton()->isVisible());
        const QList<ZELUpdaterButton *> order{page.laterButton(), page.downloadButton(), page.skipButton()};
        QCOMPARE(page.findChildren<ZELUpdaterButton *>(), order);
    }

    void imageIsScaledIntoItsView()
    {
        ZELImageView view;
        view.resize(176, 176);
        QImage wide(400, 100, QImage::Format_RGB32);
        wide.fill(Qt::red);
        view.setImage(wide);
        const QImage seen = view.grab().toImage();
        QCOMPARE(seen.pixelColor(2, 88), QColor(Qt::red));
        QCOMPARE(seen.pixelColor(173, 88), QColor(Qt::red));
        QVERIFY(seen.pixelColor(88, 60) != QColor(Qt::red));
        view.setImage({});
        QVERIFY(view.grab().toImage().pixelColor(88, 88) != QColor(Qt::red));
    }

    void backgroundsDraw()
    {
        QWidget white;
        white.resize(20, 20);
        white.setPalette(QPalette(Qt::white));
        auto *dim = new ZELUpdaterView(&white);
        dim->setGeometry(0, 0, 10, 20);
        auto *footer = new ZELUpdaterFooter(&white);
        footer->setGeometry(10, 5, 10, 10);
        const QImage seen = white.grab().toImage();
        QCOMPARE(seen.pixelColor(5, 5), QColor(102, 102, 102));
        QCOMPARE(seen.pixelColor(15, 5), QColor(38, 38, 38));
        QCOMPARE(seen.pixelColor(15, 4), QColor(Qt::white));
        QCOMPARE(seen.pixelColor(15, 6), QColor(Qt::white));
    }
};

QTEST_MAIN(PagesTest)
#include "tst_Pages.moc"

#include "support/Table.h"
#include "ui/Drawing.h"
#include "ui/Texts.h"
#include "ui/ZELLayout.h"
#include "ui/ZELProgressIndicator.h"
#include "ui/ZELUpdaterButton.h"
#include "ui/ZELUpdaterHistoryPage.h"
#include "ui/ZELUpdaterPages.h"

#include <QGlyphRun>
#include <QHelpEvent>
#include <QLabel>
#include <QRawFont>
#include <QTextLayout>
#include <QToolTip>

namespace {

// Every kind of page, in a container as the window is one.
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
};

// The families that a text is written in.
QStringList familiesThatWrite(const QString &text, const QFont &font)
{
    QTextLayout layout(text, font);
    layout.beginLayout();
    layout.createLine();
    layout.endLayout();
    QStringList families;
    for (const QGlyphRun &run : layout.glyphRuns())
        families += run.rawFont().familyName();
    families.sort();
    return families;
}

// The lines of a text in a picture: the bands of rows with anything in them.
int inkedBands(const QImage &image)
{
    int bands = 0;
    bool wasInked = false;
    for (int y = 0; y < image.height(); ++y) {
        bool isInked = false;
        for (int x = 1; x < image.width(); ++x)
            isInked = isInked || image.pixel(x, y) != image.pixel(0, 0);
        bands += isInked && !wasInked;
        wasInked = isInked;
    }
    return bands;
}

constexpr int Content = -1; // a height that the content decides

} // namespace

class tst_Pages : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        zel::setLanguage("en");
        m_pages = std::make_unique<Pages>();
        for (int round = 0; round < 2; ++round) // the buttons are taken out and placed again
            m_pages->history.updateButtons({});
        m_pages->show({350, 400});
    }

    void partsArePlaced_data()
    {
        const Table<QWidget *, QRect, QString> row; // the places at 350 × 400
        auto &[checking, download, error, noUpdates, updated, history] = *m_pages;
        const auto rows = [&](const QByteArray &name, const ZELUpdaterPage &page, int labelTop,
                              const char *label, const QRect &cancelPlace, const char *cancel) {
            row(name + ", icon", page.icon(), {87, 32, 176, 176}, "");
            row(name + ", label", page.label(), {32, labelTop, 286, Content}, label);
            row(name + ", cancel", page.cancelButton(), cancelPlace, cancel);
        };
        const QRect button(32, 336, 286, 32);
        rows("checking", checking, 238, "Checking for Updates", button, "Cancel");
        rows("download", download, 230, "Downloading", button, "Cancel");
        row("download, text", download.text(), {32, 266, 286, Content}, "");
        rows("error", error, 230, "Error", {32, 336, 127, 32}, "Cancel");
        row("error, text", error.text(), {32, 266, 286, Content}, "An error occurred while updating.");
        row("error, retry", error.retryButton(), {191, 336, 127, 32}, "Retry");
        rows("no updates", noUpdates, 230, "Up To Date", button, "Done");
        row("no updates, text", noUpdates.text(), {24, 266, 302, Content}, "No updates are available.");
        rows("updated", updated, 230, "Completed", button, "Done");
        row("updated, text", updated.text(), {24, 266, 302, Content}, "Updates were successfully installed.");
        row("notes, later", history.laterButton(), {32, 336, 82, 32}, "Cancel");
        row("notes, skip", history.skipButton(), {134, 336, 82, 32}, "Skip");
        row("notes, download", history.downloadButton(), {236, 336, 82, 32}, "Install");
    }

    void partsArePlaced()
    {
        auto [part, place, text] = Table<QWidget *, QRect, QString>::current();
        if (place.height() == Content)
            place.setHeight(part->hasHeightForWidth() ? part->heightForWidth(place.width())
                                                      : part->sizeHint().height());
        QCOMPARE(part->geometry(), place);
        if (const auto *label = qobject_cast<QLabel *>(part))
            QVERIFY(label->text() == text && label->alignment() & Qt::AlignHCenter);
        if (const auto *button = qobject_cast<ZELUpdaterButton *>(part))
            QCOMPARE(button->label(), text);
    }

    void activityFillsTheRoomAboveTheButton()
    {
        const auto roomBelow = [](const QWidget *above, int bottom) {
            const int top = above->geometry().bottom() + 1;
            return QRect(0, top, 350, bottom - top);
        };
        const ZELProgressIndicator *turning = m_pages->checking.progress();
        QCOMPARE(turning->parentWidget()->geometry(), roomBelow(m_pages->checking.label(), 336));
        QCOMPARE(m_pages->error.progress()->parentWidget()->geometry(),
                 roomBelow(m_pages->error.text(), 350));
        QCOMPARE(turning->size(), QSize(18, 18));
        const QPoint middle = turning->parentWidget()->rect().center();
        QVERIFY((turning->geometry().center() - middle).manhattanLength() <= 1);
        QVERIFY(turning->isHidden());
        QVERIFY(m_pages->error.progress()->isHidden());
    }

    void barFollowsAMessageThatGrows()
    {
        ZELUpdaterDownloadPage &page = m_pages->download;
        const int oneLine = page.text()->height();
        page.text()->setText(QString("Many words that take at least two lines of this page in any font."));
        QTRY_VERIFY(page.text()->height() >= 2 * oneLine);
        QTRY_COMPARE(page.progress()->geometry(),
                     QRect(60, page.text()->geometry().bottom() + 1 + 12, 350 - 120, 18));
        QCOMPARE(page.width(), 350);
    }

    void longMessageStaysAboveTheButtons_data()
    {
        const Table<QString, bool> row; // is it shown as a whole?
        row("four lines", "One\ntwo\nthree\nfour", true); // five in most fonts
        row("many words", QString("A message that somebody wrote. ").repeated(30), false);
        row("one long word", QString("/home/user/").repeated(12), true);
    }

    void longMessageStaysAboveTheButtons()
    {
        const auto [text, isWhole] = Table<QString, bool>::current();
        const ZELUpdaterErrorPage &page = m_pages->error;
        const QString usual = page.text()->text();
        page.text()->setText(text);
        QTRY_VERIFY(page.text()->height() > 40);
        QVERIFY(page.text()->geometry().bottom() < page.cancelButton()->y() - 3);
        const int bands = inkedBands(page.text()->grab().toImage());
        QVERIFY2(bands >= 3, qPrintable(QString::number(bands)));
        QHelpEvent asked(QEvent::ToolTip, {5, 5}, page.text()->mapToGlobal(QPoint(5, 5)));
        QCoreApplication::sendEvent(page.text(), &asked);
        QCOMPARE(QToolTip::text().isEmpty(), isWhole);
        QToolTip::hideText();
        QTRY_VERIFY(QToolTip::text().isEmpty());
        page.text()->setText(usual);
        QTRY_VERIFY(page.text()->height() < 40);
    }

    // A look-up that minds the weight before the kind finds a monospaced font for Arabic.
    void titlesAreInTheFontOfTheirTexts()
    {
        for (const char *language : {"ar", "he", "ru", "ja", "de"}) {
            zel::setLanguage(language);
            const ZELUpdaterErrorPage page;
            QFont normal = page.label()->font();
            normal.setWeight(QFont::Normal);
            QCOMPARE(familiesThatWrite(page.label()->text(), page.label()->font()),
                     familiesThatWrite(page.label()->text(), normal));
        }
        zel::setLanguage("en");
    }

    void buttonsHaveRoomForTheirLabels()
    {
        QStringList faults;
        for (const QString &file : QDir(":/ZELUpdater/texts").entryList({"*.qm"})) {
            zel::setLanguage(file.section('.', 0, 0).mid(qstrlen("ZELUpdater_")));
            ZELUpdaterErrorPage error;
            ZELUpdaterHistoryPage history;
            history.updateButtons({});
            error.resize(350, 400);
            history.resize(500, 470);
            error.show();
            history.show();
            for (const ZELUpdaterButton *button :
                 error.findChildren<ZELUpdaterButton *>() + history.findChildren<ZELUpdaterButton *>()) {
                const QFontMetricsF smallest(zel::systemFont(11, QFont::DemiBold, button->label()));
                if (smallest.horizontalAdvance(button->label()) > button->width() - 30)
                    faults += file + ": " + button->label();
            }
        }
        zel::setLanguage("en");
        QCOMPARE(faults, QStringList());
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
        view.setImage(wide.copy(0, 0, 20, 20)); // it is never scaled up
        QCOMPARE(view.grab().toImage().pixelColor(88, 88), QColor(Qt::red));
        QVERIFY(view.grab().toImage().pixelColor(60, 88) != QColor(Qt::red));
        view.setImage({});
        QVERIFY(view.grab().toImage().pixelColor(88, 88) != QColor(Qt::red));
    }

private:
    std::unique_ptr<Pages> m_pages;
};

QTEST_MAIN(tst_Pages)
#include "tst_Pages.moc"

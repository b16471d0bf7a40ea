#include "FrameLayout.h"
#include "ZELLayout.h"

#include <QLabel>
#include <QtTest>
#include <QWidget>

namespace {

constexpr qint64 none = ZELLayoutNotSet;
constexpr qint64 huge = ZELLayoutNotSet - 1;
constexpr qint64 least = std::numeric_limits<qint64>::min();

/// A view whose content has a size of its own.
class Box : public QWidget
{
public:
    explicit Box(QWidget *container, QSize content = {40, 20})
        : QWidget(container)
        , m_content(content)
    {
    }
    QSize sizeHint() const override { return m_content; }

private:
    QSize m_content;
};

QLabel *wrappingLabel(QWidget *container, const QString &text = "Short")
{
    auto *label = new QLabel(text, container);
    label->setWordWrap(true);
    return label;
}

const QString longText = QString("Many words that need more than one line. ").repeated(4);

/// Lets what was asked for happen now, as the event loop would.
void settle()
{
    QCoreApplication::sendPostedEvents();
}

ZELLayoutFrame at(qint64 left, qint64 top, qint64 width = none, qint64 height = none)
{
    return ZELMakeLayoutFrame(left, none, top, none, width, height);
}

} // namespace

Q_DECLARE_METATYPE(ZELLayoutFrame)

class tst_Layout : public QObject
{
    Q_OBJECT

    QWidget m_owner;
    QWidget *m_container = nullptr;

private slots:
    void initTestCase()
    {
        m_owner.resize(600, 600);
        m_owner.show();
    }
    void init()
    {
        m_container = new QWidget(&m_owner);
        m_container->setGeometry(10, 10, 350, 400);
        m_container->show();
    }
    void cleanup() { delete m_container; }

    void frames_data()
    {
        QTest::addColumn<ZELLayoutFrame>("frame");
        QTest::addColumn<Qt::Orientations>("centered");
        QTest::addColumn<QRect>("expected");
        const Qt::Orientations no, across = Qt::Horizontal, both = Qt::Horizontal | Qt::Vertical;

        QTest::newRow("fills") << ZELMakeLayoutFrame(0, 0, 0, 0, none, none) << no << QRect(0, 0, 350, 400);
        QTest::newRow("inset") << ZELMakeLayoutFrame(32, -24, 16, -8, none, none) << no
                               << QRect(32, 16, 294, 376);
        QTest::newRow("beyond the edges")
            << ZELMakeLayoutFrame(-5, 5, -6, 6, none, none) << no << QRect(-5, -6, 360, 412);
        QTest::newRow("button") << ZELMakeLayoutFrame(32, -32, none, -32, none, 32) << no
                                << QRect(32, 336, 286, 32);
        QTest::newRow("far edges, content")
            << ZELMakeLayoutFrame(none, -32, none, -8, none, none) << no << QRect(278, 372, 40, 20);
        QTest::newRow("near edges, content") << at(7, 9) << no << QRect(7, 9, 40, 20);
        QTest::newRow("nothing set") << ZELLayoutFrame() << no << QRect(0, 0, 40, 20);
        QTest::newRow("size decides over the far edge")
            << ZELMakeLayoutFrame(10, 0, 10, 0, 20, 30) << no << QRect(10, 10, 20, 30);
        QTest::newRow("crossed edges")
            << ZELMakeLayoutFrame(300, -100, 0, 0, none, none) << no << QRect(300, 0, 0, 400);
        QTest::newRow("negative size") << at(1, 2, -5, -6) << no << QRect(1, 2, 0, 0);

        QTest::newRow("centred across") << at(none, 32, 176, 176) << across << QRect(87, 32, 176, 176);
        QTest::newRow("centred both ways") << at(none, none, 18, 18) << both << QRect(166, 191, 18, 18);
        QTest::newRow("centred content") << ZELLayoutFrame() << both << QRect(155, 190, 40, 20);
        QTest::newRow("edges decide over the centre")
            << ZELMakeLayoutFrame(60, none, none, -8, 20, 20) << both << QRect(60, 372, 20, 20);

        QTest::newRow("huge near edge")
            << at(huge, least, 10, 10) << no << QRect(QWIDGETSIZE_MAX, -QWIDGETSIZE_MAX, 10, 10);
        QTest::newRow("huge edges") << ZELMakeLayoutFrame(least, huge, huge, least, none, none) << no
                                    << QRect(-QWIDGETSIZE_MAX, QWIDGETSIZE_MAX, QWIDGETSIZE_MAX, 0);
        QTest::newRow("huge size") << at(0, 0, huge, huge) << no
                                   << QRect(0, 0, QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
        QTest::newRow("huge size from the far edge")
            << ZELMakeLayoutFrame(none, least, none, huge, huge, 1) << no
            << QRect(-QWIDGETSIZE_MAX, QWIDGETSIZE_MAX, QWIDGETSIZE_MAX, 1);
    }

    void frames()
    {
        QFETCH(ZELLayoutFrame, frame);
        QFETCH(Qt::Orientations, centered);
        QFETCH(QRect, expected);
        Box view(m_container);
        if (centered.testFlag(Qt::Vertical))
            zel::centerVertically(&view); // before the frame: the order does not matter
        QCOMPARE(ZELLayoutView(&view, frame), &view);
        if (centered.testFlag(Qt::Horizontal))
            zel::centerHorizontally(&view);
        settle();
        QCOMPARE(view.geometry(), expected);
    }

    void rows_data()
    {
        QTest::addColumn<int>("views");
        QTest::addColumn<qint64>("spacing");
        QTest::addColumn<ZELLayoutFrame>("frame");
        QTest::addColumn<QList<int>>("edges"); // left and width of each view
        const ZELLayoutFrame buttons = ZELMakeLayoutFrame(32, -32, none, -32, none, 32);

        QTest::newRow("three") << 3 << qint64(20) << buttons << QList<int>{32, 82, 134, 82, 236, 82};
        QTest::newRow("two") << 2 << qint64(32) << buttons << QList<int>{32, 127, 191, 127};
        QTest::newRow("one pixel over")
            << 3 << qint64(20) << at(0, 0, 287) << QList<int>{0, 82, 102, 82, 204, 83};
        QTest::newRow("two pixels over")
            << 3 << qint64(20) << at(0, 0, 288) << QList<int>{0, 82, 102, 83, 205, 83};
        QTest::newRow("odd pair") << 2 << qint64(0) << at(0, 0, 101) << QList<int>{0, 50, 50, 51};
        QTest::newRow("region open") << 2 << qint64(10) << ZELLayoutFrame() << QList<int>{0, 170, 180, 170};
        QTest::newRow("width from the right")
            << 2 << qint64(10) << ZELMakeLayoutFrame(none, -50, 0, none, 110, none)
            << QList<int>{190, 50, 250, 50};
        QTest::newRow("no room") << 3 << qint64(60) << at(0, 0, 100) << QList<int>{0, 0, 60, 0, 120, 0};
        QTest::newRow("huge spacing") << 2 << huge << at(0, 0, 100) << QList<int>{0, 0, QWIDGETSIZE_MAX, 0};
    }

    void rows()
    {
        QFETCH(int, views);
        QFETCH(qint64, spacing);
        QFETCH(ZELLayoutFrame, frame);
        QFETCH(QList<int>, edges);
        m_container->setLayoutDirection(Qt::RightToLeft);
        Box first(m_container), second(m_container), third(m_container);
        if (views == 2)
            ZELLayoutViewsHorizontal(&first, &second, spacing, frame);
        else
            ZELLayoutViewsHorizontal2(&first, &second, &third, spacing, frame);
        settle();
        QList<int> found;
        for (const QWidget *view : {&first, &second, &third})
            found << view->x() << view->width();
        QCOMPARE(found.first(2 * views), edges);
    }

    void rowIsLaidOutAgain()
    {
        const ZELLayoutFrame row = ZELMakeLayoutFrame(32, -32, none, -32, none, 32);
        QList<Box *> views{new Box(m_container), new Box(m_container), new Box(m_container)};
        for (int round = 0; round < 2; ++round) {
            for (Box *view : views)
                view->setParent(nullptr);
            QCOMPARE(m_container->children().size(), round);
            for (Box *view : views)
                view->setParent(m_container);
            std::rotate(views.begin(), views.begin() + 1, views.end());
            ZELLayoutViewsHorizontal2(views[0], views[1], views[2], 20, row);
            settle();
            QCOMPARE(views[0]->geometry(), QRect(32, 336, 82, 32));
            QCOMPARE(views[2]->geometry(), QRect(236, 336, 82, 32));
            QCOMPARE(m_container->layout()->count(), 3);
        }
    }

    void containerIsResized()
    {
        Box filling(m_container), centered(m_container), corner(m_container);
        ZELLayoutView(&filling, ZELMakeLayoutFrame(0, 0, 0, -96, none, none));
        ZELLayoutView(&centered, at(none, 32, 176, 176));
        zel::centerHorizontally(&centered);
        ZELLayoutView(&corner, ZELMakeLayoutFrame(none, -32, none, -32, none, none));
        settle();
        m_container->resize(500, 470);
        QCOMPARE(filling.geometry(), QRect(0, 0, 500, 374));
        QCOMPARE(centered.geometry(), QRect(162, 32, 176, 176));
        QCOMPARE(corner.geometry(), QRect(428, 418, 40, 20));
    }

    void textGrows()
    {
        QLabel *label = wrappingLabel(m_container);
        Box bar(m_container), area(m_container);
        // Laid out from the bottom up: the order of the calls does not decide.
        ZELLayoutViewBelowView(&area, &bar, ZELMakeLayoutFrame(0, 0, 0, -64, none, none));
        ZELLayoutViewBelowView(&bar, label, ZELMakeLayoutFrame(60, -60, 12, none, none, 18));
        ZELLayoutView(label, ZELMakeLayoutFrame(32, -32, 230, none, none, none));
        settle();
        const int oneLine = label->height();
        QCOMPARE(bar.geometry(), QRect(60, 230 + oneLine + 12, 230, 18));

        label->setText(longText);
        settle();
        QVERIFY(label->height() > 2 * oneLine);
        QCOMPARE(label->height(), label->heightForWidth(286));
        QCOMPARE(label->width(), 286);
        QCOMPARE(bar.y(), 230 + label->height() + 12);
        QCOMPARE(area.geometry(), QRect(QPoint(0, bar.y() + 18), QPoint(349, 400 - 64 - 1)));
    }

    void contentNeverSizesTheWindow()
    {
        QWidget window;
        auto *page = new QWidget(&window);
        ZELLayoutView(page, ZELMakeLayoutFrame(0, 0, 0, 0, none, none));
        auto *title = new QLabel(longText, page);
        ZELLayoutView(title, ZELMakeLayoutFrame(32, -32, 20, none, none, none));
        window.resize(350, 400);
        window.show();
        settle();
        QCOMPARE(window.size(), QSize(350, 400));
        QCOMPARE(title->width(), 286);
        window.resize(60, 50);
        QCOMPARE(window.size(), QSize(60, 50));
        QCOMPARE(page->geometry(), QRect(0, 0, 60, 50));
    }

    void viewIsLaidOutAgain()
    {
        Box view(m_container), reference(m_container);
        ZELLayoutView(&reference, at(0, 100));
        ZELLayoutViewBelowView(&view, &reference, at(0, 10));
        ZELLayoutView(&view, at(5, 6, 7, 8));
        settle();
        QCOMPARE(view.geometry(), QRect(5, 6, 7, 8));
    }

    void viewLeaves_data()
    {
        QTest::addColumn<bool>("deleted");
        QTest::addColumn<bool>("placed");
        QTest::newRow("taken out") << false << true;
        QTest::newRow("deleted") << true << true;
        QTest::newRow("taken out, never placed") << false << false;
        QTest::newRow("deleted, never placed") << true << false;
    }

    void viewLeaves()
    {
        QFETCH(bool, deleted);
        QFETCH(bool, placed);
        auto reference = std::make_unique<Box>(m_container);
        Box below(m_container), lower(m_container);
        reference->setGeometry(0, 100, 40, 20);
        if (placed)
            ZELLayoutView(reference.get(), at(0, 100));
        ZELLayoutViewBelowView(&below, reference.get(), at(3, 5));
        ZELLayoutViewBelowView(&lower, &below, at(3, 5));
        settle();
        QCOMPARE(below.geometry(), QRect(3, 125, 40, 20));

        if (deleted)
            reference.reset();
        else
            reference->setParent(nullptr);
        below.move(3, 200);
        m_container->resize(300, 300);
        QCOMPARE(below.pos(), QPoint(3, 200));
        QCOMPARE(lower.pos(), QPoint(3, 225));

        if (!deleted) { // back again it has no rules, neither of its own nor of others
            reference->setParent(m_container);
            reference->move(50, 60);
            m_container->layout()->invalidate();
            settle();
            QCOMPARE(reference->pos(), QPoint(50, 60));
            QCOMPARE(below.pos(), QPoint(3, 200));
        }
    }

    void ringOfReferencesEnds()
    {
        Box first(m_container), second(m_container);
        ZELLayoutViewBelowView(&first, &second, at(0, 10));
        ZELLayoutViewBelowView(&second, &first, at(0, 10));
        settle();
        QVERIFY(first.y() > 0 || second.y() > 0);
    }

    void viewsThatCannotBePlaced()
    {
        QWidget managed;
        new QHBoxLayout(&managed);
        Box lone(nullptr), inside(m_container), elsewhere(&managed);
        elsewhere.setGeometry(1, 2, 3, 4);
        QCOMPARE(ZELLayoutView(nullptr, at(5, 5)), nullptr);
        ZELLayoutView(&lone, at(5, 5));
        ZELLayoutView(&elsewhere, at(5, 5));
        ZELLayoutViewBelowView(&inside, nullptr, at(5, 5));
        ZELLayoutViewBelowView(&inside, &elsewhere, at(5, 5));
        ZELLayoutViewsHorizontal(&inside, &lone, 5, at(5, 5));
        zel::centerVertically(nullptr);
        settle();
        QCOMPARE(elsewhere.geometry(), QRect(1, 2, 3, 4));
        QVERIFY(!m_container->layout());
    }
};

QTEST_MAIN(tst_Layout)
#include "tst_Layout.moc"

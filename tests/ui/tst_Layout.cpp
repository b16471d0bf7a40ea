#include "support/Table.h"
#include "ui/FrameLayout.h"
#include "ui/ZELLayout.h"

#include <QLabel>
#include <QWidget>

namespace {

constexpr qint64 None = ZELLayoutNotSet;
constexpr qint64 Huge = ZELLayoutNotSet - 1;
constexpr qint64 Least = std::numeric_limits<qint64>::min();

// A view whose content has a size of its own.
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

// Lets what was asked for happen now, as the event loop would.
void settle()
{
    QCoreApplication::sendPostedEvents();
}

ZELLayoutFrame edges(qint64 left, qint64 right, qint64 top, qint64 bottom, qint64 width = None,
                     qint64 height = None)
{
    return ZELMakeLayoutFrame(left, right, top, bottom, width, height);
}

ZELLayoutFrame at(qint64 left, qint64 top, qint64 width = None, qint64 height = None)
{
    return edges(left, None, top, None, width, height);
}

const ZELLayoutFrame ButtonRow = edges(32, -32, None, -32, None, 32);

} // namespace

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
        const Table<ZELLayoutFrame, Qt::Orientations, QRect> row; // the orientations it is centred in
        const Qt::Orientations no, across = Qt::Horizontal, both = Qt::Horizontal | Qt::Vertical;
        row("inset", edges(32, -24, 16, -8), no, {32, 16, 294, 376});
        row("far edges, content", edges(None, -32, None, -8), no, {278, 372, 40, 20});
        row("near edges, content", at(7, 9), no, {7, 9, 40, 20});
        row("size decides over the far edge", edges(10, 0, 10, 0, 20, 30), no, {10, 10, 20, 30});
        row("crossed edges", edges(300, -100, 0, 0), no, {300, 0, 0, 400});

        row("centred across", at(None, 32, 176, 176), across, {87, 32, 176, 176});
        row("centred content", {}, both, {155, 190, 40, 20});
        row("edges decide over the centre", edges(60, None, None, -8, 20, 20), both, {60, 372, 20, 20});

        constexpr int max = QWIDGETSIZE_MAX;
        row("huge near edge", at(Huge, Least, 10, 10), no, {max, -max, 10, 10});
        row("huge edges", edges(Least, Huge, Huge, Least), no, {-max, max, max, 0});
        row("huge size", at(0, 0, Huge, Huge), no, {0, 0, max, max});
        row("huge size from the far edge", edges(None, Least, None, Huge, Huge, 1), no, {-max, max, max, 1});
    }

    void frames()
    {
        const auto [frame, centred, expected] = Table<ZELLayoutFrame, Qt::Orientations, QRect>::current();
        Box view(m_container);
        if (centred.testFlag(Qt::Vertical))
            zel::centreVertically(&view); // before the frame: the order does not matter
        QCOMPARE(ZELLayoutView(&view, frame), &view);
        if (centred.testFlag(Qt::Horizontal))
            zel::centreHorizontally(&view);
        settle();
        QCOMPARE(view.geometry(), expected);
    }

    void rows_data()
    {
        // How many views, their spacing, and the left and width of each view.
        const Table<int, qint64, ZELLayoutFrame, QList<int>> row;
        row("three", 3, 20, ButtonRow, {32, 82, 134, 82, 236, 82});
        row("two", 2, 32, ButtonRow, {32, 127, 191, 127});
        row("two pixels over", 3, 20, at(0, 0, 288), {0, 82, 102, 83, 205, 83});
        row("region open", 2, 10, {}, {0, 170, 180, 170});
        row("width from the right", 2, 10, edges(None, -50, 0, None, 110), {190, 50, 250, 50});
        row("no room", 3, 60, at(0, 0, 100), {0, 0, 60, 0, 120, 0});
        row("huge spacing", 2, Huge, at(0, 0, 100), {0, 0, QWIDGETSIZE_MAX, 0});
    }

    void rows()
    {
        const auto [views, spacing, frame, places] =
            Table<int, qint64, ZELLayoutFrame, QList<int>>::current();
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
        QCOMPARE(found.first(2 * views), places);
    }

    void textGrows()
    {
        auto *label = new QLabel("Short", m_container);
        label->setWordWrap(true);
        Box bar(m_container), area(m_container);
        // Laid out from the bottom up: the order of the calls does not decide.
        ZELLayoutViewBelowView(&area, &bar, edges(0, 0, 0, -64));
        ZELLayoutViewBelowView(&bar, label, edges(60, -60, 12, None, None, 18));
        ZELLayoutView(label, edges(32, -32, 230, None));
        settle();
        const int oneLine = label->height();
        QCOMPARE(bar.geometry(), QRect(60, 230 + oneLine + 12, 230, 18));

        label->setText(QString("Many words that need more than one line. ").repeated(4));
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
        ZELLayoutView(page, edges(0, 0, 0, 0));
        auto *title =
            new QLabel("Words of one line that is longer than the window is wide, and then some.", page);
        ZELLayoutView(title, edges(32, -32, 20, None));
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
        const Table<bool, bool> row; // deleted, placed
        row("taken out", false, true);
        row("deleted", true, true);
        row("deleted, never placed", true, false);
    }

    void viewLeaves()
    {
        const auto [deleted, placed] = Table<bool, bool>::current();
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
        zel::centreVertically(nullptr);
        settle();
        QCOMPARE(elsewhere.geometry(), QRect(1, 2, 3, 4));
        QVERIFY(!m_container->layout());
    }
};

QTEST_MAIN(tst_Layout)
#include "tst_Layout.moc"

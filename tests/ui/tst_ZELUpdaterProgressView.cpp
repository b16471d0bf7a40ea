#include "support/AccessibilityLog.h"
#include "support/Rendering.h"
#include "support/Table.h"
#include "ui/ProgressParts.h"
#include "ui/ZELUpdaterProgressView.h"

#include <cmath>

namespace {

// A view of 200 x 200 on a dark window, with a clock that only the test moves.
struct RingScene {
    RingScene()
    {
        view.setGeometry(0, 0, 200, 200);
        timer->setClock([this] { return now; });
    }

    // Lets time pass, with a tick at its end.
    void pass(double seconds)
    {
        now += seconds;
        timer->tick();
    }

    double shownStart() const { return view.progressLayer().shownStrokeStart(now); }
    double shownEnd() const { return view.progressLayer().shownStrokeEnd(now); }

    double now = 1000;
    DarkWindow window{QSize(200, 200)};
    ZELUpdaterProgressView view{&window};
    zel::AnimationTimer *timer = view.findChild<zel::AnimationTimer *>();
};

// Whether the ring is blue from `start` to `end`, fractions of a turn clockwise from twelve o'clock, and
// there alone.
bool isBlueBetween(const QImage &image, double start, double end)
{
    return std::ranges::all_of(
        std::array{0.01, 0.24, 0.26, 0.49, 0.51, 0.74, 0.76, 0.99}, [&](double fraction) {
            const double angle = fraction * 2 * M_PI;
            const QPointF place(100.5 + 94 * std::sin(angle), 99.5 - 94 * std::cos(angle));
            return isBlue(colourAt(image, place)) == (fraction > start && fraction < end);
        });
}

QImage figures(RingScene &scene, float progress)
{
    scene.view.setProgress(progress);
    return rendered(scene.window).copy(20, 60, 160, 80);
}

} // namespace

class tst_ZELUpdaterProgressView : public QObject
{
    Q_OBJECT
private slots:
    void ring_data()
    {
        const Table<QSize, QRectF> row;
        row("wide", {100, 60}, {26.5, 6.5, 48, 48});
        row("high", {60, 100}, {6.5, 26.5, 48, 48});
        row("no room", {12, 40}, {});
        row("negative radius", {4, 4}, {-1.5, -1.5, 8, 8});
    }

    void ring()
    {
        const auto [size, expected] = Table<QSize, QRectF>::current();
        RingScene scene;
        scene.view.resize(size);
        scene.view.setProgress(0.5f);
        scene.window.show(); // a widget that was never shown hears of its size when it is
        QVERIFY(QTest::qWaitForWindowExposed(&scene.window));
        const QPainterPath path = scene.view.progressLayer().path;
        QCOMPARE(path, scene.view.backgroundLayer().path);
        QCOMPARE(path.controlPointRect(), expected);
        if (!expected.isEmpty()) { // from the top, where y is greatest, to the right
            const QPointF top(expected.center().x(), expected.bottom()),
                right(expected.right(), expected.center().y());
            QVERIFY((path.pointAtPercent(0) - top).manhattanLength() < 0.01);
            QVERIFY((path.pointAtPercent(0.25) - right).manhattanLength() < 0.01);
        }
        rendered(scene.window);
    }

    void progress_data()
    {
        const Table<float, float, double> row; // the progress, what is stored of it, how much is blue
        row("quarter", 0.25f, 0.25f, 0.25);
        row("more than all", 1.5f, 1.5f, 1);
        row("negative", -0.5f, -0.5f, 0);
        row("not a number", std::nanf(""), 0, 0);
        row("infinite", std::numeric_limits<float>::infinity(), 0, 0);
    }

    void progress()
    {
        const auto [progress, stored, share] = Table<float, float, double>::current();
        RingScene scene;
        scene.view.setProgress(progress);
        QCOMPARE(scene.view.progress(), stored);
        QCOMPARE(scene.view.progressLayer().strokeEnd, double(stored));
        for (const qreal ratio : {1.0, 1.5, 2.0})
            QVERIFY(isBlueBetween(rendered(scene.window, ratio), 0, share));
    }

    void percentage_data()
    {
        const Table<float, float> row;
        row("half to even, down", 0.125f, 0.12f);
        row("half to even, up", 0.375f, 0.38f);
        row("below half", 0.0049f, 0);
        row("single precision", 0.545f, 0.54f); // a product in double precision is above 54.5
        row("not a number", std::nanf(""), 0);
    }

    void percentage()
    {
        const auto [progress, readsLike] = Table<float, float>::current();
        RingScene scene;
        QCOMPARE(figures(scene, progress), figures(scene, readsLike));
        QVERIFY(figures(scene, 1.5f) != figures(scene, 1));
    }

    void figuresAreHiddenWhileLooping()
    {
        RingScene scene;
        scene.view.setProgress(0.5f);
        const auto isWritten = [&] { return lightest(rendered(scene.window).copy(50, 70, 100, 60)) > 200; };
        QVERIFY(isWritten());
        scene.view.startLooping();
        QVERIFY(!isWritten());
        scene.view.stopLooping();
        QVERIFY(isWritten());
    }

    void phases_data()
    {
        // The time since the start, with ticks every 0.5 s; the phase, and the stroke's start and end.
        const Table<double, qint64, double, double> row;
        row("filling slowly first", 0.5, 0, 0, 0.0561);
        row("half full", 1.5, 0, 0, 0.5);
        row("full", 3, 1, 0, 1);
        row("half emptied", 4.5, 1, 0.5, 1);
        row("empty", 6, 2, 0, 0);
        row("half emptied again", 10.5, 3, 0.5, 1);
    }

    void phases()
    {
        const auto [time, index, start, end] = Table<double, qint64, double, double>::current();
        RingScene scene;
        scene.view.setProgress(0.3f); // the animation hides it
        scene.view.startLooping();
        for (double passed = 0; passed < time; passed += 0.5)
            scene.pass(0.5);
        QVERIFY(scene.view.looping());
        QCOMPARE(scene.view.animationIndex(), index);
        QCOMPARE(scene.view.animationStart(), 1000 + 3.0 * double(index));
        QVERIFY(std::abs(scene.shownStart() - start) < 0.001);
        QVERIFY(std::abs(scene.shownEnd() - end) < 0.001);
        QVERIFY(isBlueBetween(rendered(scene.window), start, end));
    }

    void guard()
    {
        RingScene scene;
        scene.view.animationStep();
        QCOMPARE(scene.view.animationIndex(), 0); // not looping
        scene.view.startLooping();
        scene.now += 1.9;
        scene.view.animationStep();
        QCOMPARE(scene.view.animationIndex(), 0);
        scene.now += 0.2;
        scene.view.animationStep();
        QCOMPARE(scene.view.animationIndex(), 1);
        scene.pass(0.9); // the end of the fill comes early in the phase that was begun by hand
        QCOMPARE(scene.view.animationIndex(), 1);
        scene.pass(2.1);
        QCOMPARE(scene.view.animationIndex(), 2);
    }

    void stop()
    {
        RingScene scene;
        scene.view.setProgress(0.3f);
        scene.view.startLooping();
        scene.pass(3);
        scene.pass(2.5);
        scene.view.setProgress(0.6f);
        scene.view.stopLooping();
        QCOMPARE(scene.shownEnd(), double(0.6f));
        QCOMPARE(scene.shownStart(), 0.0);
        scene.pass(5);
        QCOMPARE(scene.view.animationIndex(), 1);

        scene.view.startLooping();
        scene.pass(1);
        QCOMPARE(scene.view.animationIndex(), 0);
        scene.pass(2);
        QCOMPARE(scene.view.animationIndex(), 1);
        scene.view.setLooping(false); // the property stops it alike
        scene.pass(3);
        QCOMPARE(scene.view.animationIndex(), 1);
        QVERIFY(!scene.timer->isTicking());
    }

    void runsByItself()
    {
        RingScene scene;
        scene.timer->setClock([&] { return scene.now += 0.25; });
        scene.window.show();
        scene.view.startLooping();
        QTRY_VERIFY(scene.view.animationIndex() >= 3);
    }

    void accessibility()
    {
        ZELUpdaterProgressView view;
        view.setProgress(0.42f);
        QAccessibleInterface *interface = QAccessible::queryAccessibleInterface(&view);
        QCOMPARE(interface->text(QAccessible::Value), "42%");
        QCOMPARE(interface->valueInterface()->maximumValue().toDouble(), 1.0);
        view.startLooping();
        QVERIFY(interface->state().busy);
        QCOMPARE(interface->text(QAccessible::Value), QString());
        view.setAccessibleName("Copying");
        const AccessibilityLog changes(QAccessible::ValueChanged);
        view.setProgress(0.5f);
        QCOMPARE(changes.names(), QStringList("Copying"));
    }
};

QTEST_MAIN(tst_ZELUpdaterProgressView)
#include "tst_ZELUpdaterProgressView.moc"

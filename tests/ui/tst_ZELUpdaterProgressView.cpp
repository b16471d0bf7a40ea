#include "support/AccessibilityLog.h"
#include "support/Rendering.h"
#include "ui/ProgressParts.h"
#include "ui/ZELUpdaterProgressView.h"

#include <cmath>

namespace {

/// A view of 200 x 200 on a dark window, with a clock that only the test moves.
struct RingScene {
    RingScene()
    {
        view.setGeometry(0, 0, 200, 200);
        timer->setClock([this] { return now; });
    }

    /// Lets time pass, with a tick at its end.
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

bool isBlue(const QColor &color)
{
    return color.blue() > color.red() + 60;
}

/// The colour of the ring at `fraction` of a turn, clockwise from twelve o'clock.
QColor ringColor(const QImage &image, double fraction)
{
    const double angle = fraction * 2 * M_PI;
    return colorAt(image, QPointF(100.5 + 94 * std::sin(angle), 99.5 - 94 * std::cos(angle)));
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
        QTest::addColumn<QSize>("size");
        QTest::addColumn<QRectF>("expected");
        QTest::newRow("wide") << QSize(100, 60) << QRectF(26.5, 6.5, 48, 48);
        QTest::newRow("high") << QSize(60, 100) << QRectF(6.5, 26.5, 48, 48);
        QTest::newRow("no room") << QSize(12, 40) << QRectF();
        QTest::newRow("negative radius") << QSize(4, 4) << QRectF(-1.5, -1.5, 8, 8);
        QTest::newRow("nothing") << QSize(0, 0) << QRectF(-5.5, -5.5, 12, 12);
    }

    void ring()
    {
        QFETCH(QSize, size);
        QFETCH(QRectF, expected);
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
        QTest::addColumn<float>("progress");
        QTest::addColumn<float>("stored");
        QTest::addColumn<QList<double>>("blue");
        QTest::addColumn<QList<double>>("dark");
        const float infinity = std::numeric_limits<float>::infinity();
        const QList<double> around{0.01, 0.24, 0.26, 0.49, 0.51, 0.74, 0.76, 0.99};
        const auto row = [](const char *name, float progress, float stored, const QList<double> &blue,
                            const QList<double> &dark) {
            QTest::newRow(name) << progress << stored << blue << dark;
        };
        row("none", 0, 0, {}, around);
        row("quarter", 0.25f, 0.25f, {0.01, 0.12, 0.24}, {0.26, 0.5, 0.75, 0.99});
        row("all", 1, 1, around, {});
        row("more than all", 1.5f, 1.5f, around, {});
        row("negative", -0.5f, -0.5f, {}, around);
        row("not a number", std::nanf(""), 0, {}, around);
        row("infinite", infinity, 0, {}, around);
    }

    void progress()
    {
        QFETCH(float, progress);
        QFETCH(float, stored);
        QFETCH(QList<double>, blue);
        QFETCH(QList<double>, dark);
        RingScene scene;
        scene.view.setProgress(progress);
        QCOMPARE(scene.view.progress(), stored);
        QCOMPARE(scene.view.progressLayer().strokeEnd, double(stored));
        const QColor track = over(WindowColor, QColor::fromRgbF(0, 0, 0, 0.5f));
        const QColor ring = over(track, QColor::fromRgbF(0.068f, 0.629f, 1, 0.8f));
        for (const qreal ratio : {1.0, 1.5, 2.0}) {
            const QImage image = rendered(scene.window, ratio);
            for (const double fraction : blue)
                QVERIFY(isNear(ringColor(image, fraction), ring, 6));
            for (const double fraction : dark)
                QVERIFY(isNear(ringColor(image, fraction), track, 6));
        }
    }

    void percentage_data()
    {
        QTest::addColumn<float>("progress");
        QTest::addColumn<float>("readsLike");
        QTest::newRow("half to even, down") << 0.125f << 0.12f;
        QTest::newRow("half to even, up") << 0.375f << 0.38f;
        QTest::newRow("below half") << 0.0049f << 0.f;
        QTest::newRow("single precision") << 0.545f << 0.54f; // a product in double precision is above 54.5
        QTest::newRow("not a number") << std::nanf("") << 0.f;
    }

    void percentage()
    {
        QFETCH(float, progress);
        QFETCH(float, readsLike);
        RingScene scene;
        QCOMPARE(figures(scene, progress), figures(scene, readsLike));
        QVERIFY(figures(scene, 1.5f) != figures(scene, 1));
    }

    void figuresAreHiddenWhileLooping()
    {
        RingScene scene;
        scene.view.setProgress(0.5f);
        const auto lightest = [&] {
            return colorAt(rendered(scene.window)
                               .copy(50, 70, 100, 60)
                               .scaled(1, 1, {}, Qt::SmoothTransformation),
                           {})
                .red();
        };
        const int idle = lightest();
        scene.view.startLooping();
        QVERIFY(lightest() < idle);
        QCOMPARE(lightest(), WindowColor.red());
        scene.view.stopLooping();
        QCOMPARE(lightest(), idle);
    }

    void phases_data()
    {
        QTest::addColumn<double>("time"); // since the start, with ticks every 0.5 s
        QTest::addColumn<qint64>("index");
        QTest::addColumn<double>("start");
        QTest::addColumn<double>("end");
        QTest::newRow("start") << 0.0 << qint64(0) << 0.0 << 0.0;
        QTest::newRow("filling slowly first") << 0.5 << qint64(0) << 0.0 << 0.0561;
        QTest::newRow("half full") << 1.5 << qint64(0) << 0.0 << 0.5;
        QTest::newRow("full") << 3.0 << qint64(1) << 0.0 << 1.0;
        QTest::newRow("half emptied") << 4.5 << qint64(1) << 0.5 << 1.0;
        QTest::newRow("empty") << 6.0 << qint64(2) << 0.0 << 0.0;
        QTest::newRow("half emptied again") << 10.5 << qint64(3) << 0.5 << 1.0;
    }

    void phases()
    {
        QFETCH(double, time);
        QFETCH(qint64, index);
        QFETCH(double, start);
        QFETCH(double, end);
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
    }

    void emptyingIsSeen()
    {
        RingScene scene;
        scene.view.startLooping();
        scene.pass(3);
        scene.pass(1.5);
        const QImage image = rendered(scene.window);
        for (const double fraction : {0.01, 0.25, 0.49})
            QVERIFY(!isBlue(ringColor(image, fraction)));
        for (const double fraction : {0.51, 0.75, 0.99})
            QVERIFY(isBlue(ringColor(image, fraction)));
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
        QVERIFY(interface);
        QCOMPARE(interface->role(), QAccessible::ProgressBar);
        QCOMPARE(interface->text(QAccessible::Value), "42%");
        QCOMPARE(interface->valueInterface()->currentValue().toFloat(), 0.42f);
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

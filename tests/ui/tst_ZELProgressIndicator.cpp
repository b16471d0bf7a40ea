#include "support/AccessibilityLog.h"
#include "support/Rendering.h"
#include "support/Table.h"
#include "ui/ProgressParts.h"
#include "ui/ZELProgressIndicator.h"

#include <QAccessible>

#include <limits>

namespace {

using Style = ZELProgressIndicator::Style;

// An indicator on a dark window, with a clock that only the test moves. A bar is 200 wide and shows 0 to 1.
struct IndicatorScene {
    explicit IndicatorScene(Style style)
        : indicator(style, &window)
    {
        indicator.setGeometry(0, 0, style == Style::Bar ? 200 : 18, 18);
        indicator.setMaxValue(1);
        timer->setClock([this] { return now; });
    }

    bool isFilled(double x, qreal ratio = 1) { return isBlue(colourAt(rendered(window, ratio), {x, 9})); }

    double now = 1000;
    DarkWindow window{QSize(200, 18)};
    ZELProgressIndicator indicator;
    zel::AnimationTimer *timer = indicator.findChild<zel::AnimationTimer *>();
};

} // namespace

class tst_ZELProgressIndicator : public QObject
{
    Q_OBJECT
private slots:
    void bar_data()
    {
        const Table<double, double, double> row; // the value, the maximum, what is filled in points
        row("part of another range", 30, 40, 150);
        row("above", 1.5, 1, 200);
        row("below", -1, 1, 0);
        row("infinite", std::numeric_limits<double>::infinity(), 1, 200);
        row("not a number", std::nan(""), 1, 0);
        row("empty range", 1, 0, 0);
        row("reversed range", -3, -2, 0);
    }

    void bar()
    {
        const auto [value, maximum, filled] = Table<double, double, double>::current();
        IndicatorScene scene(Style::Bar);
        scene.indicator.setIndeterminate(false);
        scene.indicator.setMaxValue(maximum);
        scene.indicator.setDoubleValue(value);
        for (const auto direction : {Qt::LeftToRight, Qt::RightToLeft}) {
            scene.indicator.setLayoutDirection(direction);
            const auto fromStart = [&](double x) { return direction == Qt::LeftToRight ? x : 200 - x; };
            for (const qreal ratio : {1.0, 1.5, 2.0})
                for (double x = 2.5; x < 198; x += 5)
                    if (std::abs(x - filled) > 2)
                        QCOMPARE(scene.isFilled(fromStart(x), ratio), x < filled);
        }
    }

    void segmentMoves()
    {
        IndicatorScene scene(Style::Bar);
        scene.indicator.startAnimation();
        const auto seen = [&] {
            const QList<bool> places{scene.isFilled(40), scene.isFilled(100), scene.isFilled(160)};
            scene.indicator.setLayoutDirection(Qt::RightToLeft);
            const bool isMirrored = scene.isFilled(160) == places[0] && scene.isFilled(40) == places[2];
            scene.indicator.setLayoutDirection(Qt::LeftToRight);
            return isMirrored ? places : QList<bool>();
        };
        QCOMPARE(seen(), (QList<bool>{false, false, false}));
        scene.now += 0.55;
        QCOMPARE(seen(), (QList<bool>{true, false, false}));
        scene.now += 0.25;
        QCOMPARE(seen(), (QList<bool>{false, true, false}));
        scene.now += 0.25;
        QCOMPARE(seen(), (QList<bool>{false, false, true}));
        scene.now += 1.6 - 0.25; // a period after the middle
        QCOMPARE(seen(), (QList<bool>{false, true, false}));
        scene.indicator.stopAnimation();
        QCOMPARE(seen(), (QList<bool>{false, false, false}));
    }

    void spinnerTurnsClockwise()
    {
        IndicatorScene scene(Style::Spinning);
        scene.indicator.startAnimation();
        for (const int place : {0, 1, 2, 3, 0}) {
            const QImage image = rendered(scene.window, 2);
            const auto light = [&](int at) { // at twelve, three, six and nine o'clock
                const QPointF places[] = {{9, 3}, {15, 9}, {9, 15}, {3, 9}};
                return colourAt(image, places[at % 4]).red();
            };
            QVERIFY(light(place) > light(place + 3)); // a tail that grows fainter behind it
            QVERIFY(light(place + 3) > light(place + 2));
            QVERIFY(light(place + 2) > light(place + 1));
            scene.now += 0.251;
        }
    }

    void ticksOnlyWhileItMoves_data()
    {
        const Table<Style, bool, bool> row; // is it indeterminate, does it tick?
        row("spinner", Style::Spinning, true, true);
        row("spinners have no end", Style::Spinning, false, true);
        row("bar without an end", Style::Bar, true, true);
        row("bar with an end", Style::Bar, false, false);
    }

    void ticksOnlyWhileItMoves()
    {
        const auto [style, isIndeterminate, ticks] = Table<Style, bool, bool>::current();
        IndicatorScene scene(style);
        scene.indicator.setIndeterminate(isIndeterminate);
        scene.window.show();
        QVERIFY(!scene.timer->isTicking());
        scene.indicator.startAnimation();
        QCOMPARE(scene.timer->isTicking(), ticks);
        scene.indicator.setHidden(true);
        QVERIFY(!scene.timer->isTicking());
        scene.indicator.setHidden(false);
        QCOMPARE(scene.timer->isTicking(), ticks);
        scene.window.hide();
        QVERIFY(!scene.timer->isTicking());
        scene.window.show();
        QCOMPARE(scene.timer->isTicking(), ticks);
        scene.indicator.stopAnimation();
        QVERIFY(!scene.timer->isTicking());
    }

    void movesByItself()
    {
        IndicatorScene scene(Style::Spinning);
        scene.timer->setClock([&] { return scene.now += 0.1; });
        scene.window.show();
        scene.indicator.startAnimation();
        const QImage first = onScreen(scene.window);
        QTRY_VERIFY(onScreen(scene.window) != first);
    }

    void accessibility()
    {
        IndicatorScene scene(Style::Bar);
        scene.indicator.setMaxValue(2);
        scene.indicator.setDoubleValue(0.84);
        QAccessibleInterface *interface = QAccessible::queryAccessibleInterface(&scene.indicator);
        QCOMPARE(interface->role(), QAccessible::ProgressBar);
        QVERIFY(interface->state().busy);
        QCOMPARE(interface->text(QAccessible::Value), QString());

        scene.indicator.setIndeterminate(false);
        QVERIFY(!interface->state().busy);
        QCOMPARE(interface->text(QAccessible::Value), "42%");
        QAccessibleValueInterface *value = interface->valueInterface();
        QCOMPARE(value->currentValue().toDouble(), 0.84);
        QCOMPARE(value->maximumValue().toDouble(), 2.0);
        value->setCurrentValue(2.0);
        QCOMPARE(scene.indicator.doubleValue(), 0.84);
        scene.indicator.setDoubleValue(std::nan(""));
        QCOMPARE(interface->text(QAccessible::Value), "0%");
        scene.indicator.setAccessibleName("Copying");
        const AccessibilityLog changes(QAccessible::ValueChanged);
        scene.indicator.setDoubleValue(0.9);
        QCOMPARE(changes.names(), QStringList("Copying"));
    }
};

QTEST_MAIN(tst_ZELProgressIndicator)
#include "tst_ZELProgressIndicator.moc"

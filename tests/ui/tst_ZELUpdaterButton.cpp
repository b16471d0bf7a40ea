#include "support/AccessibilityLog.h"
#include "support/Rendering.h"
#include "ui/Drawing.h"
#include "ui/ZELUpdaterButton.h"

#include <QAccessible>
#include <QGraphicsOpacityEffect>
#include <QKeyEvent>
#include <QPainter>
#include <QPointer>
#include <QWindow>

namespace {

constexpr QPoint Inside(20, 10);
constexpr QPoint Outside(20, 60);

/// A page that paints itself, as the page of a host may.
class StripedPage : public QWidget
{
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        for (int y = 0; y < height(); y += 4)
            painter.fillRect(0, y, width(), 4, QColor(120 + y % 60, 90, 60));
    }
};

/// A window with a button at (32, 40), 286 x 32, on a page.
struct ButtonScene {
    explicit ButtonScene(bool isStriped = false)
    {
        page = isStriped ? new StripedPage(window.get()) : new QWidget(window.get());
        button = new ZELUpdaterButton(page);
        page->resize(window->size());
        button->setGeometry(32, 40, 286, 32);
        button->setOnClick([this] { ++clicks; });
    }

    void show() const
    {
        window->show();
        window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(window.get()));
    }

    void key(Qt::Key key, Qt::KeyboardModifiers modifiers = {}) const
    {
        QTest::keyClick(window->windowHandle(), key, modifiers);
    }

    /// 'p'resses, 'm'oves or 'r'eleases the mouse.
    void mouse(char action, QPoint point = Inside, Qt::MouseButton mouseButton = Qt::LeftButton) const
    {
        QWindow *target = window->windowHandle();
        const QPoint place = button->mapTo(window.get(), point);
        if (action == 'p')
            QTest::mousePress(target, mouseButton, {}, place);
        else if (action == 'm')
            QTest::mouseMove(target, place);
        else
            QTest::mouseRelease(target, mouseButton, {}, place);
    }

    std::unique_ptr<QWidget> window = std::make_unique<DarkWindow>(QSize(350, 120));
    QPointer<QWidget> page;
    QPointer<ZELUpdaterButton> button;
    int clicks = 0;
};

using Action = std::function<void(ButtonScene &)>;

struct MouseStep {
    char action; // 'p'ress, 'm'ove, 'r'elease
    QPoint point;
    bool isActive; // afterwards
    Qt::MouseButton button = Qt::LeftButton;
};

} // namespace

class tst_ZELUpdaterButton : public QObject
{
    Q_OBJECT
private slots:
    void mouse_data()
    {
        QTest::addColumn<QList<MouseStep>>("steps");
        QTest::addColumn<int>("clicks");

        const QPoint lastInside(285, 31);
        const QPoint justOutside(286, 31);
        const Qt::MouseButton right = Qt::RightButton;
        const auto row = [](const char *name, int clicks, const QList<MouseStep> &steps) {
            QTest::newRow(name) << steps << clicks;
        };
        row("click", 1, {{'p', Inside, true}, {'r', Inside, false}});
        row("drag out", 0, {{'p', Inside, true}, {'m', Outside, false}, {'r', Outside, false}});
        row("to the edge", 1,
            {{'p', Inside, true},
             {'m', justOutside, false},
             {'m', lastInside, true},
             {'r', lastInside, false}});
        row("press outside", 0, {{'p', Outside, false}, {'m', Inside, false}, {'r', Inside, false}});
        row("right button", 0,
            {{'p', Inside, false, right}, {'m', Inside, false}, {'r', Inside, false, right}});
        row("both buttons", 1,
            {{'p', Inside, true},
             {'p', Inside, true, right},
             {'r', Inside, true, right},
             {'r', Inside, false}});
    }

    void mouse()
    {
        QFETCH(QList<MouseStep>, steps);
        QFETCH(int, clicks);
        ButtonScene scene;
        scene.show();
        for (const MouseStep &step : steps) {
            scene.mouse(step.action, step.point, step.button);
            QCOMPARE(scene.button->isActive(), step.isActive);
        }
        QCOMPARE(scene.clicks, clicks);
    }

    void pressIsGivenUp_data()
    {
        QTest::addColumn<Action>("change");
        QTest::newRow("page hidden") << Action([](ButtonScene &scene) { scene.page->hide(); });
        QTest::newRow("disabled") << Action([](ButtonScene &scene) { scene.button->setEnabled(false); });
    }

    void pressIsGivenUp()
    {
        QFETCH(Action, change);
        ButtonScene scene;
        scene.show();
        scene.mouse('p');
        QVERIFY(scene.button->isActive());
        change(scene);
        scene.mouse('r');
        QVERIFY(!scene.button->isActive());
        QCOMPARE(scene.clicks, 0);
    }

    void takenAwayByItsAction_data()
    {
        QTest::addColumn<Action>("action");
        QTest::newRow("button deleted") << Action([](ButtonScene &scene) { delete scene.button; });
        QTest::newRow("window deleted") << Action([](ButtonScene &scene) { scene.window.reset(); });
        QTest::newRow("page hidden") << Action([](ButtonScene &scene) { scene.page->hide(); });
        QTest::newRow("actions replaced") << Action([](ButtonScene &scene) {
            scene.button->setOnClick(nullptr);
            scene.button->setProcessKeyEvent(nullptr);
        });
    }

    void takenAwayByItsAction()
    {
        QFETCH(Action, action);
        const Action ways[] = {
            [](ButtonScene &scene) {
                scene.mouse('p');
                scene.mouse('r');
            },
            [](ButtonScene &scene) { QVERIFY(scene.button->accessibilityPerformPress()); },
            [](ButtonScene &scene) {
                QKeyEvent key(QEvent::KeyPress, Qt::Key_Return, {});
                QVERIFY(scene.button->performKeyEquivalent(&key));
            },
        };
        for (const auto &way : ways) {
            ButtonScene scene;
            scene.show();
            bool hasRun = false;
            const auto act = [&] {
                action(scene);
                hasRun = true;
            };
            scene.button->setOnClick(act);
            scene.button->setProcessKeyEvent([act](ZELUpdaterButton *, QKeyEvent *) {
                act();
                return true;
            });
            way(scene);
            QCoreApplication::processEvents();
            QVERIFY(hasRun);
        }
    }

    void keyEquivalents_data()
    {
        QTest::addColumn<Action>("prepare");
        QTest::addColumn<bool>("isAsked");

        const auto row = [](const char *name, bool isAsked, const Action &prepare) {
            QTest::newRow(name) << prepare << isAsked;
        };
        row("window shown", true, [](ButtonScene &scene) { scene.show(); });
        row("window not shown yet", true, [](ButtonScene &) {});
        row("button hidden", true, [](ButtonScene &scene) { scene.button->hide(); });
        row("page hidden", false, [](ButtonScene &scene) { scene.page->hide(); });
        row("page added to a window on the screen, not shown", false, [](ButtonScene &scene) {
            scene.show();
            scene.page->setParent(nullptr);
            scene.page->setParent(scene.window.get());
        });
        row("button disabled", false, [](ButtonScene &scene) { scene.button->setEnabled(false); });
        row("page taken out", false, [](ButtonScene &scene) { scene.page->setParent(nullptr); });
        row("button taken out", false, [](ButtonScene &scene) { scene.button->setParent(nullptr); });
    }

    void keyEquivalents()
    {
        QFETCH(Action, prepare);
        QFETCH(bool, isAsked);
        ButtonScene scene;
        prepare(scene);
        QKeyEvent event(QEvent::KeyPress, Qt::Key_Return, {});
        QKeyEvent release(QEvent::KeyRelease, Qt::Key_Return, {});
        QVERIFY(!scene.button->performKeyEquivalent(&event));
        for (const bool answer : {false, true}) {
            int asked = 0;
            scene.button->setProcessKeyEvent([&](ZELUpdaterButton *button, QKeyEvent *key) {
                asked += button == scene.button && key == &event ? 1 : 100; // 100: of another event
                return answer;
            });
            QCOMPARE(scene.button->performKeyEquivalent(&event), answer && isAsked);
            QVERIFY(!scene.button->performKeyEquivalent(&release));
            QCOMPARE(asked, isAsked ? 1 : 0);
        }
        for (QWidget *widget : {static_cast<QWidget *>(scene.button), scene.page.data()})
            if (!widget->parentWidget())
                delete widget;
    }

    void keysPressTheFocused_data()
    {
        QTest::addColumn<Qt::Key>("key");
        QTest::addColumn<Qt::KeyboardModifiers>("modifiers");
        QTest::addColumn<bool>("presses");

        const auto row = [](const char *name, Qt::Key key, bool presses,
                            Qt::KeyboardModifiers modifiers = {}) {
            QTest::newRow(name) << key << modifiers << presses;
        };
        row("space", Qt::Key_Space, true);
        row("return", Qt::Key_Return, true);
        row("enter", Qt::Key_Enter, true, Qt::KeypadModifier);
        row("control and return", Qt::Key_Return, false, Qt::ControlModifier);
        row("escape", Qt::Key_Escape, false);
        row("letter", Qt::Key_C, false);
    }

    void keysPressTheFocused()
    {
        QFETCH(Qt::Key, key);
        QFETCH(Qt::KeyboardModifiers, modifiers);
        QFETCH(bool, presses);
        ButtonScene scene;
        scene.show();
        scene.window->setFocus();
        scene.key(key, modifiers);
        QCOMPARE(scene.clicks, 0);
        scene.key(Qt::Key_Tab);
        QVERIFY(scene.button->hasFocus());
        scene.key(key, modifiers);
        QCOMPARE(scene.clicks, presses ? 1 : 0);
        QKeyEvent held(QEvent::KeyPress, key, modifiers, {}, true);
        QCoreApplication::sendEvent(scene.button, &held);
        QCOMPARE(scene.clicks, presses ? 1 : 0);
    }

    void focusIsSeen()
    {
        for (const qint64 style : {0, 1}) {
            ButtonScene scene;
            scene.button->setStyle(style);
            scene.show();
            scene.window->setFocus();
            const auto ring = [&] {
                return colorAt(onScreen(*scene.window), scene.button->pos() + QPointF(60, -3));
            };
            QVERIFY(isNear(ring(), WindowColor));
            scene.key(Qt::Key_Tab);
            QVERIFY(zel::contrast(ring(), WindowColor) >= 4.5);
            const QColor gap = colorAt(onScreen(*scene.window), scene.button->pos() + QPointF(60, -1.5));
            QVERIFY(zel::contrast(ring(), gap) >= 4.5);
            scene.mouse('p');
            scene.mouse('r');
            QVERIFY(isNear(ring(), WindowColor));
        }
    }

    void accessibility()
    {
        ButtonScene scene;
        scene.button->setLabel("Install");
        QAccessibleInterface *interface = QAccessible::queryAccessibleInterface(scene.button);
        QVERIFY(interface);
        QCOMPARE(interface->role(), QAccessible::Button);
        QCOMPARE(interface->text(QAccessible::Name), "Install");
        QVERIFY(interface->state().focusable);
        QVERIFY(!interface->state().pressed);
        scene.button->setIsActive(true);
        QVERIFY(interface->state().pressed);

        QAccessibleActionInterface *actions = interface->actionInterface();
        QVERIFY(actions);
        QCOMPARE(actions->actionNames(),
                 (QStringList{QAccessibleActionInterface::pressAction(),
                              QAccessibleActionInterface::setFocusAction()}));
        actions->doAction(QAccessibleActionInterface::pressAction());
        QCOMPARE(scene.clicks, 1);
        scene.show();
        actions->doAction(QAccessibleActionInterface::setFocusAction());
        QVERIFY(interface->state().focused);
        QCOMPARE(scene.clicks, 1);
        scene.button->setEnabled(false);
        QVERIFY(interface->state().disabled);
        QCOMPARE(actions->actionNames(), QStringList());
        actions->doAction(QAccessibleActionInterface::pressAction());
        QCOMPARE(scene.clicks, 1);

        const AccessibilityLog renamed(QAccessible::NameChanged);
        scene.button->setLabel("Retry");
        scene.button->setLabel("Retry");
        QCOMPARE(renamed.names(), QStringList("Retry"));

        scene.button->setOnClick(nullptr);
        QVERIFY(scene.button->accessibilityPerformPress());
    }

    void colors_data()
    {
        QTest::addColumn<qint64>("style");
        QTest::addColumn<bool>("isPressed");
        QTest::addColumn<QPointF>("point"); // from the button's top left corner
        QTest::addColumn<QColor>("expected");

        const auto rgb = [](float red, float green, float blue) {
            return QColor::fromRgbF(red, green, blue);
        };
        const auto white = [](float level, float alpha = 1) {
            return QColor::fromRgbF(level, level, level, alpha);
        };
        const QColor rim = over(WindowColor, white(0, 0.16f));
        const QPointF top(60, 0.25), upper(60, 2.25), quarter(60, 25), bottom(60, 31.25);

        const auto row = [](const char *name, qint64 style, bool isPressed, QPointF point,
                            const QColor &expected) {
            QTest::newRow(name) << style << isPressed << point << expected;
        };
        row("grey, line", 0, false, top, over(white(0.26f), white(1, 0.06f)));
        row("grey, upper end", 0, false, upper, white(0.255f));
        row("any other style is grey", 2, false, bottom, white(0.2f));
        row("grey pressed, no line", 0, true, top, white(0.2f));
        row("grey pressed, bottom", 0, true, bottom, white(0.18f));
        row("blue, line", 1, false, top, over(rgb(0, 0.584f, 1), white(1, 0.15f)));
        row("blue, upper end", 1, false, upper, rgb(0.003f, 0.574f, 0.993f));
        row("blue, lower quarter", 1, false, quarter, rgb(0.035f, 0.478f, 0.922f));
        row("blue pressed, top", 1, true, top, rgb(0, 0.467f, 0.8f));
        row("blue pressed, bottom", 1, true, bottom, rgb(0.028f, 0.375f, 0.722f));
        row("rim above", 0, false, {60, -0.4}, rim);
        row("rim below, pressed", 0, true, {60, 32.4}, rim);
        row("rim at the side, pressed", 0, true, {-0.4, 16}, rim);
        row("no shadow above", 0, false, {60, -1.6}, WindowColor);
        row("no shadow, pressed", 0, true, {60, 33.4}, WindowColor);
    }

    void colors()
    {
        QFETCH(qint64, style);
        QFETCH(bool, isPressed);
        QFETCH(QPointF, point);
        QFETCH(QColor, expected);
        ButtonScene scene;
        scene.button->setStyle(style);
        scene.button->setIsActive(isPressed);
        for (const qreal ratio : {1.0, 1.5, 2.0}) {
            const QImage image = rendered(*scene.window, ratio);
            QVERIFY(isNear(colorAt(image, scene.button->pos() + point), expected));
        }
    }

    void shadowFades()
    {
        ButtonScene scene;
        for (const qreal ratio : {1.0, 1.5, 2.0}) {
            const QImage image = rendered(*scene.window, ratio);
            const QPointF below = scene.button->pos() + QPointF(60, 32);
            const int near = colorAt(image, below + QPointF(0, 0.2)).red();
            const int far = colorAt(image, below + QPointF(0, 1.2)).red();
            const int rim = over(WindowColor, QColor::fromRgbF(0, 0, 0, 0.16f)).red();
            QVERIFY(near < rim - 3);
            QVERIFY(near < far);
            QVERIFY(isNear(colorAt(image, below + QPointF(0, 3.2)), WindowColor, 0));
        }
    }

    void labelStandsInTheMiddle()
    {
        ButtonScene scene;
        scene.button->setIsActive(true); // without the line, whose colour is like the label's
        for (const qreal ratio : {1.0, 1.5, 2.0}) {
            const QRectF label = labelBounds(scene, "HHH", ratio);
            QVERIFY(std::abs(label.center().y() - 16) <= 0.75);
            QVERIFY(std::abs(label.center().x() - 143) <= 1);
        }
    }

    void primaryLabelIsReadable()
    {
        ButtonScene scene;
        scene.button->setStyle(1);
        scene.button->setLabel("l");
        for (const qreal ratio : {1.0, 2.0}) {
            const QImage image = rendered(*scene.window, ratio);
            const auto at = [&](qreal x) { return colorAt(image, scene.button->pos() + QPointF(x, 14)); };
            qreal left = 100;
            while (at(left).red() < 200 && left < 200)
                left += 0.25;
            QVERIFY(left < 150);
            // Half a point beside the stem, where it is not drawn any more.
            const qreal beside = left - 0.5 - 1 / ratio;
            QVERIFY(zel::contrast(at(20), Qt::white) < 4.5);
            QVERIFY2(zel::contrast(at(beside), Qt::white) >= 4.5,
                     qPrintable(QString::number(zel::contrast(at(beside), Qt::white))));
        }
    }

    void longLabelGetsSmallerAndIsShortened()
    {
        ButtonScene scene;
        scene.button->setIsActive(true);
        const QRectF shortened = labelBounds(scene, QString("Remind me later ").repeated(9), 2);
        QVERIFY(shortened.left() >= 14.5 && shortened.right() <= 271.5);
        QVERIFY(shortened.width() > 230);
        const QRectF natural = labelBounds(scene, "HHHHHHHHHHHH", 2);
        scene.button->resize(qRound(natural.width() * 0.85) + 30, 32);
        const QRectF smaller = labelBounds(scene, "HHHHHHHHHHHH", 2);
        QVERIFY(smaller.width() <= natural.width() * 0.86 && smaller.width() > natural.width() * 0.75);
        QVERIFY(smaller.height() < natural.height() - 0.5);
    }

    void surroundFollowsTheButton_data()
    {
        QTest::addColumn<Action>("change");
        QTest::newRow("moved") << Action([](ButtonScene &scene) { scene.button->move(20, 60); });
        QTest::newRow("resized") << Action([](ButtonScene &scene) { scene.button->resize(100, 40); });
        QTest::newRow("hidden") << Action([](ButtonScene &scene) { scene.button->hide(); });
        QTest::newRow("taken to another page") << Action([](ButtonScene &scene) {
            auto *other = new StripedPage(scene.window.get());
            other->setGeometry(0, 0, 350, 90);
            other->show();
            scene.button->setParent(other);
            scene.button->show();
        });
        QTest::newRow("covered in part") << Action([](ButtonScene &scene) {
            auto *cover = new StripedPage(scene.window.get());
            cover->setGeometry(100, 30, 60, 60);
            cover->show();
        });
        QTest::newRow("part of the page redrawn")
            << Action([](ButtonScene &scene) { scene.page->update(QRect(0, 0, 40, 41)); });
        QTest::newRow("another effect") << Action(
            [](ButtonScene &scene) { scene.button->setGraphicsEffect(new QGraphicsOpacityEffect); });
    }

    // What piecemeal updates leave on the screen is what drawing the whole window anew gives.
    void surroundFollowsTheButton()
    {
        QFETCH(Action, change);
        ButtonScene scene(true);
        scene.show();
        const QImage before = onScreen(*scene.window);
        QVERIFY(colorAt(before, {100, 39.5}) != colorAt(before, {10, 39.5}));

        change(scene);
        const QImage after = onScreen(*scene.window);
        scene.window->update();

        QCOMPARE(after, onScreen(*scene.window));
    }

    void statesAreSeen()
    {
        ButtonScene scene;
        scene.show();
        scene.mouse('m', Outside);
        const QImage normal = onScreen(*scene.window);
        scene.mouse('m');
        const QImage hovered = onScreen(*scene.window);
        QVERIFY(hovered != normal);
        scene.mouse('p');
        QVERIFY(onScreen(*scene.window) != hovered);
        scene.mouse('r');
        QCOMPARE(onScreen(*scene.window), hovered);
        scene.mouse('m', Outside);
        QCOMPARE(onScreen(*scene.window), normal);
        scene.button->setEnabled(false);
        const QImage disabled = onScreen(*scene.window);
        QVERIFY(disabled != normal);
        scene.mouse('m');
        QCOMPARE(onScreen(*scene.window), disabled);
    }

private:
    /// The rectangle, in the button's coordinates, of all pixels much lighter than the grey body.
    static QRectF labelBounds(ButtonScene &scene, const QString &label, qreal ratio)
    {
        scene.button->setLabel(label);
        const QImage image = rendered(*scene.window, ratio);
        QRect bounds;
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x)
                if (image.pixelColor(x, y).red() > 100)
                    bounds |= QRect(x, y, 1, 1);
        const QRectF logical(QPointF(bounds.topLeft()) / ratio, QSizeF(bounds.size()) / ratio);
        return logical.translated(-scene.button->pos());
    }
};

QTEST_MAIN(tst_ZELUpdaterButton)
#include "tst_ZELUpdaterButton.moc"

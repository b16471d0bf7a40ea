#include "support/AccessibilityLog.h"
#include "support/Rendering.h"
#include "support/Table.h"
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
constexpr auto Press = QTest::MousePress, Move = QTest::MouseMove, Release = QTest::MouseRelease;

// A page that paints itself, as the page of a host may.
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

// A window with a button at (32, 40), 286 x 32, on a page.
struct ButtonScene {
    explicit ButtonScene(bool isStriped = false)
    {
        page = isStriped ? new StripedPage(window.get()) : new QWidget(window.get());
        button = new ZELUpdaterButton(page);
        page->resize(window->size());
        button->setGeometry(32, 40, 286, 32);
        button->setOnClick([this] { ++clicks; });
    }

    void key(Qt::Key key, Qt::KeyboardModifiers modifiers = {}) const
    {
        QTest::keyClick(window->windowHandle(), key, modifiers);
    }

    void mouse(QTest::MouseAction action, QPoint point = Inside,
               Qt::MouseButton mouseButton = Qt::LeftButton) const
    {
        const QPoint place = button->mapTo(window.get(), point);
        QTest::mouseEvent(action, window->windowHandle(), mouseButton, {}, place);
    }

    std::unique_ptr<QWidget> window = std::make_unique<DarkWindow>(QSize(350, 120));
    QPointer<QWidget> page;
    QPointer<ZELUpdaterButton> button;
    int clicks = 0;
};

// The same in a window that is shown and has the keyboard.
struct ShownScene : ButtonScene {
    explicit ShownScene(bool isStriped = false)
        : ButtonScene(isStriped)
    {
        window->show();
        window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(window.get()));
    }
};

using Action = std::function<void(ButtonScene &)>;

struct MouseStep {
    QTest::MouseAction action;
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
        const Table<int, QList<MouseStep>> row; // how often it is clicked in the end
        const QPoint lastInside(285, 31);
        const QPoint justOutside(286, 31);
        const Qt::MouseButton right = Qt::RightButton;
        row("drag out", 0, {{Press, Inside, true}, {Move, Outside, false}, {Release, Outside, false}});
        row("to the edge", 1,
            {{Press, Inside, true},
             {Move, justOutside, false},
             {Move, lastInside, true},
             {Release, lastInside, false}});
        row("press outside", 0, {{Press, Outside, false}, {Move, Inside, false}, {Release, Inside, false}});
        row("right button", 0,
            {{Press, Inside, false, right}, {Move, Inside, false}, {Release, Inside, false, right}});
        row("both buttons", 1,
            {{Press, Inside, true},
             {Press, Inside, true, right},
             {Release, Inside, true, right},
             {Release, Inside, false}});
    }

    void mouse()
    {
        const auto [clicks, steps] = Table<int, QList<MouseStep>>::current();
        ShownScene scene;
        for (const MouseStep &step : steps) {
            scene.mouse(step.action, step.point, step.button);
            QCOMPARE(scene.button->isActive(), step.isActive);
        }
        QCOMPARE(scene.clicks, clicks);
    }

    void pressIsGivenUp()
    {
        const Action changes[] = {[](ButtonScene &scene) { scene.page->hide(); },
                                  [](ButtonScene &scene) { scene.button->setEnabled(false); }};
        for (const Action &change : changes) {
            ShownScene scene;
            scene.mouse(Press);
            QVERIFY(scene.button->isActive());
            change(scene);
            scene.mouse(Release);
            QVERIFY(!scene.button->isActive());
            QCOMPARE(scene.clicks, 0);
        }
    }

    void takenAwayByItsAction_data()
    {
        const Table<Action> row;
        row("button deleted", [](ButtonScene &scene) { delete scene.button; });
        row("window deleted", [](ButtonScene &scene) { scene.window.reset(); });
        row("page hidden", [](ButtonScene &scene) { scene.page->hide(); });
        row("actions replaced", [](ButtonScene &scene) {
            scene.button->setOnClick(nullptr);
            scene.button->setProcessKeyEvent(nullptr);
        });
    }

    void takenAwayByItsAction()
    {
        const auto [action] = Table<Action>::current();
        const Action ways[] = {
            [](ButtonScene &scene) {
                scene.mouse(Press);
                scene.mouse(Release);
            },
            [](ButtonScene &scene) { QVERIFY(scene.button->accessibilityPerformPress()); },
            [](ButtonScene &scene) {
                QKeyEvent key(QEvent::KeyPress, Qt::Key_Return, {});
                QVERIFY(scene.button->performKeyEquivalent(&key));
            },
        };
        for (const auto &way : ways) {
            ShownScene scene;
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
        const Table<bool, Action> row; // is the button asked?
        row("window shown", true, [](ButtonScene &) {});
        row("window hidden", true, [](ButtonScene &scene) { scene.window->hide(); });
        row("button hidden", true, [](ButtonScene &scene) { scene.button->hide(); });
        row("page hidden", false, [](ButtonScene &scene) { scene.page->hide(); });
        row("page added to a window on the screen, not shown", false, [](ButtonScene &scene) {
            scene.page->setParent(nullptr);
            scene.page->setParent(scene.window.get());
        });
        row("button disabled", false, [](ButtonScene &scene) { scene.button->setEnabled(false); });
        row("page taken out", false, [](ButtonScene &scene) { scene.page->setParent(nullptr); });
        row("button taken out", false, [](ButtonScene &scene) { scene.button->setParent(nullptr); });
    }

    void keyEquivalents()
    {
        const auto [isAsked, prepare] = Table<bool, Action>::current();
        ShownScene scene;
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
        const Table<Qt::Key, Qt::KeyboardModifiers, bool> row; // does it press?
        row("space", Qt::Key_Space, {}, true);
        row("return", Qt::Key_Return, {}, true);
        row("enter", Qt::Key_Enter, Qt::KeypadModifier, true);
        row("control and return", Qt::Key_Return, Qt::ControlModifier, false);
        row("escape", Qt::Key_Escape, {}, false);
    }

    void keysPressTheFocused()
    {
        const auto [key, modifiers, presses] = Table<Qt::Key, Qt::KeyboardModifiers, bool>::current();
        ShownScene scene;
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
            ShownScene scene;
            scene.button->setStyle(style);
            scene.button->update();
            scene.window->setFocus();
            const auto ring = [&] {
                return colourAt(onScreen(*scene.window), scene.button->pos() + QPointF(60, -3));
            };
            QVERIFY(isNear(ring(), WindowColour));
            scene.key(Qt::Key_Tab);
            QVERIFY(zel::contrast(ring(), WindowColour) >= 4.5);
            const QColor gap = colourAt(onScreen(*scene.window), scene.button->pos() + QPointF(60, -1.5));
            QVERIFY(zel::contrast(ring(), gap) >= 4.5);
            scene.mouse(Press);
            scene.mouse(Release);
            QVERIFY(isNear(ring(), WindowColour));
        }
    }

    void accessibility()
    {
        ShownScene scene;
        scene.button->setLabel("Install");
        QAccessibleInterface *interface = QAccessible::queryAccessibleInterface(scene.button);
        QCOMPARE(interface->role(), QAccessible::Button);
        QCOMPARE(interface->text(QAccessible::Name), "Install");
        QVERIFY(interface->state().focusable && !interface->state().pressed);
        scene.button->setIsActive(true);
        QVERIFY(interface->state().pressed);

        QAccessibleActionInterface *actions = interface->actionInterface();
        QCOMPARE(actions->actionNames(),
                 (QStringList{QAccessibleActionInterface::pressAction(),
                              QAccessibleActionInterface::setFocusAction()}));
        actions->doAction(QAccessibleActionInterface::pressAction());
        QCOMPARE(scene.clicks, 1);
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

    void pressedLiesFlat()
    {
        ButtonScene scene;
        for (const qreal ratio : {1.0, 1.5, 2.0}) {
            const auto at = [&](qreal y) {
                return colourAt(rendered(*scene.window, ratio), scene.button->pos() + QPointF(60, y)).red();
            };
            const int rim = over(WindowColour, QColor::fromRgbF(0, 0, 0, 0.16f)).red();
            scene.button->setIsActive(false);
            QVERIFY(at(0.25) > at(2.25) + 5); // a line of light
            QVERIFY(at(32.2) < rim - 3); // a shadow that fades
            QVERIFY(at(32.2) < at(33.2));
            QCOMPARE(at(35.2), WindowColour.red());
            scene.button->setIsActive(true);
            QVERIFY(at(0.25) < at(2.25) + 3);
            QVERIFY(std::abs(at(32.4) - rim) <= 3);
            QCOMPARE(at(33.4), WindowColour.red());
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
            const auto at = [&](qreal x) { return colourAt(image, scene.button->pos() + QPointF(x, 14)); };
            qreal left = 100;
            while (at(left).red() < 200 && left < 200)
                left += 0.25;
            QVERIFY(left < 150);
            // Half a point beside the stem, where it is not drawn any more.
            const qreal beside = left - 0.5 - 1 / ratio;
            QVERIFY(zel::contrast(at(20), Qt::white) < 4.5);
            QCOMPARE_GE(zel::contrast(at(beside), Qt::white), 4.5);
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
        const Table<Action> row;
        row("moved", [](ButtonScene &scene) { scene.button->move(20, 60); });
        row("resized", [](ButtonScene &scene) { scene.button->resize(100, 40); });
        row("hidden", [](ButtonScene &scene) { scene.button->hide(); });
        row("taken to another page", [](ButtonScene &scene) {
            auto *other = new StripedPage(scene.window.get());
            other->setGeometry(0, 0, 350, 90);
            other->show();
            scene.button->setParent(other);
            scene.button->show();
        });
        row("covered in part", [](ButtonScene &scene) {
            auto *cover = new StripedPage(scene.window.get());
            cover->setGeometry(100, 30, 60, 60);
            cover->show();
        });
        row("part of the page redrawn", [](ButtonScene &scene) { scene.page->update(QRect(0, 0, 40, 41)); });
        row("another effect",
            [](ButtonScene &scene) { scene.button->setGraphicsEffect(new QGraphicsOpacityEffect); });
    }

    // What piecemeal updates leave on the screen is what drawing the whole window anew gives.
    void surroundFollowsTheButton()
    {
        const auto [change] = Table<Action>::current();
        ShownScene scene(true);
        const QImage before = onScreen(*scene.window);
        QVERIFY(colourAt(before, {100, 39.5}) != colourAt(before, {10, 39.5}));

        change(scene);
        const QImage after = onScreen(*scene.window);
        scene.window->update();

        QCOMPARE(after, onScreen(*scene.window));
    }

    void statesAreSeen()
    {
        ShownScene scene;
        scene.mouse(Move, Outside);
        const QImage normal = onScreen(*scene.window);
        scene.mouse(Move);
        const QImage hovered = onScreen(*scene.window);
        QVERIFY(hovered != normal);
        scene.mouse(Press);
        QVERIFY(onScreen(*scene.window) != hovered);
        scene.mouse(Release);
        QCOMPARE(onScreen(*scene.window), hovered);
        scene.mouse(Move, Outside);
        QCOMPARE(onScreen(*scene.window), normal);
        scene.button->setEnabled(false);
        const QImage disabled = onScreen(*scene.window);
        QVERIFY(disabled != normal);
        scene.mouse(Move);
        QCOMPARE(onScreen(*scene.window), disabled);
    }

private:
    // The rectangle, in the button's coordinates, of all pixels much lighter than the grey body.
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

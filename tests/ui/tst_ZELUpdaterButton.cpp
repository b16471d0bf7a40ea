#include "Rendering.h"
#include "ZELUpdaterButton.h"

#include <QAccessible>
#include <QGraphicsOpacityEffect>
#include <QKeyEvent>
#include <QPainter>
#include <QPointer>
#include <QWindow>

namespace {

constexpr QPoint inside(20, 10);
constexpr QPoint outside(20, 60);

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
struct Scene {
    Scene()
    {
        page->resize(window->size());
        button->setGeometry(32, 40, 286, 32);
        button->setOnClick([this] { ++clicks; });
    }

    void show() const
    {
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window.get()));
    }

    QPoint inWindow(QPoint point) const { return button->mapTo(window.get(), point); }

    void click() const { QTest::mouseClick(window->windowHandle(), Qt::LeftButton, {}, inWindow(inside)); }

    std::unique_ptr<QWidget> window = std::make_unique<DarkWindow>(QSize(350, 120));
    QPointer<QWidget> page = new QWidget(window.get());
    QPointer<ZELUpdaterButton> button = new ZELUpdaterButton(page);
    int clicks = 0;
};

struct Step {
    char action; // 'p'ress, 'm'ove, 'r'elease
    QPoint point;
    bool isActive; // afterwards
};

} // namespace

class tst_ZELUpdaterButton : public QObject
{
    Q_OBJECT
private slots:
    void mouse_data()
    {
        QTest::addColumn<Qt::MouseButton>("mouseButton");
        QTest::addColumn<QList<Step>>("steps");
        QTest::addColumn<int>("clicks");

        const QPoint lastInside(285, 31);
        const QPoint justOutside(286, 31);
        QTest::newRow("click") << Qt::LeftButton << QList<Step>{{'p', inside, true}, {'r', inside, false}}
                               << 1;
        QTest::newRow("drag out") << Qt::LeftButton
                                  << QList<Step>{{'p', inside, true},
                                                 {'m', outside, false},
                                                 {'r', outside, false}}
                                  << 0;
        QTest::newRow("drag out and back in") << Qt::LeftButton
                                              << QList<Step>{{'p', inside, true},
                                                             {'m', outside, false},
                                                             {'m', inside, true},
                                                             {'r', inside, false}}
                                              << 1;
        QTest::newRow("to the edge") << Qt::LeftButton
                                     << QList<Step>{{'p', inside, true},
                                                    {'m', justOutside, false},
                                                    {'m', lastInside, true},
                                                    {'r', lastInside, false}}
                                     << 1;
        QTest::newRow("press outside, release inside")
            << Qt::LeftButton
            << QList<Step>{{'p', outside, false}, {'m', inside, false}, {'r', inside, false}} << 0;
        QTest::newRow("right button")
            << Qt::RightButton
            << QList<Step>{{'p', inside, false}, {'m', inside, false}, {'r', inside, false}} << 0;
    }

    void mouse()
    {
        QFETCH(Qt::MouseButton, mouseButton);
        QFETCH(QList<Step>, steps);
        QFETCH(int, clicks);
        Scene scene;
        scene.show();
        for (const Step &step : steps) {
            QWindow *window = scene.window->windowHandle();
            const QPoint point = scene.inWindow(step.point);
            if (step.action == 'p')
                QTest::mousePress(window, mouseButton, {}, point);
            else if (step.action == 'm')
                QTest::mouseMove(window, point);
            else
                QTest::mouseRelease(window, mouseButton, {}, point);
            QCOMPARE(scene.button->isActive(), step.isActive);
        }
        QCOMPARE(scene.clicks, clicks);
    }

    void bothButtons()
    {
        Scene scene;
        scene.show();
        QWindow *window = scene.window->windowHandle();
        QTest::mousePress(window, Qt::LeftButton, {}, scene.inWindow(inside));
        QTest::mousePress(window, Qt::RightButton, {}, scene.inWindow(inside));
        QTest::mouseRelease(window, Qt::RightButton, {}, scene.inWindow(inside));
        QVERIFY(scene.button->isActive());
        QCOMPARE(scene.clicks, 0);
        QTest::mouseRelease(window, Qt::LeftButton, {}, scene.inWindow(inside));
        QCOMPARE(scene.clicks, 1);
    }

    void hiddenWhilePressed()
    {
        Scene scene;
        scene.show();
        QTest::mousePress(scene.window->windowHandle(), Qt::LeftButton, {}, scene.inWindow(inside));
        QVERIFY(scene.button->isActive());
        scene.page->hide();
        QTest::mouseRelease(scene.window->windowHandle(), Qt::LeftButton, {}, scene.inWindow(inside));
        QVERIFY(!scene.button->isActive());
        QCOMPARE(scene.clicks, 0);
    }

    void takenAwayByItsAction_data()
    {
        QTest::addColumn<std::function<void(Scene &)>>("action");
        using Action = std::function<void(Scene &)>;
        QTest::newRow("button deleted") << Action([](Scene &scene) { delete scene.button; });
        QTest::newRow("page deleted") << Action([](Scene &scene) { delete scene.page; });
        QTest::newRow("window deleted") << Action([](Scene &scene) { scene.window.reset(); });
        QTest::newRow("page hidden") << Action([](Scene &scene) { scene.page->hide(); });
        QTest::newRow("actions replaced") << Action([](Scene &scene) {
            scene.button->setOnClick(nullptr);
            scene.button->setProcessKeyEvent(nullptr);
        });
    }

    void takenAwayByItsAction()
    {
        QFETCH(std::function<void(Scene &)>, action);
        const std::function<void(Scene &)> ways[] = {
            [](Scene &scene) { scene.click(); },
            [](Scene &scene) { QVERIFY(scene.button->accessibilityPerformPress()); },
            [](Scene &scene) {
                QKeyEvent key(QEvent::KeyPress, Qt::Key_Return, {});
                QVERIFY(scene.button->performKeyEquivalent(&key));
            },
        };
        for (const auto &way : ways) {
            Scene scene;
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
        using Prepare = std::function<void(Scene &)>;
        QTest::addColumn<Prepare>("prepare");
        QTest::addColumn<QEvent::Type>("type");
        QTest::addColumn<bool>("isAsked");

        const Prepare nothing = [](Scene &scene) { scene.show(); };
        QTest::newRow("key down") << nothing << QEvent::KeyPress << true;
        QTest::newRow("key up") << nothing << QEvent::KeyRelease << false;
        QTest::newRow("shortcut override") << nothing << QEvent::ShortcutOverride << false;
        QTest::newRow("window not shown yet") << Prepare([](Scene &) {}) << QEvent::KeyPress << true;
        QTest::newRow("button hidden")
            << Prepare([](Scene &scene) { scene.button->hide(); }) << QEvent::KeyPress << true;
        QTest::newRow("page hidden") << Prepare([](Scene &scene) {
            scene.show();
            scene.page->hide();
        }) << QEvent::KeyPress << false;
        QTest::newRow("page hidden before the window is shown")
            << Prepare([](Scene &scene) { scene.page->hide(); }) << QEvent::KeyPress << false;
        QTest::newRow("page added to a window on the screen, not shown") << Prepare([](Scene &scene) {
            scene.show();
            scene.page->setParent(nullptr);
            scene.page->setParent(scene.window.get());
        }) << QEvent::KeyPress << false;
        QTest::newRow("page taken out") << Prepare([](Scene &scene) {
            scene.show();
            scene.page->setParent(nullptr);
        }) << QEvent::KeyPress << false;
        QTest::newRow("button taken out") << Prepare([](Scene &scene) {
            scene.show();
            scene.button->setParent(nullptr);
        }) << QEvent::KeyPress << false;
    }

    void keyEquivalents()
    {
        QFETCH(std::function<void(Scene &)>, prepare);
        QFETCH(QEvent::Type, type);
        QFETCH(bool, isAsked);
        Scene scene;
        prepare(scene);
        QKeyEvent event(type, Qt::Key_Return, {});
        QVERIFY(!scene.button->performKeyEquivalent(&event));
        for (const bool answer : {false, true}) {
            int asked = 0;
            scene.button->setProcessKeyEvent([&](ZELUpdaterButton *button, QKeyEvent *key) {
                asked += button == scene.button && key == &event;
                return answer;
            });
            QCOMPARE(scene.button->performKeyEquivalent(&event), answer && isAsked);
            QCOMPARE(asked, isAsked ? 1 : 0);
        }
        for (QWidget *widget : {static_cast<QWidget *>(scene.button), scene.page.data()})
            if (!widget->parentWidget())
                delete widget;
    }

    void accessibility()
    {
        Scene scene;
        scene.button->setLabel("Install");
        QAccessibleInterface *interface = QAccessible::queryAccessibleInterface(scene.button);
        QVERIFY(interface);
        QCOMPARE(interface->role(), QAccessible::Button);
        QCOMPARE(interface->text(QAccessible::Name), "Install");
        QVERIFY(!interface->state().focusable);
        QVERIFY(!interface->state().pressed);
        scene.button->setIsActive(true);
        QVERIFY(interface->state().pressed);

        QAccessibleActionInterface *actions = interface->actionInterface();
        QVERIFY(actions);
        QCOMPARE(actions->actionNames(), QStringList(QAccessibleActionInterface::pressAction()));
        actions->doAction(QAccessibleActionInterface::pressAction());
        QCOMPARE(scene.clicks, 1);
        actions->doAction(QAccessibleActionInterface::setFocusAction());
        QCOMPARE(scene.clicks, 1);

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
        const QColor rim = over(windowColor, white(0, 0.16f));
        const QPointF top(60, 0.25), upper(60, 2.25), quarter(60, 25), bottom(60, 31.25);

        QTest::newRow("grey, line") << qint64(0) << false << top << over(white(0.26f), white(1, 0.06f));
        QTest::newRow("grey, upper end") << qint64(0) << false << upper << white(0.255f);
        QTest::newRow("blue, lower quarter") << qint64(1) << false << quarter << rgb(0.035f, 0.478f, 0.922f);
        QTest::newRow("grey, bottom") << qint64(0) << false << bottom << white(0.2f);
        QTest::newRow("any other style is grey") << qint64(2) << false << bottom << white(0.2f);
        QTest::newRow("grey pressed, no line") << qint64(0) << true << top << white(0.2f);
        QTest::newRow("grey pressed, bottom") << qint64(0) << true << bottom << white(0.18f);
        QTest::newRow("blue, line") << qint64(1) << false << top << over(rgb(0, 0.584f, 1), white(1, 0.15f));
        QTest::newRow("blue, upper end") << qint64(1) << false << upper << rgb(0.003f, 0.574f, 0.993f);
        QTest::newRow("blue, bottom") << qint64(1) << false << bottom << rgb(0.035f, 0.478f, 0.922f);
        QTest::newRow("blue pressed, top") << qint64(1) << true << top << rgb(0, 0.467f, 0.8f);
        QTest::newRow("blue pressed, bottom") << qint64(1) << true << bottom << rgb(0.028f, 0.375f, 0.722f);
        QTest::newRow("rim above") << qint64(0) << false << QPointF(60, -0.4) << rim;
        QTest::newRow("rim above, pressed") << qint64(0) << true << QPointF(60, -0.4) << rim;
        QTest::newRow("rim below, pressed") << qint64(0) << true << QPointF(60, 32.4) << rim;
        QTest::newRow("rim at the side, pressed") << qint64(0) << true << QPointF(-0.4, 16) << rim;
        QTest::newRow("no shadow above") << qint64(0) << false << QPointF(60, -1.6) << windowColor;
        QTest::newRow("no shadow, pressed") << qint64(0) << true << QPointF(60, 33.4) << windowColor;
    }

    void colors()
    {
        QFETCH(qint64, style);
        QFETCH(bool, isPressed);
        QFETCH(QPointF, point);
        QFETCH(QColor, expected);
        Scene scene;
        scene.button->setStyle(style);
        scene.button->setIsActive(isPressed);
        for (const qreal ratio : {1.0, 1.5, 2.0}) {
            const QImage image = rendered(*scene.window, ratio);
            QVERIFY(isNear(colorAt(image, scene.button->pos() + point), expected));
        }
    }

    void shadowFades()
    {
        Scene scene;
        for (const qreal ratio : {1.0, 1.5, 2.0}) {
            const QImage image = rendered(*scene.window, ratio);
            const QPointF below = scene.button->pos() + QPointF(60, 32);
            const int near = colorAt(image, below + QPointF(0, 0.2)).red();
            const int far = colorAt(image, below + QPointF(0, 1.2)).red();
            const int rim = over(windowColor, QColor::fromRgbF(0, 0, 0, 0.16f)).red();
            QVERIFY(near < rim - 3);
            QVERIFY(near < far);
            QVERIFY(isNear(colorAt(image, below + QPointF(0, 3.2)), windowColor, 0));
        }
    }

    void labelStandsInTheMiddle()
    {
        Scene scene;
        scene.button->setIsActive(true); // without the line, whose colour is like the label's
        for (const qreal ratio : {1.0, 1.5, 2.0}) {
            const QRectF label = labelBounds(scene, "HHH", ratio);
            QVERIFY(std::abs(label.center().y() - 16) <= 0.75);
            QVERIFY(std::abs(label.center().x() - 143) <= 1);
        }
    }

    void longLabelIsShortened()
    {
        Scene scene;
        scene.button->setIsActive(true);
        const QRectF label = labelBounds(scene, QString("Remind me later ").repeated(9), 2);
        QVERIFY(label.left() >= 14.5 && label.right() <= 271.5);
        QVERIFY(label.width() > 230);
    }

    void surroundFollowsTheButton_data()
    {
        QTest::addColumn<std::function<void(Scene &)>>("change");
        using Change = std::function<void(Scene &)>;
        QTest::newRow("moved") << Change([](Scene &scene) { scene.button->move(20, 60); });
        QTest::newRow("resized") << Change([](Scene &scene) { scene.button->resize(100, 40); });
        QTest::newRow("hidden") << Change([](Scene &scene) { scene.button->hide(); });
        QTest::newRow("deleted") << Change([](Scene &scene) { delete scene.button; });
        QTest::newRow("taken to another page") << Change([](Scene &scene) {
            auto *other = new StripedPage(scene.window.get());
            other->setGeometry(0, 0, 350, 90);
            other->show();
            scene.button->setParent(other);
            scene.button->show();
        });
        QTest::newRow("covered in part") << Change([](Scene &scene) {
            auto *cover = new StripedPage(scene.window.get());
            cover->setGeometry(100, 30, 60, 60);
            cover->show();
        });
        QTest::newRow("part of the page redrawn")
            << Change([](Scene &scene) { scene.page->update(QRect(0, 0, 40, 41)); });
        QTest::newRow("another effect")
            << Change([](Scene &scene) { scene.button->setGraphicsEffect(new QGraphicsOpacityEffect); });
    }

    // What piecemeal updates leave on the screen is what drawing the whole window anew gives.
    void surroundFollowsTheButton()
    {
        QFETCH(std::function<void(Scene &)>, change);
        Scene scene;
        delete scene.page;
        scene.page = new StripedPage(scene.window.get());
        scene.page->resize(scene.window->size());
        scene.button = new ZELUpdaterButton(scene.page);
        scene.button->setGeometry(32, 40, 286, 32);
        scene.show();
        const QImage before = onScreen(*scene.window);
        QVERIFY(colorAt(before, {100, 39.5}) != colorAt(before, {10, 39.5}));

        change(scene);
        const QImage after = onScreen(*scene.window);
        scene.window->update();

        QCOMPARE(after, onScreen(*scene.window));
    }

    void pressIsSeen()
    {
        Scene scene;
        scene.show();
        const QImage before = onScreen(*scene.window);
        QTest::mousePress(scene.window->windowHandle(), Qt::LeftButton, {}, scene.inWindow(inside));
        QVERIFY(onScreen(*scene.window) != before);
        QTest::mouseRelease(scene.window->windowHandle(), Qt::LeftButton, {}, scene.inWindow(inside));
        QCOMPARE(onScreen(*scene.window), before);
    }

private:
    /// The rectangle, in the button's coordinates, of all pixels much lighter than the grey body.
    static QRectF labelBounds(Scene &scene, const QString &label, qreal ratio)
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

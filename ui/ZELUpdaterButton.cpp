// A widget of its own rather than a QAbstractButton, which redraws with each setter, presses itself by keys
// and shortcuts of its own choice, and tells by signals what is told here by one callback that the host may
// replace.
//
// The callbacks are the host's and may delete the button with its page and its window. So each is copied
// before it is called, and nothing of the button is touched afterwards.
#include "ZELUpdaterButton.h"

#include "ButtonPainter.h"
#include "Drawing.h"

#include <QAccessibleWidget>
#include <QGraphicsEffect>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>

#include <algorithm>

namespace {

constexpr qint64 PrimaryStyle = 1;

// A page that was taken out of its window is its own window, in Qt's terms, which nobody has shown.
bool isInWindow(const QWidget &page)
{
    return !page.isWindow() || page.isVisible();
}

// A button named by its label that can be pressed and be given the focus while it is enabled.
class AccessibleButton : public QAccessibleWidget
{
public:
    explicit AccessibleButton(ZELUpdaterButton *button)
        : QAccessibleWidget(button, QAccessible::Button)
    {
    }

    QString text(QAccessible::Text kind) const override
    {
        return kind == QAccessible::Name ? button()->label() : QAccessibleWidget::text(kind);
    }

    QAccessible::State state() const override
    {
        QAccessible::State state = QAccessibleWidget::state();
        state.pressed = button()->isActive();
        return state;
    }

    QStringList actionNames() const override
    {
        if (!button()->isEnabled())
            return {};
        return QStringList(pressAction()) + QAccessibleWidget::actionNames();
    }

    void doAction(const QString &name) override
    {
        if (name != pressAction())
            QAccessibleWidget::doAction(name);
        else if (button()->isEnabled())
            button()->accessibilityPerformPress();
    }

private:
    ZELUpdaterButton *button() const { return static_cast<ZELUpdaterButton *>(widget()); }
};

QAccessibleInterface *makeAccessibleButton(const QString &, QObject *object)
{
    auto *button = qobject_cast<ZELUpdaterButton *>(object);
    return button ? new AccessibleButton(button) : nullptr; // owned by the cache of QAccessible
}

} // namespace

// A widget cannot paint beyond its rectangle, an effect on it can: Qt then repaints what lies behind as well,
// in whatever order and region. It draws the body too, for QWidget::render() moves what drawSource() draws
// twice as far.
class ZELUpdaterButton::Surround : public QGraphicsEffect
{
public:
    explicit Surround(const ZELUpdaterButton &button)
        : m_button(button)
    {
    }

    static zel::ButtonLook lookOf(const ZELUpdaterButton &button)
    {
        return {.isPrimary = button.m_style == PrimaryStyle,
                .isPressed = button.m_isActive,
                .isHovered = button.m_isHovered && button.isEnabled(),
                .isEnabled = button.isEnabled(),
                .isFocused = button.m_showsFocus && button.hasFocus(),
                .isHighContrast = zel::isHighContrast()};
    }

    QRectF boundingRectFor(const QRectF &rect) const override
    {
        return rect.marginsAdded(zel::ButtonSurroundMargins);
    }

protected:
    void draw(QPainter *painter) override
    {
        painter->save();
        zel::drawButtonSurround(*painter, m_button.rect(), lookOf(m_button));
        zel::drawButtonBody(*painter, m_button.rect(), lookOf(m_button), m_button.label());
        painter->restore();
    }

private:
    const ZELUpdaterButton &m_button;
};

ZELUpdaterButton::ZELUpdaterButton(QWidget *parent)
    : QWidget(parent)
{
    QAccessible::installFactory(makeAccessibleButton); // once, however often it is called
    setGraphicsEffect(new Surround(*this)); // the widget owns it
    setFocusPolicy(Qt::TabFocus);
}

qint64 ZELUpdaterButton::style() const
{
    return m_style;
}
void ZELUpdaterButton::setStyle(qint64 style)
{
    m_style = style;
}

bool ZELUpdaterButton::isActive() const
{
    return m_isActive;
}
void ZELUpdaterButton::setIsActive(bool isActive)
{
    m_isActive = isActive;
}

QString ZELUpdaterButton::label() const
{
    return m_label;
}
void ZELUpdaterButton::setLabel(const QString &label)
{
    const bool isOther = m_label != label;
    m_label = label;
    if (!isOther || !QAccessible::isActive())
        return;
    QAccessibleEvent event(this, QAccessible::NameChanged);
    QAccessible::updateAccessibility(&event);
}

std::function<void()> ZELUpdaterButton::onClick() const
{
    return m_onClick;
}
void ZELUpdaterButton::setOnClick(std::function<void()> onClick)
{
    m_onClick = std::move(onClick);
}

std::function<bool(ZELUpdaterButton *, QKeyEvent *)> ZELUpdaterButton::processKeyEvent() const
{
    return m_processKeyEvent;
}

void ZELUpdaterButton::setProcessKeyEvent(
    std::function<bool(ZELUpdaterButton *, QKeyEvent *)> processKeyEvent)
{
    m_processKeyEvent = std::move(processKeyEvent);
}

bool ZELUpdaterButton::performKeyEquivalent(QKeyEvent *event)
{
    const QWidget *page = parentWidget();
    if (!page || !isInWindow(*page) || page->isHidden() || !isEnabled() || event->type() != QEvent::KeyPress)
        return false;
    const auto process = m_processKeyEvent; // the callback may delete the button, and itself with it
    return process && process(this, event);
}

QWidgetList ZELUpdaterButton::accessibilityChildren1() const
{
    return findChildren<QWidget *>(QString(), Qt::FindDirectChildrenOnly);
}

bool ZELUpdaterButton::accessibilityPerformPress()
{
    if (const auto action = m_onClick) // a copy, for it may delete the button
        action();
    return true;
}

void ZELUpdaterButton::mousePressEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton)
        return event->ignore();
    m_wasHiddenSincePress = false;
    m_showsFocus = false;
    showActive(true);
}

void ZELUpdaterButton::mouseMoveEvent(QMouseEvent *event)
{
    if (!(event->buttons() & Qt::LeftButton))
        return event->ignore();
    const bool isInside = rect().contains(event->position().toPoint());
    if (isInside != m_isActive)
        showActive(isInside);
}

void ZELUpdaterButton::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton)
        return event->ignore();
    showActive(false);
    if (!m_wasHiddenSincePress && rect().contains(event->position().toPoint()))
        accessibilityPerformPress();
}

// A button that is hidden under the pointer must not act when the mouse is released then, nor come back
// pressed.
void ZELUpdaterButton::hideEvent(QHideEvent *)
{
    m_wasHiddenSincePress = true;
    m_isHovered = false;
    if (m_isActive)
        showActive(false);
}

// Asked for only when another effect has taken the surround's place.
void ZELUpdaterButton::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    zel::drawButtonBody(painter, rect(), Surround::lookOf(*this), m_label);
}

void ZELUpdaterButton::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::EnabledChange && !isEnabled() && m_isActive)
        showActive(false);
    update();
}

void ZELUpdaterButton::enterEvent(QEnterEvent *)
{
    m_isHovered = true;
    update();
}

void ZELUpdaterButton::leaveEvent(QEvent *)
{
    m_isHovered = false;
    update();
}

// A focus that comes back with its window or from a menu looks as it did before.
void ZELUpdaterButton::focusInEvent(QFocusEvent *event)
{
    if (event->reason() != Qt::ActiveWindowFocusReason && event->reason() != Qt::PopupFocusReason)
        m_showsFocus = event->reason() != Qt::MouseFocusReason;
    update();
}

void ZELUpdaterButton::focusOutEvent(QFocusEvent *)
{
    update();
}

void ZELUpdaterButton::keyPressEvent(QKeyEvent *event)
{
    static constexpr int keys[] = {Qt::Key_Space, Qt::Key_Return, Qt::Key_Enter, Qt::Key_Select};
    const bool isPlain = (event->modifiers() & ~Qt::KeypadModifier) == Qt::NoModifier;
    if (!isPlain || std::ranges::find(keys, event->key()) == std::end(keys))
        return event->ignore(); // for the window, which asks all buttons
    // A key that is held down must not press what stands on the next page, too.
    if (!event->isAutoRepeat())
        accessibilityPerformPress();
}

void ZELUpdaterButton::showActive(bool isActive)
{
    m_isActive = isActive;
    update();
    if (!QAccessible::isActive())
        return;
    QAccessible::State changed;
    changed.pressed = true;
    QAccessibleStateChangeEvent event(this, changed);
    QAccessible::updateAccessibility(&event);
}

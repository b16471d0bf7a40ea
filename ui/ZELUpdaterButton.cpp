#include "ZELUpdaterButton.h"
#include "AccessibleButton.h"
#include "ButtonPainter.h"
#include "HighContrast.h"

#include <QGraphicsEffect>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>

#include <algorithm>

namespace {

constexpr qint64 primaryStyle = 1;

// A page that was taken out of its window is its own window, in Qt's terms, which nobody has shown.
bool isInWindow(const QWidget &page)
{
    return !page.isWindow() || page.isVisible();
}

} // namespace

// A widget cannot paint beyond its rectangle, an effect on it can: Qt then repaints what lies behind as well, in
// whatever order and region. It draws the body too, for QWidget::render() moves what drawSource() draws twice as far.
class ZELUpdaterButton::Surround : public QGraphicsEffect
{
public:
    explicit Surround(const ZELUpdaterButton &button)
        : m_button(button)
    {
    }

    QRectF boundingRectFor(const QRectF &rect) const override
    {
        return rect.marginsAdded(zel::buttonSurroundMargins);
    }

protected:
    void draw(QPainter *painter) override
    {
        painter->save();
        zel::drawButtonSurround(*painter, m_button.rect(), m_button.look());
        zel::drawButtonBody(*painter, m_button.rect(), m_button.look(), m_button.label());
        painter->restore();
    }

private:
    const ZELUpdaterButton &m_button;
};

ZELUpdaterButton::ZELUpdaterButton(QWidget *parent)
    : QWidget(parent)
{
    zel::AccessibleButton::install();
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

// A button that is hidden under the pointer must not act when the mouse is released then, nor come back pressed.
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
    zel::drawButtonBody(painter, rect(), look(), m_label);
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

zel::ButtonLook ZELUpdaterButton::look() const
{
    return {.isPrimary = m_style == primaryStyle,
            .isPressed = m_isActive,
            .isHovered = m_isHovered && isEnabled(),
            .isEnabled = isEnabled(),
            .isFocused = m_showsFocus && hasFocus(),
            .isHighContrast = zel::isHighContrast()};
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

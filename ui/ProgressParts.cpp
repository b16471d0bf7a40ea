// What is painted is a function of the time that has passed, and the timer only asks for the next painting. A
// tick that is late or lost therefore changes nothing but smoothness, and tests move a clock of their own
// instead of waiting. QPropertyAnimation and QTimeLine were no choice: they count for themselves and go on
// for widgets that nobody sees, which would wake the processor sixty times a second for a hidden window.
#include "ProgressParts.h"

#include <QEvent>
#include <QLocale>
#include <QWidget>

#include <chrono>
#include <cmath>

namespace zel {

namespace {

QString nameOfGroupAround(const QWidget *widget)
{
    while (QWidget *around = widget->parentWidget()) {
        const QAccessibleInterface *interface = QAccessible::queryAccessibleInterface(around);
        if (interface && interface->role() == QAccessible::Grouping)
            return interface->text(QAccessible::Name);
        widget = around;
    }
    return {};
}

} // namespace

double steadyTime()
{
    using Seconds = std::chrono::duration<double>;
    static const auto start = std::chrono::steady_clock::now();
    static const Seconds startSince1970 = std::chrono::system_clock::now().time_since_epoch();
    return (startSince1970 + Seconds(std::chrono::steady_clock::now() - start)).count();
}

AnimationTimer::AnimationTimer(QWidget *widget, int milliseconds, std::function<void()> tick)
    : QObject(widget)
    , m_interval(milliseconds)
    , m_tick(std::move(tick))
    , m_isSeen(widget->isVisible())
{
    widget->installEventFilter(this);
}

void AnimationTimer::setAnimating(bool isAnimating)
{
    m_isAnimating = isAnimating;
    update();
}

// The events tell more than isVisible(): a minimised window hides its widgets, which stay visible by that
// name.
bool AnimationTimer::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::Show || event->type() == QEvent::Hide) {
        m_isSeen = event->type() == QEvent::Show;
        update();
    }
    return QObject::eventFilter(watched, event);
}

void AnimationTimer::timerEvent(QTimerEvent *)
{
    tick();
}

void AnimationTimer::update()
{
    if (!m_isAnimating || !m_isSeen)
        m_timer.stop();
    else if (!m_timer.isActive())
        m_timer.start(m_interval, Qt::PreciseTimer, this);
}

AccessibleProgress::AccessibleProgress(QWidget *widget, Read read)
    : QAccessibleWidget(widget, QAccessible::ProgressBar)
    , m_read(read)
{
}

void AccessibleProgress::valueChanged(QWidget *widget, double value)
{
    if (!QAccessible::isActive())
        return;
    QAccessibleValueChangeEvent event(widget, value);
    QAccessible::updateAccessibility(&event);
}

void *AccessibleProgress::interface_cast(QAccessible::InterfaceType type)
{
    if (type == QAccessible::ValueInterface)
        return static_cast<QAccessibleValueInterface *>(this);
    return QAccessibleWidget::interface_cast(type);
}

QAccessible::State AccessibleProgress::state() const
{
    QAccessible::State state = QAccessibleWidget::state();
    state.readOnly = true;
    state.busy = reading().isBusy;
    return state;
}

QString AccessibleProgress::text(QAccessible::Text kind) const
{
    const QString given = QAccessibleWidget::text(kind);
    if (kind == QAccessible::Name && given.isEmpty())
        return nameOfGroupAround(widget());
    if (kind == QAccessible::Value && !reading().isBusy)
        return QString::number(std::lround(reading().percentage)) + QLocale().percent();
    return given;
}

QVariant AccessibleProgress::currentValue() const
{
    return reading().value;
}
void AccessibleProgress::setCurrentValue(const QVariant &) { }
QVariant AccessibleProgress::maximumValue() const
{
    return reading().maximum;
}
QVariant AccessibleProgress::minimumValue() const
{
    return reading().minimum;
}
QVariant AccessibleProgress::minimumStepSize() const
{
    return 0.0;
}

} // namespace zel

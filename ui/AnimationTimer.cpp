#include "AnimationTimer.h"

#include <QEvent>

#include <chrono>

namespace zel {

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

// The events tell more than isVisible(): a minimised window hides its widgets, which stay visible by that name.
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

} // namespace zel

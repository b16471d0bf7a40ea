// Drives the animations that a widget paints.
#pragma once

#include <QBasicTimer>
#include <QWidget>

#include <functional>

namespace zel {

/// Seconds since 1970 that run evenly: the machine's time as it was at the first call, and what has passed since. A
/// clock that is set while an animation runs would stop it or make it jump.
double steadyTime();

/// Calls a widget's tick function at an interval while an animation runs and the widget can be seen; that is a child
/// of the widget and owned by it.
class AnimationTimer : public QObject
{
    Q_OBJECT
public:
    AnimationTimer(QWidget *widget, int milliseconds, std::function<void()> tick);

    /// The time that the animation goes by, in seconds.
    double now() const { return m_clock(); }
    void setClock(std::function<double()> clock) { m_clock = std::move(clock); }

    /// Whether there is an animation to drive.
    void setAnimating(bool isAnimating);

    /// Whether ticks come: there is an animation, and it can be seen.
    bool isTicking() const { return m_timer.isActive(); }

    /// What the timer does when its time has come.
    void tick() { m_tick(); }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void timerEvent(QTimerEvent *event) override;

private:
    void update();

    int m_interval;
    std::function<void()> m_tick;
    std::function<double()> m_clock = steadyTime;
    QBasicTimer m_timer;
    bool m_isAnimating = false;
    bool m_isSeen;
};

} // namespace zel

// What the bar, the spinner and the ring share: a timer for what they paint, and what accessibility clients
// see of them.
#pragma once

#include <QAccessibleWidget>
#include <QBasicTimer>

#include <functional>

namespace zel {

/// Seconds since 1970 that run evenly: the machine's time as it was at the first call, and what has passed
/// since. A clock that is set while an animation runs would stop it or make it jump.
double steadyTime();

/// Calls a widget's tick function at an interval while an animation runs and the widget can be seen; that is
/// a child of the widget and owned by it.
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

/// What a progress widget shows now.
struct ProgressReading {
    double value = 0;
    double minimum = 0;
    double maximum = 1;
    double percentage = 0; ///< what clients read out; it stays unsaid while `isBusy`
    bool isBusy = false; ///< the end is unknown
};

/// A progress bar with a value that clients can read and not set. Unless it was given a name, it bears that
/// of the group around it, which is the title of the page that it is on.
class AccessibleProgress : public QAccessibleWidget, public QAccessibleValueInterface
{
public:
    using Read = ProgressReading (*)(const QWidget *widget);

    /// `read` tells what `widget` shows whenever a client asks.
    AccessibleProgress(QWidget *widget, Read read);

    /// Tells the clients of a new value.
    static void valueChanged(QWidget *widget, double value);

    void *interface_cast(QAccessible::InterfaceType type) override;
    QAccessible::State state() const override;
    QString text(QAccessible::Text kind) const override;

    QVariant currentValue() const override;
    void setCurrentValue(const QVariant &value) override;
    QVariant maximumValue() const override;
    QVariant minimumValue() const override;
    QVariant minimumStepSize() const override;

private:
    ProgressReading reading() const { return m_read(widget()); }

    const Read m_read;
};

} // namespace zel

// The progress bar and the spinner of the updater's pages.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QWidget>

/// Shows how far a task has come, or that it goes on, for a dark window. Main thread only.
///
/// A bar is a slim track in the middle of a box 18 points high; it fills from the side where reading begins.
/// A spinner is 18 by 18 points and always indeterminate. Both are hidden and shown like any widget, and
/// animate only while they can be seen. Accessibility clients see a progress bar. The setters redraw.
class ZEL_EXPORT ZELProgressIndicator : public QWidget
{
    Q_OBJECT
public:
    enum class Style {
        Bar,
        Spinning,
    };

    explicit ZELProgressIndicator(Style style, QWidget *parent = nullptr);

    /// Whether the end is unknown: the bar shows a moving segment while it is animated, an empty track else.
    /// True at first.
    bool isIndeterminate() const;
    void setIndeterminate(bool isIndeterminate);

    /// What the bar shows of the range `minValue` to `maxValue`, which is 0 to 100 at first. A value outside
    /// the range is kept and drawn as the nearer end; one that is not a number, and any in an empty range, as
    /// an empty bar.
    double doubleValue() const;
    void setDoubleValue(double doubleValue);
    double minValue() const;
    void setMinValue(double minValue);
    double maxValue() const;
    void setMaxValue(double maxValue);

    /// The share of the range that is drawn, 0 to 1.
    double fraction() const;

    /// Starts and stops the movement of a spinner or an indeterminate bar; a spinner that stops stands still.
    /// A second start does nothing.
    void startAnimation();
    void stopAnimation();

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    class Timer;
    void updateTimer();
    double animationTime() const;

    const Style m_style;
    bool m_isIndeterminate = true;
    double m_doubleValue = 0;
    double m_minValue = 0;
    double m_maxValue = 100;
    bool m_isAnimated = false;
    double m_animationStart = 0;
    Timer *m_timer; // a child of the widget
};

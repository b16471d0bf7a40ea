// The push button of the updater's pages.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QWidget>

#include <functional>

class QKeyEvent;

/// A rounded push button that draws itself, in grey or, for the main action, in blue.
///
/// Its action is a callback. Tab and backtab lead to it: Space, Return and Enter press it then, and it shows
/// a focus ring until the mouse is pressed on it. Every other key, and all of them while it has no focus, its
/// window offers to `performKeyEquivalent`. Accessibility clients see a button named by its label that can be
/// pressed. Rim, shadow and ring are drawn around the button's rectangle, onto what lies behind it, as its
/// graphics effect; another effect takes their place. Child widgets are not drawn.
///
/// The setters do not redraw: a new label or style shows with the next redraw that something else causes.
/// Main thread only. The callbacks may hide or delete the button, its page or its window.
class ZEL_EXPORT ZELUpdaterButton : public QWidget
{
    Q_OBJECT
public:
    /// `parent` is the page that the button belongs to and is owned by.
    explicit ZELUpdaterButton(QWidget *parent = nullptr);

    /// 1 is primary (blue), every other value secondary (grey). Hides QWidget::style() on purpose, like its
    /// setter; the widget style stays within reach as `QWidget::style()`.
    qint64 style() const;
    void setStyle(qint64 style);

    /// Whether the button looks pressed: the mouse was pressed on it and is inside.
    bool isActive() const;
    void setIsActive(bool isActive);

    /// The text shown, on one line; a long one is written smaller, and shortened when that does not suffice.
    QString label() const;
    void setLabel(const QString &label);

    /// The action; may be empty.
    std::function<void()> onClick() const;
    void setOnClick(std::function<void()> onClick);

    /// Decides whether a key press is this button's shortcut and performs it then; returns whether it did.
    /// May be empty.
    std::function<bool(ZELUpdaterButton *, QKeyEvent *)> processKeyEvent() const;
    void setProcessKeyEvent(std::function<bool(ZELUpdaterButton *, QKeyEvent *)> processKeyEvent);

    /// Offers a key event to `processKeyEvent` and returns its answer. Returns false without asking when
    /// there is none, when `event` is not a key press, when the button is disabled, or when the button's
    /// parent, its page, is in no window or hidden; whether the button itself is hidden does not matter.
    bool performKeyEquivalent(QKeyEvent *event);

    /// The button's child widgets, which stay the button's own. Not the accessor of the accessibility
    /// clients, hence the 1: they see the children that they see of any widget.
    QWidgetList accessibilityChildren1() const;

    /// Runs the action when there is one, without the pressed look. Always true.
    bool accessibilityPerformPress();

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void hideEvent(QHideEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void changeEvent(QEvent *event) override;
    void enterEvent(QEnterEvent *event) override;
    void leaveEvent(QEvent *event) override;
    void focusInEvent(QFocusEvent *event) override;
    void focusOutEvent(QFocusEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;

private:
    class Surround;
    void showActive(bool isActive);

    qint64 m_style = 0;
    bool m_isActive = false;
    bool m_wasHiddenSincePress = false;
    bool m_isHovered = false;
    bool m_showsFocus = false; // while it has the focus
    QString m_label;
    std::function<void()> m_onClick;
    std::function<bool(ZELUpdaterButton *, QKeyEvent *)> m_processKeyEvent;
};

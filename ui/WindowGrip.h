// Moves the window by a part of it that has the mouse for something else.
#pragma once

#include <QEvent>
#include <QObject>
#include <QPointF>

#include <optional>

class QMouseEvent;
class QWidget;

namespace zel {

/// Makes the upper edge of a widget, and of all that is in it, one to drag the window by. A click there is the widget's:
/// only a press that moves on becomes the window's, and the widget then sees it end where nothing can be hit.
class WindowGrip : public QObject
{
public:
    static constexpr int Height = 32; ///< logical pixels from the upper edge

    /// Owned by `widget`.
    explicit WindowGrip(QWidget *widget);

    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void watch(QObject *object);
    bool handle(QWidget *target, QMouseEvent *event);
    bool handlesMove(QWidget *target, QMouseEvent *event);
    void drag(QWidget *target, QMouseEvent *event);
    void pass(QMouseEvent *event, QEvent::Type type, const QPointF &globalPosition);

    QWidget *m_widget;
    std::optional<QPointF> m_pressed; // where, on the screen
    bool m_isDragging = false;
};

} // namespace zel

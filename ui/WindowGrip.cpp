#include "WindowGrip.h"

#include <QApplication>
#include <QChildEvent>
#include <QMouseEvent>
#include <QWidget>

namespace zel {

WindowGrip::WindowGrip(QWidget *widget)
    : QObject(widget)
    , m_widget(widget)
{
    watch(widget);
}

void WindowGrip::watch(QObject *object)
{
    if (!object->isWidgetType())
        return;
    object->installEventFilter(this);
    for (QObject *child : object->children())
        watch(child);
}

bool WindowGrip::eventFilter(QObject *watched, QEvent *event)
{
    switch (event->type()) {
    case QEvent::ChildAdded: // a web view gets the widget that takes its mouse when a page begins
        watch(static_cast<QChildEvent *>(event)->child());
        return false;
    case QEvent::MouseButtonPress:
    case QEvent::MouseMove:
    case QEvent::MouseButtonRelease:
        return handle(static_cast<QWidget *>(watched), static_cast<QMouseEvent *>(event));
    default:
        return false;
    }
}

bool WindowGrip::handle(QWidget *target, QMouseEvent *event)
{
    if (!(event->buttons() & Qt::LeftButton) && event->type() == QEvent::MouseMove)
        m_pressed.reset(); // who moves the window for us may keep the release
    if (event->type() == QEvent::MouseMove)
        return m_pressed && handlesMove(target, event);
    const QPointF place = m_widget->mapFromGlobal(event->globalPosition());
    if (event->button() != Qt::LeftButton)
        return false;
    const bool wasDragging = m_isDragging;
    m_isDragging = false;
    m_pressed.reset();
    if (event->type() == QEvent::MouseButtonPress && place.y() < Height)
        m_pressed = event->globalPosition();
    if (event->type() == QEvent::MouseButtonRelease && wasDragging)
        pass(event, QEvent::MouseButtonRelease, event->globalPosition());
    return wasDragging;
}

bool WindowGrip::handlesMove(QWidget *target, QMouseEvent *event)
{
    const QPointF way = event->globalPosition() - *m_pressed;
    if (!m_isDragging && way.manhattanLength() >= QApplication::startDragDistance())
        drag(target, event);
    if (m_isDragging)
        pass(event, QEvent::MouseMove, event->globalPosition());
    // Until it is decided the widget is told nothing: it would begin to drag the link below the mouse.
    return true;
}

void WindowGrip::drag(QWidget *target, QMouseEvent *event)
{
    const QPointF pressed = *m_pressed;
    m_pressed.reset(); // so that what is sent now passes
    const QPointF nowhere(-1, -1);
    QMouseEvent end(QEvent::MouseButtonRelease, nowhere, target->mapToGlobal(nowhere), Qt::LeftButton,
                    Qt::NoButton, event->modifiers());
    QApplication::sendEvent(target, &end);
    m_pressed = pressed;
    m_isDragging = true;
    pass(event, QEvent::MouseButtonPress, pressed);
}

void WindowGrip::pass(QMouseEvent *event, QEvent::Type type, const QPointF &globalPosition)
{
    QWidget *window = m_widget->window();
    const Qt::MouseButton button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
    QMouseEvent passed(type, window->mapFromGlobal(globalPosition), globalPosition, button, event->buttons(),
                       event->modifiers());
    QApplication::sendEvent(window, &passed);
}

} // namespace zel

// What accessibility clients are told.
#pragma once

#include <QAccessible>
#include <QObject>
#include <QStringList>

#include <private/qguiapplication_p.h>
#include <qpa/qplatformaccessibility.h>
#include <qpa/qplatformintegration.h>

/// Collects the events of one kind as the names of the objects that they come from, while it lives. One at a
/// time.
class AccessibilityLog
{
public:
    explicit AccessibilityLog(QAccessible::Event kind)
    {
        s_kind = kind;
        s_names.clear();
        QGuiApplicationPrivate::platformIntegration()->accessibility()->setActive(true);
        QAccessible::installUpdateHandler(record);
    }
    ~AccessibilityLog()
    {
        QAccessible::installUpdateHandler(nullptr);
        QGuiApplicationPrivate::platformIntegration()->accessibility()->setActive(false);
    }

    QStringList names() const { return s_names; }

private:
    static void record(QAccessibleEvent *event)
    {
        if (event->type() == s_kind && event->accessibleInterface())
            s_names += event->accessibleInterface()->text(QAccessible::Name);
    }

    static inline QAccessible::Event s_kind;
    static inline QStringList s_names;
};

#include "AccessibleButton.h"

namespace zel {
namespace {

QAccessibleInterface *makeAccessibleButton(const QString &, QObject *object)
{
    auto *button = qobject_cast<ZELUpdaterButton *>(object);
    return button ? new AccessibleButton(button) : nullptr; // owned by the cache of QAccessible
}

} // namespace

AccessibleButton::AccessibleButton(ZELUpdaterButton *button)
    : QAccessibleWidget(button, QAccessible::Button)
{
}

void AccessibleButton::install()
{
    QAccessible::installFactory(makeAccessibleButton);
}

QString AccessibleButton::text(QAccessible::Text kind) const
{
    return kind == QAccessible::Name ? button()->label() : QAccessibleWidget::text(kind);
}

QAccessible::State AccessibleButton::state() const
{
    QAccessible::State state = QAccessibleWidget::state();
    state.pressed = button()->isActive();
    return state;
}

QStringList AccessibleButton::actionNames() const
{
    if (!button()->isEnabled())
        return {};
    return QStringList(pressAction()) + QAccessibleWidget::actionNames();
}

void AccessibleButton::doAction(const QString &name)
{
    if (name != pressAction())
        QAccessibleWidget::doAction(name);
    else if (button()->isEnabled())
        button()->accessibilityPerformPress();
}

ZELUpdaterButton *AccessibleButton::button() const
{
    return static_cast<ZELUpdaterButton *>(widget());
}

} // namespace zel

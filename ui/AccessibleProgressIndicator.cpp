#include "AccessibleProgressIndicator.h"

#include <QLocale>

#include <cmath>

namespace zel {
namespace {

QAccessibleInterface *makeAccessibleIndicator(const QString &, QObject *object)
{
    auto *indicator = qobject_cast<ZELProgressIndicator *>(object);
    return indicator ? new AccessibleProgressIndicator(indicator)
                     : nullptr; // owned by the cache of QAccessible
}

} // namespace

AccessibleProgressIndicator::AccessibleProgressIndicator(ZELProgressIndicator *indicator)
    : QAccessibleWidget(indicator, QAccessible::ProgressBar)
{
}

void AccessibleProgressIndicator::install()
{
    QAccessible::installFactory(makeAccessibleIndicator);
}

void *AccessibleProgressIndicator::interface_cast(QAccessible::InterfaceType type)
{
    if (type == QAccessible::ValueInterface)
        return static_cast<QAccessibleValueInterface *>(this);
    return QAccessibleWidget::interface_cast(type);
}

QAccessible::State AccessibleProgressIndicator::state() const
{
    QAccessible::State state = QAccessibleWidget::state();
    state.readOnly = true;
    state.busy = indicator()->isIndeterminate();
    return state;
}

QString AccessibleProgressIndicator::text(QAccessible::Text kind) const
{
    if (kind != QAccessible::Value || indicator()->isIndeterminate())
        return QAccessibleWidget::text(kind);
    return QString::number(std::lround(indicator()->fraction() * 100)) + QLocale().percent();
}

QVariant AccessibleProgressIndicator::currentValue() const
{
    return indicator()->doubleValue();
}
void AccessibleProgressIndicator::setCurrentValue(const QVariant &) { }
QVariant AccessibleProgressIndicator::maximumValue() const
{
    return indicator()->maxValue();
}
QVariant AccessibleProgressIndicator::minimumValue() const
{
    return indicator()->minValue();
}
QVariant AccessibleProgressIndicator::minimumStepSize() const
{
    return 0.0;
}

ZELProgressIndicator *AccessibleProgressIndicator::indicator() const
{
    return static_cast<ZELProgressIndicator *>(widget());
}

} // namespace zel

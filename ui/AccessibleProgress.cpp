#include "AccessibleProgress.h"

#include "ZELProgressIndicator.h"
#include "ZELUpdaterPage.h"
#include "ZELUpdaterProgressView.h"

#include <QLabel>
#include <QLocale>

#include <cmath>

namespace zel {
namespace {

ProgressReading readIndicator(const QWidget *widget)
{
    const auto *indicator = static_cast<const ZELProgressIndicator *>(widget);
    return {indicator->doubleValue(), indicator->minValue(), indicator->maxValue(),
            indicator->fraction() * 100, indicator->isIndeterminate()};
}

ProgressReading readRing(const QWidget *widget)
{
    const auto *ring = static_cast<const ZELUpdaterProgressView *>(widget);
    return {.value = ring->progress(), .percentage = ring->progress() * 100.0, .isBusy = ring->looping()};
}

QString titleOfPageAround(const QWidget *widget)
{
    while (widget && !qobject_cast<const ZELUpdaterPage *>(widget))
        widget = widget->parentWidget();
    const auto *page = qobject_cast<const ZELUpdaterPage *>(widget);
    return page && page->label() ? page->label()->text() : QString();
}

} // namespace

AccessibleProgress::AccessibleProgress(QWidget *widget, Read read)
    : QAccessibleWidget(widget, QAccessible::ProgressBar)
    , m_read(read)
{
}

QAccessibleInterface *AccessibleProgress::make(const QString &, QObject *object)
{
    if (auto *indicator = qobject_cast<ZELProgressIndicator *>(object))
        return new AccessibleProgress(indicator, readIndicator);
    if (auto *ring = qobject_cast<ZELUpdaterProgressView *>(object))
        return new AccessibleProgress(ring, readRing);
    return nullptr;
}

void AccessibleProgress::install()
{
    QAccessible::installFactory(make);
}

void AccessibleProgress::valueChanged(QWidget *widget, double value)
{
    if (!QAccessible::isActive())
        return;
    QAccessibleValueChangeEvent event(widget, value);
    QAccessible::updateAccessibility(&event);
}

void *AccessibleProgress::interface_cast(QAccessible::InterfaceType type)
{
    if (type == QAccessible::ValueInterface)
        return static_cast<QAccessibleValueInterface *>(this);
    return QAccessibleWidget::interface_cast(type);
}

QAccessible::State AccessibleProgress::state() const
{
    QAccessible::State state = QAccessibleWidget::state();
    state.readOnly = true;
    state.busy = reading().isBusy;
    return state;
}

QString AccessibleProgress::text(QAccessible::Text kind) const
{
    const QString given = QAccessibleWidget::text(kind);
    if (kind == QAccessible::Name && given.isEmpty())
        return titleOfPageAround(widget());
    if (kind == QAccessible::Value && !reading().isBusy)
        return QString::number(std::lround(reading().percentage)) + QLocale().percent();
    return given;
}

QVariant AccessibleProgress::currentValue() const
{
    return reading().value;
}
void AccessibleProgress::setCurrentValue(const QVariant &) { }
QVariant AccessibleProgress::maximumValue() const
{
    return reading().maximum;
}
QVariant AccessibleProgress::minimumValue() const
{
    return reading().minimum;
}
QVariant AccessibleProgress::minimumStepSize() const
{
    return 0.0;
}

} // namespace zel

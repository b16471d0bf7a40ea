// What accessibility clients see of a ZELProgressIndicator.
#pragma once

#include "ZELProgressIndicator.h"

#include <QAccessibleWidget>

namespace zel {

/// A progress bar with a value that clients can read and not set, busy while it is indeterminate.
class AccessibleProgressIndicator : public QAccessibleWidget, public QAccessibleValueInterface
{
public:
    explicit AccessibleProgressIndicator(ZELProgressIndicator *indicator);

    /// Makes accessibility know the class; calls after the first do nothing.
    static void install();

    void *interface_cast(QAccessible::InterfaceType type) override;
    QAccessible::State state() const override;
    QString text(QAccessible::Text kind) const override;

    QVariant currentValue() const override;
    void setCurrentValue(const QVariant &value) override;
    QVariant maximumValue() const override;
    QVariant minimumValue() const override;
    QVariant minimumStepSize() const override;

private:
    ZELProgressIndicator *indicator() const;
};

} // namespace zel

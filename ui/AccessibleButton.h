// What accessibility clients see of a ZELUpdaterButton.
#pragma once

#include "ZELUpdaterButton.h"

#include <QAccessibleWidget>

namespace zel {

/// A button named by its label that can be pressed and be given the focus while it is enabled.
class AccessibleButton : public QAccessibleWidget
{
public:
    explicit AccessibleButton(ZELUpdaterButton *button);

    /// Makes accessibility know the class; calls after the first do nothing.
    static void install();

    QString text(QAccessible::Text kind) const override;
    QAccessible::State state() const override;
    QStringList actionNames() const override;
    void doAction(const QString &name) override;

private:
    ZELUpdaterButton *button() const;
};

} // namespace zel

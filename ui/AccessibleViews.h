// What accessibility clients see of the window and its pages.
#pragma once

#include <QAccessibleWidget>

namespace zel {

/// The window, a dialog named by its title; or a page, a group named by its title and described by its message, as far
/// as it was given no other name and description.
class AccessibleView : public QAccessibleWidget
{
public:
    using QAccessibleWidget::QAccessibleWidget;

    /// Makes accessibility know the views; calls after the first do nothing.
    static void install();

    QString text(QAccessible::Text kind) const override;
};

} // namespace zel

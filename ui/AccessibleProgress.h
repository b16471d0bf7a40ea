// What accessibility clients see of the progress bar, the spinner and the ring.
#pragma once

#include <QAccessibleWidget>

namespace zel {

/// What a progress widget shows now.
struct ProgressReading {
    double value = 0;
    double minimum = 0;
    double maximum = 1;
    double percentage = 0; ///< what clients read out; it stays unsaid while `isBusy`
    bool isBusy = false; ///< the end is unknown
};

/// A progress bar with a value that clients can read and not set. It bears the title of the page that it is on as its
/// name, unless it was given one.
class AccessibleProgress : public QAccessibleWidget, public QAccessibleValueInterface
{
public:
    /// For a ZELProgressIndicator or a ZELUpdaterProgressView; null for every other object. The caller owns it.
    static QAccessibleInterface *make(const QString &className, QObject *object);

    /// Makes accessibility know the class; calls after the first do nothing.
    static void install();

    /// Tells the clients of a new value.
    static void valueChanged(QWidget *widget, double value);

    void *interface_cast(QAccessible::InterfaceType type) override;
    QAccessible::State state() const override;
    QString text(QAccessible::Text kind) const override;

    QVariant currentValue() const override;
    void setCurrentValue(const QVariant &value) override;
    QVariant maximumValue() const override;
    QVariant minimumValue() const override;
    QVariant minimumStepSize() const override;

private:
    using Read = ProgressReading (*)(const QWidget *widget);

    AccessibleProgress(QWidget *widget, Read read);
    ProgressReading reading() const { return m_read(widget()); }

    const Read m_read;
};

} // namespace zel

// A dim background.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QWidget>

/// Fills its bounds with black at alpha 0.6. Main thread only.
class ZEL_EXPORT ZELUpdaterView : public QWidget
{
    Q_OBJECT
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent *event) override;
};

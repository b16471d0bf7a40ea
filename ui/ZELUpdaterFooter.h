// A footer's upper edge.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QWidget>

/// Draws a line, one point high, in white 0.15 along its top edge and nothing else. Main thread only.
class ZEL_EXPORT ZELUpdaterFooter : public QWidget
{
    Q_OBJECT
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent *event) override;
};

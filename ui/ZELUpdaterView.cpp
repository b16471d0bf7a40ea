#include "ZELUpdaterView.h"

#include <QPainter>

void ZELUpdaterView::paintEvent(QPaintEvent *)
{
    QPainter(this).fillRect(rect(), QColor::fromRgbF(0, 0, 0, 0.6F));
}

#include "ZELUpdaterFooter.h"

#include <QPainter>

void ZELUpdaterFooter::paintEvent(QPaintEvent *)
{
    QPainter(this).fillRect(0, 0, width(), 1, QColor::fromRgbF(0.15F, 0.15F, 0.15F));
}

#include "PixelGrid.h"

#include <algorithm>
#include <cmath>

namespace zel {

QRectF alignedToPixels(const QRectF &rect, const QPainter &painter)
{
    const QTransform toDevice = painter.deviceTransform();
    const QRectF device = toDevice.mapRect(rect);
    const QRectF aligned(QPointF(std::round(device.left()), std::round(device.top())),
                         QPointF(std::round(device.right()), std::round(device.bottom())));
    return toDevice.inverted().mapRect(aligned);
}

qreal alignedLine(const QPainter &painter)
{
    const qreal ratio = std::abs(painter.deviceTransform().m22());
    return ratio > 0 ? std::max(1.0, std::round(ratio)) / ratio : 1;
}

} // namespace zel

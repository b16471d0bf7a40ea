// Keeps edges on whole device pixels, whatever the ratio between them and logical pixels.
#pragma once

#include <QPainter>

namespace zel {

/// The rectangle whose edges are the device pixel edges next to those of `rect`; `painter` may be moved and scaled,
/// not turned.
QRectF alignedToPixels(const QRectF &rect, const QPainter &painter);

/// The thickness of a line of one logical pixel that fills whole device pixels, in logical pixels; at least one
/// device pixel.
qreal alignedLine(const QPainter &painter);

} // namespace zel

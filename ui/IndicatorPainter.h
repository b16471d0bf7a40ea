// The looks of the progress indicator.
#pragma once

#include <QPainter>

namespace zel {

/// Draws a slim track in the middle of `bounds`, filled over `fraction` (0 to 1) of its length from the left.
void drawBar(QPainter &painter, const QRectF &bounds, double fraction);

/// As `drawBar`, with a segment that passes from the left to the right once a period; `time` in seconds.
void drawMovingBar(QPainter &painter, const QRectF &bounds, double time);

/// Draws twelve fading spokes in the middle of `bounds` that turn clockwise once a second; `time` in seconds.
void drawSpokes(QPainter &painter, const QRectF &bounds, double time);

} // namespace zel

// What all that draws itself has in common: the screen's pixels, the system's font, and high contrast.
#pragma once

#include <QColor>
#include <QFont>
#include <QRectF>

class QPainter;

namespace zel {

/// The rectangle whose edges are the device pixel edges next to those of `rect`, whatever the ratio between
/// device and logical pixels; `painter` may be moved and scaled, not turned.
QRectF alignedToPixels(const QRectF &rect, const QPainter &painter);

/// The thickness of a line of one logical pixel that fills whole device pixels, in logical pixels; at least
/// one device pixel.
qreal alignedLine(const QPainter &painter);

/// The system's font at `size` logical pixels. `text` is what will be written with it: where its script is
/// not in the font and the other font that stands in has no such weight, the weight is the nearest one that
/// leads to that font.
QFont systemFont(int size, QFont::Weight weight, const QString &text = {});

/// Whether the system's palette is one of high contrast: texts on windows that differ from them as much as
/// black from white. The window stays dark then, for the release notes are written for that, but in black and
/// white alone. It changes with QEvent::ApplicationPaletteChange.
bool isHighContrast();

/// The contrast of two opaque colours as WCAG 2 defines it, 1 to 21.
double contrast(const QColor &one, const QColor &other);

} // namespace zel

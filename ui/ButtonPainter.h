// The look of the push button.
#pragma once

#include <QMarginsF>
#include <QPainter>

namespace zel {

struct ButtonLook {
    bool isPrimary = false;
    bool isPressed = false;
};

/// How far rim and shadow reach beyond the button's rectangle.
inline constexpr QMarginsF buttonSurroundMargins(2, 2, 2, 3);

/// Draws what lies outside the button's rectangle `bounds`: the rim and, unless it is pressed, the drop shadow.
/// What `drawButtonBody` draws goes on top.
void drawButtonSurround(QPainter &painter, const QRectF &bounds, ButtonLook look);

/// Draws the button inside its rectangle `bounds`; `label` is shortened to the room there is.
void drawButtonBody(QPainter &painter, const QRectF &bounds, ButtonLook look, const QString &label);

} // namespace zel

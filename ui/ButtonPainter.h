// The look of the push button.
#pragma once

#include <QMarginsF>
#include <QPainter>

namespace zel {

struct ButtonLook {
    bool isPrimary = false;
    bool isPressed = false;
    bool isHovered = false; ///< the mouse is over it
    bool isEnabled = true;
    bool isFocused = false; ///< keys go to it, and that is to be seen
    bool isHighContrast = false;
};

/// How far rim, shadow and focus ring reach beyond the button's rectangle.
inline constexpr QMarginsF ButtonSurroundMargins(5, 5, 5, 5);

/// Draws what lies outside the button's rectangle `bounds`: the rim, the drop shadow of a button that can be
/// pressed and is not, and the focus ring. What `drawButtonBody` draws goes on top.
void drawButtonSurround(QPainter &painter, const QRectF &bounds, ButtonLook look);

/// Draws the button inside its rectangle `bounds`. A `label` that is too long for the room there is gets
/// smaller, and is shortened where that does not suffice.
void drawButtonBody(QPainter &painter, const QRectF &bounds, ButtonLook look, const QString &label);

} // namespace zel

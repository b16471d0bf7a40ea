// A button as two drawings: what lies around it, which a widget can only paint as an effect on itself, and
// its body, which goes on top. Both are functions of a `ButtonLook` alone, so that no state can be seen that
// is not in it.
//
// All edges are brought to whole device pixels first (Drawing.h): at a ratio of 1.25 or 1.5, a line of one
// point would else be two grey ones. The shadow is a few rounded rectangles instead of a blur: Qt blurs
// pictures only, which would cost one for each button and painting. The colours are given; where a label on
// them would be hard to read, it is the label that gets help (`drawHalo`).
#include "ButtonPainter.h"

#include "Drawing.h"

#include <QFontMetricsF>
#include <QLineF>
#include <QPainterPath>

#include <cmath>

namespace zel {
namespace {

constexpr qreal BodyRadius = 4;
constexpr qreal RimRadius = 5;

struct Colours {
    QColor gradientStart;
    QColor gradientEnd;
    QColor highlight;
    QColor label;
};

QColor white(float level, float alpha = 1)
{
    return QColor::fromRgbF(level, level, level, alpha);
}
QColor rgb(float red, float green, float blue)
{
    return QColor::fromRgbF(red, green, blue);
}

Colours highContrastColoursOf(ButtonLook look)
{
    const float body =
        (look.isPrimary ? 1.0f : 0.0f) + (look.isPressed ? (look.isPrimary ? -0.3f : 0.3f) : 0);
    return {white(body), white(body), white(1), white(look.isPrimary ? 0 : 1)};
}

Colours coloursOf(ButtonLook look)
{
    if (look.isHighContrast)
        return highContrastColoursOf(look);
    if (look.isPrimary && look.isPressed)
        return {rgb(0.028f, 0.375f, 0.722f), rgb(0, 0.467f, 0.8f), {}, white(1, 0.7f)};
    if (look.isPrimary)
        return {rgb(0.035f, 0.478f, 0.922f), rgb(0, 0.584f, 1), white(1, 0.15f), white(1)};
    if (look.isPressed)
        return {white(0.18f), white(0.2f), {}, white(0.85f, 0.7f)};
    return {rgb(0.2f, 0.2f, 0.2f), rgb(0.26f, 0.26f, 0.26f), white(1, 0.06f), white(0.85f)};
}

void fillRounded(QPainter &painter, const QRectF &rect, qreal radius, const QBrush &brush)
{
    painter.setPen(Qt::NoPen);
    painter.setBrush(brush);
    painter.drawRoundedRect(rect, radius, radius);
}

// A blur of one point as four rounded rectangles, half a point apart, that add up to black at 0.3.
void drawShadow(QPainter &painter, const QRectF &body)
{
    constexpr qreal alpha = 0.3;
    const QColor layer = QColor::fromRgbF(0, 0, 0, float(1 - std::pow(1 - alpha, 0.25)));
    const QRectF shadow = body.translated(0, 1);
    for (const qreal spread : {0.75, 0.25, -0.25, -0.75})
        fillRounded(painter, shadow.adjusted(-spread, -spread, spread, spread), BodyRadius + spread, layer);
}

QLinearGradient bodyGradient(const QRectF &body, const Colours &colours)
{
    QLinearGradient gradient(body.bottomLeft(), body.topLeft());
    gradient.setColorAt(0.25, colours.gradientStart);
    gradient.setColorAt(1, colours.gradientEnd);
    return gradient;
}

void drawHighlight(QPainter &painter, const QRectF &body, const QColor &colour)
{
    QPainterPath path;
    path.addRoundedRect(body, BodyRadius, BodyRadius);
    painter.fillPath(path.subtracted(path.translated(0, alignedLine(painter))), colour);
}

// Two points wide and as far away from the body, so that it can be told from a body as light as itself.
void drawFocusRing(QPainter &painter, const QRectF &body, bool isHighContrast)
{
    painter.setPen(QPen(isHighContrast ? white(1) : rgb(0.55f, 0.8f, 1), 2));
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(body.adjusted(-3, -3, 3, 3), BodyRadius + 3, BodyRadius + 3);
}

// An edge all around is what shows a button where its body is as black as the window.
void drawEdge(QPainter &painter, const QRectF &body, ButtonLook look)
{
    const qreal line = alignedLine(painter) * (look.isHovered ? 2 : 1);
    painter.setPen(QPen(white(1), line));
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(body.adjusted(line / 2, line / 2, -line / 2, -line / 2), BodyRadius, BodyRadius);
}

// The metrics of a font round it to whole pixels, up on a fine screen, which puts the label too low.
qreal exactCapHeight(const QFont &font)
{
    QPainterPath outline;
    outline.addText(0, 0, font, QStringLiteral("H"));
    return outline.boundingRect().height();
}

// The label's font, smaller where that brings the label into `width`.
QFont labelFont(const QString &label, qreal width, QPaintDevice *device)
{
    constexpr int size = 14;
    constexpr int smallestSize = 11;
    QFont font = systemFont(size, QFont::DemiBold, label);
    while (font.pixelSize() > smallestSize && QFontMetricsF(font, device).horizontalAdvance(label) > width)
        font.setPixelSize(font.pixelSize() - 1);
    return font;
}

// White on the upper end of the blue has a contrast of 3.1; the darkness around the letters brings it to 4.5.
// It is made of the letters themselves, a little aside, for their outlines do not lie where a hinted font
// puts them.
void drawHalo(QPainter &painter, const QPointF &origin, const QString &text)
{
    constexpr int directions = 8;
    painter.setPen(white(0, 0.08f));
    for (const qreal distance : {1.0, 2.0}) {
        for (int i = 0; i < directions; ++i)
            painter.drawText(origin + QLineF::fromPolar(distance, i * 360.0 / directions).p2(), text);
    }
}

void drawLabel(QPainter &painter, const QRectF &bounds, ButtonLook look, const QString &label)
{
    const QRectF box(bounds.x() + 15, bounds.y() + 7, bounds.width() - 30, 16);
    const QFont font = labelFont(label, box.width(), painter.device());
    const QFontMetricsF metrics(font, painter.device());
    const QString text = metrics.elidedText(label, Qt::ElideRight, box.width());

    // The box stands one point above the middle of a 32-point button; its capitals stand in the middle.
    const qreal middle = box.center().y() + 1;
    const qreal capHeight = exactCapHeight(font);
    const QRectF capitals(box.center().x() - metrics.horizontalAdvance(text) / 2, middle - capHeight / 2, 0,
                          capHeight);
    const QPointF origin = alignedToPixels(capitals, painter).bottomLeft();
    painter.setFont(font);
    if (look.isPrimary && !look.isHighContrast)
        drawHalo(painter, origin, text);
    painter.setPen(coloursOf(look).label);
    painter.drawText(origin, text);
}

} // namespace

void drawButtonSurround(QPainter &painter, const QRectF &bounds, ButtonLook look)
{
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF body = alignedToPixels(bounds, painter);
    const qreal rim = alignedLine(painter);
    fillRounded(painter, body.adjusted(-rim, -rim, rim, rim), RimRadius, white(0, 0.16f));
    if (!look.isPressed && look.isEnabled && !look.isHighContrast)
        drawShadow(painter, body);
    if (look.isFocused)
        drawFocusRing(painter, body, look.isHighContrast);
}

void drawButtonBody(QPainter &painter, const QRectF &bounds, ButtonLook look, const QString &label)
{
    constexpr qreal disabledOpacity = 0.4;
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setOpacity(look.isEnabled ? 1 : disabledOpacity);
    const Colours colours = coloursOf(look);
    const QRectF body = alignedToPixels(bounds, painter);
    fillRounded(painter, body, BodyRadius, bodyGradient(body, colours));
    if (look.isHighContrast)
        drawEdge(painter, body, look);
    else if (look.isHovered && !look.isPressed)
        fillRounded(painter, body, BodyRadius, white(1, 0.07f));
    if (!look.isPressed && look.isEnabled && !look.isHighContrast)
        drawHighlight(painter, body, colours.highlight);
    drawLabel(painter, bounds, look, label);
}

} // namespace zel

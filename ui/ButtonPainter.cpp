#include "ButtonPainter.h"
#include "Fonts.h"
#include "PixelGrid.h"

#include <QFontMetricsF>
#include <QPainterPath>

#include <cmath>

namespace zel {
namespace {

constexpr qreal bodyRadius = 4;
constexpr qreal rimRadius = 5;

struct Colors {
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

Colors colorsOf(ButtonLook look)
{
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
        fillRounded(painter, shadow.adjusted(-spread, -spread, spread, spread), bodyRadius + spread, layer);
}

QLinearGradient bodyGradient(const QRectF &body, const Colors &colors)
{
    QLinearGradient gradient(body.bottomLeft(), body.topLeft());
    gradient.setColorAt(0.25, colors.gradientStart);
    gradient.setColorAt(1, colors.gradientEnd);
    return gradient;
}

void drawHighlight(QPainter &painter, const QRectF &body, const QColor &color)
{
    QPainterPath path;
    path.addRoundedRect(body, bodyRadius, bodyRadius);
    painter.fillPath(path.subtracted(path.translated(0, alignedLine(painter))), color);
}

// The metrics of a font round it to whole pixels, up on a fine screen, which puts the label too low.
qreal exactCapHeight(const QFont &font)
{
    QPainterPath outline;
    outline.addText(0, 0, font, QStringLiteral("H"));
    return outline.boundingRect().height();
}

void drawLabel(QPainter &painter, const QRectF &bounds, const QColor &color, const QString &label)
{
    const QRectF box(bounds.x() + 15, bounds.y() + 7, bounds.width() - 30, 16);
    const QFont font = systemFont(14, QFont::DemiBold);
    const QFontMetricsF metrics(font, painter.device());
    const QString text = metrics.elidedText(label, Qt::ElideRight, box.width());

    // The box stands one point above the middle of a 32-point button; its capitals stand in the middle.
    const qreal middle = box.center().y() + 1;
    const qreal capHeight = exactCapHeight(font);
    const QRectF capitals(box.center().x() - metrics.horizontalAdvance(text) / 2, middle - capHeight / 2, 0,
                          capHeight);
    painter.setFont(font);
    painter.setPen(color);
    painter.drawText(alignedToPixels(capitals, painter).bottomLeft(), text);
}

} // namespace

void drawButtonSurround(QPainter &painter, const QRectF &bounds, ButtonLook look)
{
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF body = alignedToPixels(bounds, painter);
    const qreal rim = alignedLine(painter);
    fillRounded(painter, body.adjusted(-rim, -rim, rim, rim), rimRadius, white(0, 0.16f));
    if (!look.isPressed)
        drawShadow(painter, body);
}

void drawButtonBody(QPainter &painter, const QRectF &bounds, ButtonLook look, const QString &label)
{
    painter.setRenderHint(QPainter::Antialiasing);
    const Colors colors = colorsOf(look);
    const QRectF body = alignedToPixels(bounds, painter);
    fillRounded(painter, body, bodyRadius, bodyGradient(body, colors));
    if (!look.isPressed)
        drawHighlight(painter, body, colors.highlight);
    drawLabel(painter, bounds, colors.label, label);
}

} // namespace zel

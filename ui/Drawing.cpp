#include "Drawing.h"

#include <QFontDatabase>
#include <QGlyphRun>
#include <QGuiApplication>
#include <QPainter>
#include <QPalette>
#include <QRawFont>
#include <QTextLayout>

#include <algorithm>
#include <cmath>

namespace zel {

namespace {

QStringList familiesOf(const QFont &font, const QString &text)
{
    QTextLayout layout(text, font);
    layout.beginLayout();
    layout.createLine();
    layout.endLayout();
    QStringList families;
    for (const QGlyphRun &run : layout.glyphRuns())
        families += run.rawFont().familyName();
    families.removeDuplicates();
    families.sort();
    return families;
}

// The weights from `weight` on, the nearest to it first, and the normal one at the end.
QList<QFont::Weight> weightsFrom(QFont::Weight weight)
{
    if (weight < QFont::Normal)
        return {weight, QFont::Normal};
    return {weight, QFont::Bold, QFont::Medium, QFont::Normal};
}

double linear(float value)
{
    return value <= 0.04045F ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
}

double luminance(const QColor &colour)
{
    return 0.2126 * linear(colour.redF()) + 0.7152 * linear(colour.greenF())
        + 0.0722 * linear(colour.blueF());
}

} // namespace

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

// The look-up of a stand-in minds the weight before the kind: for a light Arabic title it brings a monospaced
// font. What the text has at the normal weight is the kind that suits it.
QFont systemFont(int size, QFont::Weight weight, const QString &text)
{
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    font.setPixelSize(size);
    font.setWeight(QFont::Normal);
    if (weight == QFont::Normal)
        return font;
    const QStringList families = text.isEmpty() ? QStringList() : familiesOf(font, text);
    for (const QFont::Weight candidate : weightsFrom(weight)) {
        font.setWeight(candidate);
        if (text.isEmpty() || familiesOf(font, text) == families)
            break;
    }
    return font;
}

double contrast(const QColor &one, const QColor &other)
{
    const auto [darker, lighter] = std::minmax({luminance(one), luminance(other)});
    return (lighter + 0.05) / (darker + 0.05);
}

// Ordinary themes stay below: black on their light grey windows has 18, their dark ones 15 at most.
bool isHighContrast()
{
    constexpr double threshold = 20;
    const QPalette palette = QGuiApplication::palette();
    return contrast(palette.color(QPalette::WindowText), palette.color(QPalette::Window)) >= threshold;
}

} // namespace zel

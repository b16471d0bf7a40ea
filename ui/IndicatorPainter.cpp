#include "IndicatorPainter.h"
#include "PixelGrid.h"

#include <QEasingCurve>
#include <QPainterPath>

#include <algorithm>
#include <cmath>

namespace zel {
namespace {

constexpr qreal trackHeight = 6;
constexpr double segmentShare = 0.3;
constexpr double periodSeconds = 1.6;
constexpr int spokes = 12;

QRectF trackIn(const QPainter &painter, const QRectF &bounds)
{
    const qreal top = bounds.center().y() - trackHeight / 2;
    return alignedToPixels({bounds.x(), top, bounds.width(), trackHeight}, painter);
}

QPainterPath pill(const QRectF &rect)
{
    QPainterPath path;
    path.addRoundedRect(rect, rect.height() / 2, rect.height() / 2);
    return path;
}

// A groove: dark, with the light of the window caught by its lower edge.
void drawTrack(QPainter &painter, const QRectF &track)
{
    const qreal line = alignedLine(painter);
    const QPainterPath groove = pill(track);
    painter.fillPath(groove.translated(0, line).subtracted(groove), QColor::fromRgbF(1, 1, 1, 0.06f));
    painter.fillPath(groove, QColor::fromRgbF(0, 0, 0, 0.4f));
}

// The blue of the primary button, from `left` to `right` and as round as the track, as far as the track reaches.
void drawFill(QPainter &painter, const QRectF &track, qreal left, qreal right)
{
    if (right - left < 0.01)
        return;
    const qreal length = std::max(right - left, track.height());
    const QPainterPath fill =
        pill({right - length, track.y(), length, track.height()}).intersected(pill(track));
    QLinearGradient gradient(track.bottomLeft(), track.topLeft());
    gradient.setColorAt(0.25, QColor::fromRgbF(0.035f, 0.478f, 0.922f));
    gradient.setColorAt(1, QColor::fromRgbF(0, 0.584f, 1));
    painter.fillPath(fill, gradient);
}

} // namespace

void drawBar(QPainter &painter, const QRectF &bounds, double fraction)
{
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF track = trackIn(painter, bounds);
    drawTrack(painter, track);
    if (fraction > 0) // the first bit of progress shows as a whole dot
        drawFill(painter, track, track.left(),
                 track.left() + std::max(track.width() * fraction, track.height()));
}

void drawMovingBar(QPainter &painter, const QRectF &bounds, double time)
{
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF track = trackIn(painter, bounds);
    drawTrack(painter, track);
    const double phase = time / periodSeconds - std::floor(time / periodSeconds);
    const double eased = QEasingCurve(QEasingCurve::InOutSine).valueForProgress(phase);
    const qreal length = track.width() * segmentShare;
    const qreal left = track.left() - length + eased * (track.width() + length);
    drawFill(painter, track, left, left + length);
}

void drawSpokes(QPainter &painter, const QRectF &bounds, double time)
{
    const qreal radius = std::min(bounds.width(), bounds.height()) / 2;
    const int first = int(std::fmod(std::floor(time * spokes), spokes));
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(bounds.center());
    for (int i = 0; i < spokes; ++i) {
        const int age = (first - i + spokes) % spokes;
        const float alpha = std::max(0.9f - 0.09f * float(age), 0.12f);
        painter.save();
        painter.rotate(i * 360.0 / spokes);
        painter.setPen(QPen(QColor::fromRgbF(1, 1, 1, alpha), radius * 0.17, Qt::SolidLine, Qt::RoundCap));
        painter.drawLine(QPointF(0, -radius * 0.5), QPointF(0, -radius * 0.88));
        painter.restore();
    }
}

} // namespace zel

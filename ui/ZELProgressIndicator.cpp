// Drawn here and not by the style: styles follow the desktop's theme, which is light as often as not, and the
// window is always dark. A bar from the right to the left is the same bar in a mirrored painter.
#include "ZELProgressIndicator.h"

#include "Drawing.h"
#include "ProgressParts.h"

#include <QEasingCurve>
#include <QPainter>
#include <QPainterPath>

#include <algorithm>
#include <cmath>

namespace {

constexpr int Thickness = 18;
constexpr qreal TrackHeight = 6;
constexpr double SegmentShare = 0.3;
constexpr double PeriodSeconds = 1.6;
constexpr int Spokes = 12;

QRectF trackIn(const QPainter &painter, const QRectF &bounds)
{
    const qreal top = bounds.center().y() - TrackHeight / 2;
    return zel::alignedToPixels({bounds.x(), top, bounds.width(), TrackHeight}, painter);
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
    const qreal line = zel::alignedLine(painter);
    const QPainterPath groove = pill(track);
    painter.fillPath(groove.translated(0, line).subtracted(groove), QColor::fromRgbF(1, 1, 1, 0.06f));
    painter.fillPath(groove, QColor::fromRgbF(0, 0, 0, 0.4f));
}

// The blue of the primary button, from `left` to `right` and as round as the track, as far as the track
// reaches.
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

// Draws a slim track in the middle of `bounds`, filled over `fraction` (0 to 1) of its length from the left.
void drawBar(QPainter &painter, const QRectF &bounds, double fraction)
{
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF track = trackIn(painter, bounds);
    drawTrack(painter, track);
    if (fraction > 0) // the first bit of progress shows as a whole dot
        drawFill(painter, track, track.left(),
                 track.left() + std::max(track.width() * fraction, track.height()));
}

// As `drawBar`, with a segment that passes from the left to the right once a period; `time` in seconds.
void drawMovingBar(QPainter &painter, const QRectF &bounds, double time)
{
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF track = trackIn(painter, bounds);
    drawTrack(painter, track);
    const double phase = time / PeriodSeconds - std::floor(time / PeriodSeconds);
    const double eased = QEasingCurve(QEasingCurve::InOutSine).valueForProgress(phase);
    const qreal length = track.width() * SegmentShare;
    const qreal left = track.left() - length + eased * (track.width() + length);
    drawFill(painter, track, left, left + length);
}

// Draws twelve fading spokes in the middle of `bounds` that turn clockwise once a second; `time` in seconds.
void drawSpokes(QPainter &painter, const QRectF &bounds, double time)
{
    const qreal radius = std::min(bounds.width(), bounds.height()) / 2;
    const int first = int(std::fmod(std::floor(time * Spokes), Spokes));
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(bounds.center());
    for (int i = 0; i < Spokes; ++i) {
        const int age = (first - i + Spokes) % Spokes;
        const float alpha = std::max(0.9f - 0.09f * float(age), 0.12f);
        painter.save();
        painter.rotate(i * 360.0 / Spokes);
        painter.setPen(QPen(QColor::fromRgbF(1, 1, 1, alpha), radius * 0.17, Qt::SolidLine, Qt::RoundCap));
        painter.drawLine(QPointF(0, -radius * 0.5), QPointF(0, -radius * 0.88));
        painter.restore();
    }
}

// A spinner stands still between its twelve places; a segment slides.
int intervalOf(ZELProgressIndicator::Style style)
{
    return style == ZELProgressIndicator::Style::Spinning ? 1000 / 24 : 16;
}

zel::ProgressReading readIndicator(const QWidget *widget)
{
    const auto *indicator = static_cast<const ZELProgressIndicator *>(widget);
    return {indicator->doubleValue(), indicator->minValue(), indicator->maxValue(),
            indicator->fraction() * 100, indicator->isIndeterminate()};
}

QAccessibleInterface *makeAccessibleIndicator(const QString &, QObject *object)
{
    auto *indicator = qobject_cast<ZELProgressIndicator *>(object);
    return indicator ? new zel::AccessibleProgress(indicator, readIndicator) : nullptr;
}

} // namespace

// A name of the widget's own, so that its header names no type that hosts do not get.
class ZELProgressIndicator::Timer : public zel::AnimationTimer
{
public:
    using AnimationTimer::AnimationTimer;
};

ZELProgressIndicator::ZELProgressIndicator(Style style, QWidget *parent)
    : QWidget(parent)
    , m_style(style)
    , m_timer(new Timer(this, intervalOf(style), [this] { update(); }))
{
    QAccessible::installFactory(makeAccessibleIndicator); // once, however often it is called
    setSizePolicy(style == Style::Bar ? QSizePolicy::Expanding : QSizePolicy::Fixed, QSizePolicy::Fixed);
}

bool ZELProgressIndicator::isIndeterminate() const
{
    return m_isIndeterminate || m_style == Style::Spinning;
}

void ZELProgressIndicator::setIndeterminate(bool isIndeterminate)
{
    m_isIndeterminate = isIndeterminate;
    updateTimer();
    update();
}

double ZELProgressIndicator::doubleValue() const
{
    return m_doubleValue;
}

void ZELProgressIndicator::setDoubleValue(double doubleValue)
{
    m_doubleValue = doubleValue;
    update();
    zel::AccessibleProgress::valueChanged(this, doubleValue);
}

double ZELProgressIndicator::minValue() const
{
    return m_minValue;
}

void ZELProgressIndicator::setMinValue(double minValue)
{
    m_minValue = minValue;
    update();
}

double ZELProgressIndicator::maxValue() const
{
    return m_maxValue;
}

void ZELProgressIndicator::setMaxValue(double maxValue)
{
    m_maxValue = maxValue;
    update();
}

double ZELProgressIndicator::fraction() const
{
    const double share = (m_doubleValue - m_minValue) / (m_maxValue - m_minValue);
    const bool isNumber = m_maxValue > m_minValue && share == share;
    return isNumber ? std::clamp(share, 0.0, 1.0) : 0;
}

void ZELProgressIndicator::startAnimation()
{
    if (m_isAnimated)
        return;
    m_isAnimated = true;
    m_animationStart = m_timer->now();
    updateTimer();
    update();
}

void ZELProgressIndicator::stopAnimation()
{
    m_isAnimated = false;
    updateTimer();
    update();
}

QSize ZELProgressIndicator::sizeHint() const
{
    return {m_style == Style::Bar ? 10 * Thickness : Thickness, Thickness};
}

void ZELProgressIndicator::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    if (m_style == Style::Spinning)
        return drawSpokes(painter, rect(), animationTime());
    if (layoutDirection() == Qt::RightToLeft) {
        painter.translate(width(), 0);
        painter.scale(-1, 1);
    }
    if (m_isIndeterminate)
        drawMovingBar(painter, rect(), animationTime());
    else
        drawBar(painter, rect(), fraction());
}

void ZELProgressIndicator::updateTimer()
{
    m_timer->setAnimating(m_isAnimated && isIndeterminate());
}

// At rest everything stands where its animation begins.
double ZELProgressIndicator::animationTime() const
{
    return m_isAnimated ? m_timer->now() - m_animationStart : 0;
}

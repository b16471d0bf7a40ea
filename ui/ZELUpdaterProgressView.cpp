// The ring is two values, a track and a stroke over it, each with the part of its path that is shown, and
// animations that hide these numbers while they are kept. A painting asks the values what they look like at
// its time; nothing is changed by drawing.
//
// The busy loop is a sequence of phases of three seconds. In even ones the stroke's end runs from 0 to 1 (the
// ring fills), in odd ones its start does (the ring empties). `advance` finds that an animation has ended and
// `phaseEnded` begins the next phase, unless the present one is too young: then it was begun by hand while an
// older animation still ran, and that one's end must not cut it short.
#include "ZELUpdaterProgressView.h"

#include "Drawing.h"
#include "ProgressParts.h"

#include <QEasingCurve>
#include <QFontMetricsF>
#include <QPainter>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

constexpr int FrameMilliseconds = 16;
constexpr double PhaseSeconds = 3.0;

// Shorter than a phase on purpose: a phase that ran to its end goes on, an end that comes early does not.
constexpr double GuardSeconds = 2.0;

const QString StrokeStartKey = QStringLiteral("strokeStart");
const QString StrokeEndKey = QStringLiteral("strokeEnd");

QString percentage(float progress)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.0f%%", double(progress * 100.0f));
    return QString::fromLatin1(text);
}

double easeInEaseOut(double fraction)
{
    static const QEasingCurve curve = [] {
        QEasingCurve bezier(QEasingCurve::BezierSpline);
        bezier.addCubicBezierSegment({0.42, 0}, {0.58, 1}, {1, 1});
        return bezier;
    }();
    return curve.valueForProgress(std::clamp(fraction, 0.0, 1.0));
}

double shown(const ZELShapeLayer &layer, const QString &key, double value, double time)
{
    const auto animation = layer.animations.find(key);
    return animation == layer.animations.end() ? value : animation->valueAt(time);
}

// The part of a path as one dash. The pattern is twice as long as the path, so that it cannot begin again at
// the end.
QPen penForPart(QPen pen, double length, double start, double end)
{
    const double unit = pen.widthF();
    const double dash = (end - start) * length;
    pen.setDashPattern({dash / unit, (2 * length - dash) / unit});
    pen.setDashOffset((2 - start) * length / unit);
    return pen;
}

zel::ProgressReading readRing(const QWidget *widget)
{
    const auto *ring = static_cast<const ZELUpdaterProgressView *>(widget);
    return {.value = ring->progress(), .percentage = ring->progress() * 100.0, .isBusy = ring->looping()};
}

QAccessibleInterface *makeAccessibleRing(const QString &, QObject *object)
{
    auto *ring = qobject_cast<ZELUpdaterProgressView *>(object);
    return ring ? new zel::AccessibleProgress(ring, readRing) : nullptr;
}

} // namespace

double ZELBasicAnimation::valueAt(double time) const
{
    const double fraction = duration > 0 ? (time - beginTime) / duration : 1;
    return fromValue + (toValue - fromValue) * easeInEaseOut(fraction);
}

double ZELShapeLayer::shownStrokeStart(double time) const
{
    return shown(*this, StrokeStartKey, strokeStart, time);
}

double ZELShapeLayer::shownStrokeEnd(double time) const
{
    return shown(*this, StrokeEndKey, strokeEnd, time);
}

void ZELShapeLayer::draw(QPainter &painter, double time) const
{
    painter.fillPath(path, fillColor);
    const double start = std::max(shownStrokeStart(time), 0.0);
    const double end = std::min(shownStrokeEnd(time), 1.0);
    const double length = path.length();
    if (!(start < end) || !(length > 0) || !(lineWidth > 0))
        return;
    const QPen pen(strokeColor, lineWidth, Qt::SolidLine, Qt::FlatCap);
    const bool isWhole = start == 0 && end == 1;
    painter.strokePath(path, isWhole ? pen : penForPart(pen, length, start, end));
}

// A name of the widget's own, so that its header names no type that hosts do not get.
class ZELUpdaterProgressView::Timer : public zel::AnimationTimer
{
public:
    using AnimationTimer::AnimationTimer;
};

ZELUpdaterProgressView::ZELUpdaterProgressView(QWidget *parent)
    : QWidget(parent)
    , m_timer(new Timer(this, FrameMilliseconds, [this] { advance(); }))
{
    QAccessible::installFactory(makeAccessibleRing); // once, however often it is called
    m_backgroundLayer.strokeColor = QColor::fromRgbF(0, 0, 0, 0.5f);
    m_backgroundLayer.lineWidth = 6;
    m_progressLayer.strokeColor = QColor::fromRgbF(0.068f, 0.629f, 1, 0.8f);
    m_progressLayer.lineWidth = 3;
    m_progressLayer.strokeEnd = 0;
    layOutRing();
}

qint64 ZELUpdaterProgressView::step() const
{
    return m_step;
}
void ZELUpdaterProgressView::setStep(qint64 step)
{
    m_step = step;
}

float ZELUpdaterProgressView::progress() const
{
    return m_progress;
}

void ZELUpdaterProgressView::setProgress(float progress)
{
    m_progress = std::isfinite(progress) ? progress : 0;
    m_progressLayer.strokeEnd = m_progress;
    update();
    zel::AccessibleProgress::valueChanged(this, m_progress);
}

bool ZELUpdaterProgressView::showValue() const
{
    return m_showValue;
}
void ZELUpdaterProgressView::setShowValue(bool showValue)
{
    m_showValue = showValue;
}

double ZELUpdaterProgressView::animationStart() const
{
    return m_animationStart;
}
void ZELUpdaterProgressView::setAnimationStart(double animationStart)
{
    m_animationStart = animationStart;
}

qint64 ZELUpdaterProgressView::animationIndex() const
{
    return m_animationIndex;
}
void ZELUpdaterProgressView::setAnimationIndex(qint64 animationIndex)
{
    m_animationIndex = animationIndex;
}

bool ZELUpdaterProgressView::looping() const
{
    return m_looping;
}
void ZELUpdaterProgressView::setLooping(bool looping)
{
    m_looping = looping;
}

ZELShapeLayer ZELUpdaterProgressView::backgroundLayer() const
{
    return m_backgroundLayer;
}

void ZELUpdaterProgressView::setBackgroundLayer(const ZELShapeLayer &backgroundLayer)
{
    m_backgroundLayer = backgroundLayer;
}

ZELShapeLayer ZELUpdaterProgressView::progressLayer() const
{
    return m_progressLayer;
}

void ZELUpdaterProgressView::setProgressLayer(const ZELShapeLayer &progressLayer)
{
    m_progressLayer = progressLayer;
    updateTimer();
}

void ZELUpdaterProgressView::startLooping()
{
    m_looping = true;
    m_animationIndex = 0;
    m_animationStart = m_timer->now();
    addAnimation(StrokeEndKey);
}

void ZELUpdaterProgressView::animationStep()
{
    if (!m_looping || m_timer->now() - m_animationStart < GuardSeconds)
        return;
    ++m_animationIndex;
    m_animationStart = m_timer->now();
    m_progressLayer.strokeStart = 0;
    if (m_animationIndex % 2 != 0) {
        m_progressLayer.strokeEnd = 1;
        addAnimation(StrokeStartKey);
    } else {
        m_progressLayer.strokeEnd = 0;
        m_progressLayer.animations.remove(StrokeStartKey);
        addAnimation(StrokeEndKey);
    }
}

void ZELUpdaterProgressView::stopLooping()
{
    m_looping = false;
    m_progressLayer.animations.remove(StrokeStartKey);
    m_progressLayer.animations.remove(StrokeEndKey);
    updateTimer();
    update();
}

QPainterPath ZELUpdaterProgressView::_createCirclePathRefForRect(const QRectF &rect) const
{
    // Qt measures angles for y growing downwards: there, the top of the circle lies at 270 degrees.
    const QRectF square = rect.normalized().translated(0.5, 0.5);
    QPainterPath path;
    path.arcMoveTo(square, 270);
    path.arcTo(square, 270, 360);
    path.closeSubpath();
    return path;
}

void ZELUpdaterProgressView::resizeEvent(QResizeEvent *)
{
    layOutRing();
}

void ZELUpdaterProgressView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (!m_looping)
        drawPercentage(painter);
    painter.translate(0, height());
    painter.scale(1, -1);
    m_backgroundLayer.draw(painter, m_timer->now());
    m_progressLayer.draw(painter, m_timer->now());
}

void ZELUpdaterProgressView::layOutRing()
{
    const double radius = std::min(width(), height()) * 0.5 - 6.0;
    const QPointF centre(width() * 0.5, height() * 0.5);
    const QRectF square(centre - QPointF(radius, radius), QSizeF(2 * radius, 2 * radius));
    m_backgroundLayer.path = _createCirclePathRefForRect(square);
    m_progressLayer.path = m_backgroundLayer.path;
}

void ZELUpdaterProgressView::drawPercentage(QPainter &painter) const
{
    const QFont font = zel::systemFont(50, QFont::Normal);
    const QString text = percentage(m_progress);
    const QFontMetricsF metrics(font, this);
    const QSizeF size(metrics.horizontalAdvance(text), metrics.height());
    const QPointF origin((width() - size.width()) * 0.5, (height() - size.height()) * 0.5);
    painter.setFont(font);
    painter.setPen(Qt::white);
    painter.drawText(origin + QPointF(0, metrics.ascent()), text);
}

void ZELUpdaterProgressView::addAnimation(const QString &key)
{
    m_progressLayer.animations[key] = {m_timer->now(), PhaseSeconds, 0, 1, false};
    updateTimer();
    update();
}

// Only an animation that ran to its end starts the next phase; of one that was removed or replaced nothing is
// heard.
void ZELUpdaterProgressView::advance()
{
    for (const QString &key : m_progressLayer.animations.keys()) {
        const auto animation = m_progressLayer.animations.find(key);
        if (animation == m_progressLayer.animations.end() || animation->isCompleted
            || !animation->hasEnded(m_timer->now()))
            continue;
        animation->isCompleted = true;
        phaseEnded();
    }
    updateTimer();
    update();
}

void ZELUpdaterProgressView::phaseEnded()
{
    // Deliberate: at exactly 2.0 seconds the first phase ends the loop, a later one goes on.
    if (m_animationIndex > 0 || m_timer->now() - m_animationStart > GuardSeconds)
        animationStep();
}

void ZELUpdaterProgressView::updateTimer()
{
    const auto &animations = m_progressLayer.animations;
    m_timer->setAnimating(
        std::any_of(animations.begin(), animations.end(),
                    [](const ZELBasicAnimation &animation) { return !animation.isCompleted; }));
}

#include "ZELUpdaterProgressView.h"
#include "AccessibleProgress.h"
#include "AnimationTimer.h"
#include "Fonts.h"

#include <QFontMetricsF>
#include <QPainter>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

constexpr int frameMilliseconds = 16;
constexpr double phaseSeconds = 3.0;

// Shorter than a phase on purpose: a phase that ran to its end goes on, an end that comes early does not.
constexpr double guardSeconds = 2.0;

const QString strokeStartKey = QStringLiteral("strokeStart");
const QString strokeEndKey = QStringLiteral("strokeEnd");

QString percentage(float progress)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.0f%%", double(progress * 100.0f));
    return QString::fromLatin1(text);
}

} // namespace

ZELUpdaterProgressView::ZELUpdaterProgressView(QWidget *parent)
    : QWidget(parent)
    , m_timer(new zel::AnimationTimer(this, frameMilliseconds, [this] { advance(); }))
{
    zel::AccessibleProgress::install();
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
    addAnimation(strokeEndKey);
}

void ZELUpdaterProgressView::animationStep()
{
    if (!m_looping || m_timer->now() - m_animationStart < guardSeconds)
        return;
    ++m_animationIndex;
    m_animationStart = m_timer->now();
    m_progressLayer.strokeStart = 0;
    if (m_animationIndex % 2 != 0) {
        m_progressLayer.strokeEnd = 1;
        addAnimation(strokeStartKey);
    } else {
        m_progressLayer.strokeEnd = 0;
        m_progressLayer.animations.remove(strokeStartKey);
        addAnimation(strokeEndKey);
    }
}

void ZELUpdaterProgressView::stopLooping()
{
    m_looping = false;
    m_progressLayer.animations.remove(strokeStartKey);
    m_progressLayer.animations.remove(strokeEndKey);
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
    const QPointF center(width() * 0.5, height() * 0.5);
    const QRectF square(center - QPointF(radius, radius), QSizeF(2 * radius, 2 * radius));
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
    m_progressLayer.animations[key] = {m_timer->now(), phaseSeconds, 0, 1, false};
    updateTimer();
    update();
}

// Only an animation that ran to its end starts the next phase; of one that was removed or replaced nothing is heard.
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
    if (m_animationIndex > 0 || m_timer->now() - m_animationStart > guardSeconds)
        animationStep();
}

void ZELUpdaterProgressView::updateTimer()
{
    const auto &animations = m_progressLayer.animations;
    m_timer->setAnimating(
        std::any_of(animations.begin(), animations.end(),
                    [](const ZELBasicAnimation &animation) { return !animation.isCompleted; }));
}

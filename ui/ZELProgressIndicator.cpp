#include "ZELProgressIndicator.h"
#include "AccessibleProgress.h"
#include "AnimationTimer.h"
#include "IndicatorPainter.h"

#include <QPainter>

#include <algorithm>

namespace {

constexpr int thickness = 18;

// A spinner stands still between its twelve places; a segment slides.
int intervalOf(ZELProgressIndicator::Style style)
{
    return style == ZELProgressIndicator::Style::Spinning ? 1000 / 24 : 16;
}

} // namespace

ZELProgressIndicator::ZELProgressIndicator(Style style, QWidget *parent)
    : QWidget(parent)
    , m_style(style)
    , m_timer(new zel::AnimationTimer(this, intervalOf(style), [this] { update(); }))
{
    zel::AccessibleProgress::install();
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
    return {m_style == Style::Bar ? 10 * thickness : thickness, thickness};
}

void ZELProgressIndicator::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    if (m_style == Style::Spinning)
        return zel::drawSpokes(painter, rect(), animationTime());
    if (layoutDirection() == Qt::RightToLeft) {
        painter.translate(width(), 0);
        painter.scale(-1, 1);
    }
    if (m_isIndeterminate)
        zel::drawMovingBar(painter, rect(), animationTime());
    else
        zel::drawBar(painter, rect(), fraction());
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

#include "ZELShapeLayer.h"

#include <QEasingCurve>
#include <QPainter>

#include <algorithm>

namespace {

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

// The part of a path as one dash. The pattern is twice as long as the path, so that it cannot begin again at the end.
QPen penForPart(QPen pen, double length, double start, double end)
{
    const double unit = pen.widthF();
    const double dash = (end - start) * length;
    pen.setDashPattern({dash / unit, (2 * length - dash) / unit});
    pen.setDashOffset((2 - start) * length / unit);
    return pen;
}

} // namespace

double ZELBasicAnimation::valueAt(double time) const
{
    const double fraction = duration > 0 ? (time - beginTime) / duration : 1;
    return fromValue + (toValue - fromValue) * easeInEaseOut(fraction);
}

double ZELShapeLayer::shownStrokeStart(double time) const
{
    return shown(*this, QStringLiteral("strokeStart"), strokeStart, time);
}

double ZELShapeLayer::shownStrokeEnd(double time) const
{
    return shown(*this, QStringLiteral("strokeEnd"), strokeEnd, time);
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

// A stroked path of which a part is shown, and the animations of that part.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QColor>
#include <QMap>
#include <QPainterPath>
#include <QString>

class QPainter;

/// A change of one number over time that eases in and out: a cubic Bézier curve through (0.42, 0) and (0.58, 1).
struct ZEL_EXPORT ZELBasicAnimation {
    double beginTime = 0; ///< Seconds, on the clock of the view that shows it.
    double duration = 0; ///< Seconds.
    double fromValue = 0; ///< The value until the animation begins.
    double toValue = 1; ///< The value when it has ended, for as long as the animation is kept.
    bool isCompleted = false; ///< Set by the view when it has seen the end.

    bool hasEnded(double time) const { return time >= beginTime + duration; }

    /// The value at `time`, in seconds.
    double valueAt(double time) const;
};

/// A plain value: what it draws changes with what is assigned to it, when it is next drawn. Main thread only.
struct ZEL_EXPORT ZELShapeLayer {
    QPainterPath path; ///< One subpath; y grows upwards.
    QColor fillColor = Qt::transparent;
    QColor strokeColor;
    double lineWidth = 1; ///< Logical pixels.
    double strokeStart = 0; ///< Where the stroke begins, as a fraction of the path's length.
    double strokeEnd = 1; ///< Where it ends; what lies outside 0 to 1 draws like 0 or 1.
    QMap<QString, ZELBasicAnimation> animations; ///< Each hides the number that its key names.

    /// The numbers shown at `time`, in seconds: those of the animation where there is one.
    double shownStrokeStart(double time) const;
    double shownStrokeEnd(double time) const;

    /// Draws the layer as it looks at `time`; `painter` has y growing upwards.
    void draw(QPainter &painter, double time) const;
};

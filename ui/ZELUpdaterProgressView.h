// A ring that shows progress, or that the application is busy, and the layers that it is drawn as.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QColor>
#include <QMap>
#include <QPainterPath>
#include <QString>
#include <QWidget>

/// A change of one number over time that eases in and out: a cubic Bézier curve through (0.42, 0) and (0.58,
/// 1).
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

/// A stroked path of which a part is shown. A plain value: what it draws changes with what is assigned to it,
/// when it is next drawn. Main thread only.
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

/// A blue ring over a dark track that fills clockwise from twelve o'clock, with the percentage in its middle;
/// or, looping, a ring that fills and empties itself without end. Accessibility clients see a progress bar.
/// Main thread only.
///
/// The ring is kept six points clear of the view's nearer edges; its path follows every change of the view's
/// size.
class ZEL_EXPORT ZELUpdaterProgressView : public QWidget
{
    Q_OBJECT
public:
    explicit ZELUpdaterProgressView(QWidget *parent = nullptr);

    /// Kept for the owner; nothing here reads it.
    qint64 step() const;
    void setStep(qint64 step);

    /// The fraction shown. The setter takes what is not finite for 0, and does not clamp: 1.5 is a full ring
    /// and reads 150%. Redraws.
    float progress() const;
    void setProgress(float progress);

    /// Kept for the owner; nothing here reads it: the percentage is drawn whenever the view is not looping.
    bool showValue() const;
    void setShowValue(bool showValue);

    /// When the current phase of the loop began, in seconds since 1970.
    double animationStart() const;
    void setAnimationStart(double animationStart);

    /// The number of the current phase of the loop, from 0; the ring fills in the even ones and empties in
    /// the odd.
    qint64 animationIndex() const;
    void setAnimationIndex(qint64 animationIndex);

    /// Whether the busy animation runs. The setter starts and stops nothing, but a loop ends with the current
    /// phase when it finds false.
    bool looping() const;
    void setLooping(bool looping);

    /// The track. What a setter of a layer changes shows with the next redraw.
    ZELShapeLayer backgroundLayer() const;
    void setBackgroundLayer(const ZELShapeLayer &backgroundLayer);

    /// The ring over the track, and the animations of the loop.
    ZELShapeLayer progressLayer() const;
    void setProgressLayer(const ZELShapeLayer &progressLayer);

    /// Starts the busy animation, at its first phase. A view that cannot be seen stays in its phase until it
    /// can.
    void startLooping();

    /// Begins the loop's next phase. Does nothing when the view is not looping or the current phase began
    /// less than 2.0 seconds ago.
    void animationStep();

    /// Ends the busy animation at once. The ring shows `progressLayer`'s `strokeEnd` then: what `setProgress`
    /// or the last phase has set.
    void stopLooping();

    /// A closed circle in the square `rect`, from its top clockwise on the screen; y grows upwards. Every
    /// point is moved by half a point in both directions. A square of negative side gives the circle of the
    /// same square turned round.
    QPainterPath _createCirclePathRefForRect(const QRectF &rect) const;

protected:
    void resizeEvent(QResizeEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    class Timer;
    void layOutRing();
    void drawPercentage(QPainter &painter) const;
    void addAnimation(const QString &key);
    void advance();
    void phaseEnded();
    void updateTimer();

    qint64 m_step = 0;
    float m_progress = 0;
    bool m_showValue = false;
    double m_animationStart = 0;
    qint64 m_animationIndex = 0;
    bool m_looping = false;
    ZELShapeLayer m_backgroundLayer;
    ZELShapeLayer m_progressLayer;
    Timer *m_timer; // a child of the view
};

#include "ZELImageView.h"

#include <QPainter>

void ZELImageView::setImage(const QImage &image)
{
    m_image = image;
    update();
}

void ZELImageView::paintEvent(QPaintEvent *)
{
    if (m_image.isNull())
        return;
    QPainter painter(this);
    const qreal ratio = painter.device()->devicePixelRatioF();
    // Scaled by hand: a painter that shrinks an image to less than half of its size drops pixels.
    const QSize pixels = m_image.size().scaled((QSizeF(size()) * ratio).toSize(), Qt::KeepAspectRatio);
    QImage scaled = m_image.scaled(pixels, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    scaled.setDevicePixelRatio(ratio);
    QRectF place(QPointF(), scaled.deviceIndependentSize());
    place.moveCenter(QRectF(rect()).center());
    painter.drawImage(place.topLeft(), scaled);
}

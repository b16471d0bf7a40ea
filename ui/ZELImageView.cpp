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
    const QSizeF room = QSizeF(size()) * ratio;
    QSizeF pixels = m_image.deviceIndependentSize() * ratio;
    if (pixels.width() > room.width() || pixels.height() > room.height())
        pixels.scale(room, Qt::KeepAspectRatio);
    // Scaled by hand: a painter that shrinks an image to less than half of its size drops pixels.
    QImage scaled = m_image.scaled(pixels.toSize(), Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    scaled.setDevicePixelRatio(ratio);
    QRectF place(QPointF(), scaled.deviceIndependentSize());
    place.moveCenter(QRectF(rect()).center());
    painter.drawImage(place.topLeft(), scaled);
}

// A picture in a window.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QImage>
#include <QWidget>

/// Shows an image in its own proportions, centred; one that is too large is made to fit. Main thread only.
class ZEL_EXPORT ZELImageView : public QWidget
{
    Q_OBJECT
    Q_PROPERTY(QImage image READ image WRITE setImage)
public:
    using QWidget::QWidget;

    QImage image() const { return m_image; }

    /// A null image shows nothing.
    void setImage(const QImage &image);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QImage m_image;
};

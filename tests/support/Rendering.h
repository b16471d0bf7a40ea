// Pictures of widgets, and single points of them.
#pragma once

#include <QColor>
#include <QImage>
#include <QPalette>
#include <QScreen>
#include <QtTest>
#include <QWidget>

#include <cmath>

inline const QColor WindowColour = QColor::fromRgbF(0.16f, 0.16f, 0.16f);

/// A window of the updater's colour.
class DarkWindow : public QWidget
{
public:
    explicit DarkWindow(QSize size)
    {
        QPalette palette;
        palette.setColor(QPalette::Window, WindowColour);
        setPalette(palette);
        setAutoFillBackground(true);
        resize(size);
    }
};

/// The window as it looks at `ratio` device pixels per logical pixel, on a screen or none.
inline QImage rendered(QWidget &window, qreal ratio = 1)
{
    QImage image(window.size() * ratio, QImage::Format_RGB32);
    image.setDevicePixelRatio(ratio);
    window.render(&image);
    return image;
}

/// What stands on the screen, in the state that the updates so far have left it in.
inline QImage onScreen(QWidget &window)
{
    QCoreApplication::processEvents();
    QEvent request(QEvent::UpdateRequest); // paints what is still to be painted, now
    QCoreApplication::sendEvent(&window, &request);
    return window.screen()->grabWindow(window.winId()).toImage().convertToFormat(QImage::Format_RGB32);
}

inline QColor colourAt(const QImage &image, QPointF point)
{
    const QPointF pixel = point * image.devicePixelRatio();
    return image.pixelColor(int(std::floor(pixel.x())), int(std::floor(pixel.y())));
}

/// `colour` as it looks on `background`.
inline QColor over(const QColor &background, const QColor &colour)
{
    const float alpha = colour.alphaF();
    const auto mix = [alpha](float below, float above) { return below * (1 - alpha) + above * alpha; };
    return QColor::fromRgbF(mix(background.redF(), colour.redF()), mix(background.greenF(), colour.greenF()),
                            mix(background.blueF(), colour.blueF()));
}

inline bool isNear(const QColor &actual, const QColor &expected, int tolerance = 3)
{
    const bool near = std::abs(actual.red() - expected.red()) <= tolerance
        && std::abs(actual.green() - expected.green()) <= tolerance
        && std::abs(actual.blue() - expected.blue()) <= tolerance;
    if (!near)
        qWarning() << "found" << actual << "where expected" << expected;
    return near;
}

/// The grey level of the lightest point, 0 to 255.
inline int lightest(const QImage &image)
{
    int light = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            light = std::max(light, qGray(image.pixel(x, y)));
    return light;
}

inline bool isBlue(const QColor &colour)
{
    return colour.blue() > colour.red() + 60;
}

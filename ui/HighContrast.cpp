#include "HighContrast.h"

#include <QGuiApplication>
#include <QPalette>

#include <algorithm>
#include <cmath>

namespace zel {

namespace {

double linear(float value)
{
    return value <= 0.04045F ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
}

double luminance(const QColor &color)
{
    return 0.2126 * linear(color.redF()) + 0.7152 * linear(color.greenF()) + 0.0722 * linear(color.blueF());
}

} // namespace

double contrast(const QColor &one, const QColor &other)
{
    const auto [darker, lighter] = std::minmax({luminance(one), luminance(other)});
    return (lighter + 0.05) / (darker + 0.05);
}

// Ordinary themes stay below: black on their light grey windows has 18, their dark ones 15 at most.
bool isHighContrast()
{
    constexpr double threshold = 20;
    const QPalette palette = QGuiApplication::palette();
    return contrast(palette.color(QPalette::WindowText), palette.color(QPalette::Window)) >= threshold;
}

} // namespace zel

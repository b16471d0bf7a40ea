// The look for people who have asked their system for high contrast.
#pragma once

#include <QColor>

namespace zel {

/// Whether the system's palette is one of high contrast: texts on windows that differ from them as much as black from
/// white. The window stays dark then, for the release notes are written for that, but in black and white alone.
/// It changes with QEvent::ApplicationPaletteChange.
bool isHighContrast();

/// The contrast of two opaque colours as WCAG 2 defines it, 1 to 21.
double contrast(const QColor &one, const QColor &other);

} // namespace zel

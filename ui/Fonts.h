// The fonts of the updater's texts.
#pragma once

#include <QFont>

namespace zel {

/// The system's font at `size` logical pixels. `text` is what will be written with it: where its script is not in the
/// font and the other font that stands in has no such weight, the weight is the nearest one that leads to that font.
QFont systemFont(int size, QFont::Weight weight, const QString &text = {});

} // namespace zel

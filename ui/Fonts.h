// The fonts of the updater's texts.
#pragma once

#include <QFont>

namespace zel {

/// The system's font at `size` logical pixels.
QFont systemFont(int size, QFont::Weight weight);

} // namespace zel

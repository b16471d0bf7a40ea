// Whether there is room for what is about to be written.
#pragma once

#include "common/ZELError.h"

#include <QString>

namespace zel {

/// An error that says how many bytes are missing when `bytes` more would not fit into the file system of a folder,
/// less the reserve of `writableBytes`. None where the system does not say.
ZELError requireSpace(const QString &folder, qint64 bytes);

} // namespace zel

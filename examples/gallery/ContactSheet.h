// All pictures of a gallery on one.
#pragma once

#include <QString>

/// Puts the pictures of `folder` side by side, with their names, into `file`. False when it cannot be
/// written.
bool makeContactSheet(const QString &folder, const QString &file);

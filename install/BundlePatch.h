// Applying a bundle patch in a way that can be ended.
#pragma once

#include <QString>
#include <QVariantList>

#include <stop_token>

namespace zel {

/// As `ZELUpdaterApplyPatch`. A stop ends it before the next command, as a failure.
bool applyBundlePatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                      QVariantList &log, const std::stop_token &stop);

} // namespace zel

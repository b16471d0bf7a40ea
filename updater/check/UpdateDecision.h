// Which of the server's update records suits this machine and this installation. Decides only; docs/update-protocol.md
// has the records' keys.
#pragma once

#include "RequestBodies.h"

#include <QByteArray>
#include <QVariantMap>

#include <optional>

namespace zel {

/// A check's outcome: a `CheckStatus`, and the check result with "update" (the chosen record) and "patch" (the chosen
/// patch entry), each only where there is one.
struct Decision {
    qint64 status = 0;
    QVariantMap result;
};

/// Decides over the reply body of a check.
///
/// Of `config` the keys "build" and "beta" are read. A record must have a higher "build" than the configuration, a
/// "platform" no newer than the running system, a supported "arch", and no "beta" unless the configuration has that
/// key too; the record with the highest build wins, the earlier one on a tie. The patch is the record's first that
/// starts from `installedBuild`, the build of the bundle that would be patched (nothing when there is no bundle). A
/// record with "patchonly" and no such patch is dropped, and no other takes its place.
///
/// A body that is no JSON array gives status 0, and so does one of more than 10,000 records or, in all of them, 200,000
/// values; an array without a suitable record gives 2.
Decision decideUpdate(const QByteArray &body, const QVariantMap &config, std::optional<qint64> installedBuild,
                      const MachineFacts &facts);

} // namespace zel

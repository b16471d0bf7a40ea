// Which of the server's update records suits this machine and this installation. Decides only;
// docs/update-protocol.md has the records' keys.
#pragma once

#include "common/HostConfig.h"
#include "common/UpdateRecord.h"
#include "common/ZELUpdaterTypes.h"
#include "install/SignedRecord.h"
#include "platform/SystemFacts.h"

#include <QByteArray>
#include <QUrl>

namespace zel {

/// What the update server is told of the machine, and its records are compared with.
struct MachineFacts {
    QString architecture;
    SystemVersion system;
    QString model; ///< null where the machine does not say

    static MachineFacts current();
};

/// Whether a record for `arch` suits the machine: its own word or "all", exactly; a null string is neither.
bool isArchSupported(const QString &arch, const MachineFacts &facts);

/// A check's outcome. The result holds the chosen record and the chosen patch entry, each only where there is
/// one.
struct Decision {
    ZELStatus status = ZELStatusUnknownError;
    CheckResult result = {};
};

/// Decides over the reply body of a check.
///
/// A record must have a higher "build" than the configuration, a "platform" no newer than the running system,
/// a supported "arch", and no "beta" unless the configuration has that key too; the record with the highest
/// build wins, the earlier one on a tie. Of the record's patches that start from `installedBuild`, the build
/// of the bundle that would be patched (nothing when there is no bundle), it is the first of the newest
/// format that is known. A record with "patchonly" and no such patch is dropped, and no other takes its
/// place.
///
/// With a policy only records count that are signed as it demands, and of those what is inside the signature;
/// their addresses are relative to `base`, the address that answered. Then the result tells when the newest
/// was issued; and a reply of which no record can be relied on gives `ZELStatusUnknownError`, an empty one
/// included, and so does one that lacks a newer record which was signed together with the one that is chosen:
/// whoever holds back news must not look like "no updates".
///
/// A body that is no JSON array gives `ZELStatusUnknownError`, and so does one of more than 10,000 records
/// or, in all of them, 200,000 values; an array without a suitable record gives `ZELStatusNoUpdates`.
Decision decideUpdate(const QByteArray &body, const HostConfig &config, std::optional<qint64> installedBuild,
                      const MachineFacts &facts, const std::optional<RecordPolicy> &policy = std::nullopt,
                      const QUrl &base = {});

} // namespace zel

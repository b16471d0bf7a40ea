// The JSON bodies of the requests that go to the update server. docs/update-protocol.md describes them.
#pragma once

#include "platform/SystemFacts.h"

#include <QByteArray>
#include <QString>
#include <QVariantMap>

namespace zel {

/// What the update server is told of the machine.
struct MachineFacts {
    QString architecture;
    SystemVersion system;
    QString model; ///< null where the machine does not say

    static MachineFacts current();
};

/// Body of the check and of the release-notes request: "arch", "os", "model" (left out when unknown) and the
/// configuration's "build" as it stands (left out when absent).
QByteArray checkRequestBody(const QVariantMap &config, const MachineFacts &facts);

/// Body with which the release-notes page fetches the notes itself: "build" and "arch".
QByteArray historyPageBody(const QVariantMap &config, const MachineFacts &facts);

/// Body of the patch-log upload: "os", "build", "version", "log" (see `patchLogToUpload`) and "arch", but no "model".
QByteArray logUploadBody(const QVariantMap &config, const QVariantList &log, const MachineFacts &facts);

/// `isArchSupported:` for a record's "arch": the machine's own word or "all", exactly; a null string is neither.
bool isArchSupported(const QString &arch, const MachineFacts &facts);

} // namespace zel

// The requests to the update server: the check, the release notes, and the log of a patch that failed.
// docs/update-protocol.md describes their bodies.
#pragma once

#include "common/ZELCompletions.h"
#include "UpdateDecision.h"

#include <QUrl>

namespace zel {

/// Posts the machine's facts to the configuration's "url", decides over the reply and calls `completion`
/// exactly once, on the main queue, where all that it holds is destroyed, too. The reply is read and decided
/// on the session's thread; one that takes more than two minutes or, decoded, 4 MiB is none. Checks do not
/// know of each other; any number may run. Safe from any thread; needs the application object's event loop.
void checkForUpdates(const HostConfig &config, ZELCheckCompletion completion);

/// Posts the machine's facts to the address of the result's release notes, asking for the user's languages,
/// and calls `completion` on the main queue with the body that came, the release notes; null when none did,
/// or none within the limits of a check. The HTTP status is not looked at. Where signers are pinned the notes
/// are those whose hash the signed record bears, or none.
void downloadHistory(const HostConfig &config, const CheckResult &result,
                     std::function<void(const QByteArray &notes)> completion);

/// Uploads the log of a failed patch, in the background; nobody learns how that went, but `ended` is called
/// on the main queue when it is over, for callers that are about to end. The address is
/// "/wexmoor7/updates/patch/" below the configuration's "server", else below the server that was set when the
/// library was built, else on the host of the configuration's "url".
void uploadPatchLog(const HostConfig &config, const QVariantList &log, std::function<void()> ended = {});

/// Body of the check and of the release-notes request: "arch", "os", "model" (left out when unknown) and the
/// configuration's "build" as it stands (left out when absent).
QByteArray checkRequestBody(const HostConfig &config, const MachineFacts &facts);

/// Body with which the release-notes page fetches the notes itself: "build" and "arch".
QByteArray historyPageBody(const HostConfig &config, const MachineFacts &facts);

/// Body of the patch-log upload: "os", "build", "version", "log" (see `patchLogToUpload`) and "arch", but no
/// "model".
QByteArray logUploadBody(const HostConfig &config, const QVariantList &log, const MachineFacts &facts);

/// The fixed English text of a `ZELStatus`; "Unknown Error" for a code without one.
QString descriptionForStatus(qint64 status);

/// The fixed English text of a `ZELDownloadStatus`; "Download Failed" for a code without one.
QString descriptionForDownloadStatus(qint64 status);

} // namespace zel

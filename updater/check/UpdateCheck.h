// The update check: one request, one decision, one report.
#pragma once

#include "common/ZELCompletions.h"

#include <QUrl>

namespace zel {

/// Posts the machine's facts to the configuration's "url", decides over the reply and calls `completion` exactly once,
/// on the main queue, where all that it holds is destroyed, too. Of `config` the keys "url", "build", "beta" and "path"
/// are read. The reply is read and decided on the session's thread; one that takes more than two minutes or, decoded,
/// 4 MiB is none. Checks do not know of each other; any number may run. Safe from any thread; needs the application
/// object's event loop.
void checkForUpdates(const QVariantMap &config, ZELCheckCompletion completion);

/// Posts the machine's facts to the "history" address of the result's "update", asking for the user's languages, and
/// calls `completion` on the main queue with the body that came, the release notes; null when none did, or none within
/// the limits of a check. The HTTP status is not looked at.
void downloadHistory(const QVariantMap &config, const QVariantMap &result,
                     std::function<void(const QByteArray &notes)> completion);

/// The address of the release notes; an invalid one where the record has none.
QUrl historyUrl(const QVariantMap &result);

/// Uploads the log of a failed patch, in the background; nobody learns how that went, but `ended` is called on the main
/// queue when it is over, for callers that are about to end. The address is
/// "/wexmoor7/updates/patch/" below the configuration's "server", else below the server that was set when the library
/// was built, else on the host of the configuration's "url".
void uploadPatchLog(const QVariantMap &config, const QVariantList &log, std::function<void()> ended = {});

} // namespace zel

// The update check: one request, one decision, one report.
#pragma once

#include <QVariantMap>

#include <functional>

/// Called with the status, the check result and a null reserved value.
using ZELCheckCompletion =
    std::function<void(qint64 status, const QVariantMap &result, const QVariant &reserved)>;

namespace zel {

/// Posts the machine's facts to the configuration's "url", decides over the reply and calls `completion` exactly once,
/// on the main queue. Of `config` the keys "url", "build", "beta" and "path" are read. Checks do not know of each
/// other; any number may run. Safe from any thread; needs the application object's event loop.
void checkForUpdates(const QVariantMap &config, ZELCheckCompletion completion);

/// Uploads the log of a failed patch, in the background; nobody learns how that went, but `ended` is called on the main
/// queue when it is over, for callers that are about to end. The address is
/// "/wexmoor7/updates/patch/" below the configuration's "server", else below the server that was set when the library
/// was built, else on the host of the configuration's "url".
void uploadPatchLog(const QVariantMap &config, const QVariantList &log, std::function<void()> ended = {});

} // namespace zel

// The installation of updates, as the controller and the command-line tool drive it: what is offered, the
// update in flight, and the bundles that are ready for the host.
#pragma once

#include "BundleBuild.h"
#include "common/ZELCompletions.h"
#include "net/URLSession.h"
#include "SignedRecord.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace zel {

class StagingFolder;

/// The share of a download that has arrived, 0 to 1. 0 while `expected` is not known, that is, not above
/// zero; 1 when more has come than was expected.
inline double downloadFraction(qint64 received, qint64 expected)
{
    return expected > 0 ? std::clamp(double(received) / double(expected), 0.0, 1.0) : 0;
}

/// Starts updates, each a job by itself (UpdateJob.h), and keeps what is read between them. Made with
/// `create`; it lives at least until what it has started has ended.
///
/// Threads: the methods may be called from any thread. Completions, which may be empty, run on the main
/// queue, with the one exception that `downloadUpdate` reports a failed transfer on the job's thread.
class UpdateInstaller : public std::enable_shared_from_this<UpdateInstaller>
{
public:
    /// What the flow needs from above. Each may be left out.
    struct Hooks {
        /// Main queue: the log of a patch that failed.
        std::function<void(const QVariantList &log)> handleLog;

        /// A patch is about to be applied; on the thread that does.
        std::function<void()> preparing;

        /// Main queue; expected is -1 if unknown.
        std::function<void(qint64 received, qint64 expected)> progress;
    };

    struct Settings {
        QString installedBundle; ///< the bundle that patches start from; only read
        QString stagingRoot; ///< staging folders are made below it
        std::optional<RecordPolicy> policy = {}; ///< where signers are pinned
        QString downloadRoot = {}; ///< where downloads that break off are kept; null: nowhere
    };

    static std::shared_ptr<UpdateInstaller> create(Hooks hooks);

    void setSettings(const Settings &settings);

    /// The check result: "update" and, as long as no patch of it has failed, "patch".
    QVariantMap update() const;
    void setUpdate(const QVariantMap &update);

    /// The running or last update; null before the first.
    std::shared_ptr<URLSessionTask> task() const;
    void setTask(const std::shared_ptr<URLSessionTask> &task);

    /// The staging folder of the last finished download, in which the payload is unpacked or applied; null
    /// before.
    QString temporaryDirectory() const;
    void setTemporaryDirectory(const QString &directory);

    /// Starts a job with the present settings and check result; what is set later is for the next one. A
    /// patch that is wrong or fails is followed by a download of the full archive, and leaves `update` if
    /// that is still the one that the job began with. Statuses as for `UpdateJob::create`.
    void downloadUpdate(ZELDownloadCompletion completion);

    /// Unpacks a full archive into the staging folder, on the calling thread: `ZELDownloadSucceeded` and the
    /// bundle's path (a null path when the archive holds none), or `ZELDownloadExtractionFailed`, after which
    /// all staging folders that are not in use are removed.
    void handleUpdate(const QString &payload, ZELInstallCompletion completion);

    /// Applies a bundle patch to a copy of the installed bundle and checks the result, on the global queue:
    /// `ZELDownloadSucceeded` and the new bundle's path, or `ZELDownloadPatchFailed`, after the patch log was
    /// handed on.
    void handlePatch(const QString &payload, ZELInstallCompletion completion);

    /// Drops the patch from the check result and downloads the full archive.
    void downloadFullUpdate(ZELDownloadCompletion completion);

    /// Removes the staging folders with the bundles that are ready, and all others that nobody uses; errors
    /// are ignored. An update in flight, here or in another process, keeps its folder, as does another
    /// process's bundle that is ready.
    void cleanup();

private:
    explicit UpdateInstaller(Hooks hooks)
        : m_hooks(std::move(hooks))
    {
    }

    Settings settings() const;
    ZELError prepare(BuildInputs &inputs, CheckResult &offer) const;
    void dropPatch(const QVariantMap &offer);
    void progressed(const std::weak_ptr<URLSessionTask> &task);

    const Hooks m_hooks;
    mutable std::mutex m_mutex; // guards what follows: hosts read it while a job's thread writes
    Settings m_settings;
    QVariantMap m_update;
    std::shared_ptr<URLSessionTask> m_task;
    QString m_temporaryDirectory;
    // Held until `cleanup`: the host may be using the bundles.
    std::vector<std::shared_ptr<StagingFolder>> m_ready;
};

} // namespace zel

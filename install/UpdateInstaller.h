// From a check result to a new bundle on disk: download, verify, patch or unpack, and the way back from a patch that
// fails to the full archive.
#pragma once

#include "ZELCompletions.h"

#include <QStringList>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <mutex>

namespace zel {

class URLSessionTask;

/// The file name under which a download from `url` is kept: the last part of its path, without separators, never
/// empty, "." or "..".
QString payloadName(const QUrl &url);

/// Carries one update at a time. Made with `create`; it lives at least until what it has started has ended.
///
/// Threads: the methods may be called from any thread. Completions, which may be empty, run on the main queue, with
/// the one exception that `downloadUpdate` reports a failed transfer on the URL session's thread.
class UpdateInstaller : public std::enable_shared_from_this<UpdateInstaller>
{
public:
    /// What the flow needs from above. Each may be left out.
    struct Hooks {
        std::function<void(const QVariantList &log)>
            handleLog; ///< main queue: the log of a patch that failed
        std::function<void()> preparing; ///< a patch is about to be applied; on the calling thread
        std::function<void(qint64 received, qint64 expected)>
            progress; ///< main queue; expected as `expectedBytes` has it
    };

    struct Settings {
        QString installedBundle; ///< the bundle that patches start from; only read
        QString stagingRoot; ///< staging folders are made below it, and `cleanup` removes it
        QStringList signers; ///< when not empty, new bundles must be sealed by one of them (see `verifySeal`)
    };

    static std::shared_ptr<UpdateInstaller> create(Hooks hooks);

    void setSettings(const Settings &settings);

    /// The check result: "update" and, as long as no patch has failed, "patch".
    QVariantMap update() const;
    void setUpdate(const QVariantMap &update);

    /// The running or last download; null before the first.
    std::shared_ptr<URLSessionTask> task() const;
    void setTask(const std::shared_ptr<URLSessionTask> &task);

    /// The staging folder of the last finished download, in which the payload is unpacked or applied; null before.
    QString temporaryDirectory() const;
    void setTemporaryDirectory(const QString &directory);

    /// Downloads what the check result names, verifies it and makes a bundle of it. The completion is called once,
    /// with 1 and the new bundle's path, 0 when the download failed or is not what the server announced, or 2 when the
    /// archive held no bundle; it is not called when the download is cancelled. A patch that is wrong or fails is
    /// followed by a download of the full archive; a patch whose transfer fails is not.
    void downloadUpdate(ZELDownloadCompletion completion);

    /// Unpacks a full archive into the staging folder, on the calling thread: 1 and the bundle's path (a null path
    /// when the archive holds none), or 2 after a failed extraction, which removes all staging folders.
    void handleUpdate(const QString &payload, ZELInstallCompletion completion);

    /// Applies a bundle patch to a copy of the installed bundle and checks the result's seal, on the global queue: 1
    /// and the new bundle's path, or 3, after the patch log was handed on.
    void handlePatch(const QString &payload, ZELInstallCompletion completion);

    /// Drops the patch from the check result and downloads the full archive.
    void downloadFullUpdate(ZELDownloadCompletion completion);

    /// Removes all staging folders; errors are ignored.
    void cleanup();

private:
    explicit UpdateInstaller(Hooks hooks)
        : m_hooks(std::move(hooks))
    {
    }

    struct Chosen;
    void downloaded(const Chosen &chosen, const QString &location, const QUrl &answered,
                    ZELDownloadCompletion completion);
    void wrongPayload(const Chosen &chosen, ZELDownloadCompletion completion);
    ZELInstallCompletion patchRouter(ZELDownloadCompletion completion);
    ZELInstallCompletion updateRouter(ZELDownloadCompletion completion);
    bool isTrusted(const QString &bundle) const;
    void applyPatch(const QString &staging, const QString &build, const QString &payload,
                    ZELInstallCompletion completion);
    void patchFailed(const QVariantList &log, const ZELInstallCompletion &completion);
    Settings settings() const;

    const Hooks m_hooks;
    mutable std::mutex m_mutex; // guards what follows: hosts read it while the session's thread writes
    Settings m_settings;
    QVariantMap m_update;
    std::shared_ptr<URLSessionTask> m_task;
    QString m_temporaryDirectory;
};

} // namespace zel

// One update on its way from a check result to a new bundle: download, verify, patch or unpack, and the way
// back from a patch that fails to the full archive.
#pragma once

#include "BundleBuild.h"
#include "common/ZELCompletions.h"
#include "net/URLSession.h"
#include "SignedRecord.h"
#include "StagingFolder.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <vector>

namespace zel {

/// The file name under which a download from `url` is kept: the last part of its path, without separators,
/// never empty, "." or "..", and cut to what a name may have.
QString payloadName(const QUrl &url);

/// An update in flight. What it works from is fixed when it is made: whatever the host sets or checks
/// meanwhile changes nothing. Its steps run one after the other on a thread of its own (`run` in
/// UpdateJob.cpp is their list), and it finishes exactly once. As a task it stands for its present download:
/// the bytes are that one's, and the patch's are followed by the archive's where the patch is of no use. A
/// cancelled job ends at its next step, whichever runs; the application's end cancels it.
class UpdateJob : public URLSessionTask, public std::enable_shared_from_this<UpdateJob>
{
public:
    struct Inputs {
        CheckResult offer; ///< what is downloaded
        QString installedBundle; ///< the bundle that patches start from; only read
        QString stagingRoot; ///< staging folders are made below it
        std::optional<RecordPolicy> policy = {}; ///< where signers are pinned
        QString archiveTool = zel::archiveTool(); ///< what unpacks archives
        QString downloadRoot = {}; ///< where downloads that break off are kept; null: nowhere
        /// Before each further attempt at a download.
        std::vector<std::chrono::milliseconds> pauses = {std::chrono::seconds(1), std::chrono::seconds(3),
                                                         std::chrono::seconds(9), std::chrono::seconds(27)};
    };

    /// What the job tells on its way; each may be left out.
    struct Hooks {
        /// Main queue: the log of a patch that failed.
        std::function<void(const QVariantList &log)> handleLog;

        /// Job's thread: a patch is about to be applied.
        std::function<void()> preparing;

        /// Job's thread: a download lies in this staging folder.
        std::function<void(const QString &folder)> staged;

        /// Job's thread: the patch is of no use, the full archive is next.
        std::function<void()> fallsBack;

        /// Any thread: the counts of bytes have changed.
        std::function<void()> progress;

        /// Main queue: what holds the new bundle.
        std::function<void(std::shared_ptr<StagingFolder>)> succeeded;
    };

    /// `completion`, which may be empty, is called once, with `ZELDownloadSucceeded` and the new bundle's
    /// path, or with `ZELDownloadFailed` or `ZELDownloadExtractionFailed`. It is called on the main queue,
    /// but for a transfer that failed, which is reported on the job's thread, and not at all when the job is
    /// cancelled. It is destroyed on the main thread.
    static std::shared_ptr<UpdateJob> create(Inputs inputs, Hooks hooks, ZELDownloadCompletion completion);

    void resume() override;
    void cancel() override;
    qint64 countOfBytesReceived() const override;

    /// What the server announced, else the "size" of the record or patch entry, else -1.
    qint64 countOfBytesExpectedToReceive() const override;

    void observeCountOfBytesReceived(std::function<void()> observer) override;

private:
    struct Download;
    struct Ending;

    UpdateJob(Inputs inputs, Hooks hooks, ZELDownloadCompletion completion);
    void run();
    Ending updateByPatch();
    Ending updateByArchive();
    Ending fallBack();
    Download download(const OfferedFile &offered);
    Download downloadOnce(const OfferedFile &offered);
    ZELError transfer(const OfferedFile &offered, const QString &folder, Download &result);
    void setTransfer(const std::shared_ptr<URLSessionTask> &task, const OfferedFile &offered);
    void notify();
    void finish(Ending ending);
    bool leave(const Ending &ending);
    BuildInputs buildInputs() const;
    UpdateRecord record() const { return m_offer.update.value_or(UpdateRecord()); }
    bool isCancelled() const { return m_stop.stop_requested(); }

    const Inputs m_inputs;
    const Hooks m_hooks;
    CheckResult m_offer; // what of the inputs' one can be relied on; of the job's thread
    ZELDownloadCompletion m_completion; // until the job finishes
    std::stop_source m_stop;
    mutable std::mutex m_mutex; // guards what follows
    std::shared_ptr<URLSessionTask> m_transfer; // the present or last one
    qint64 m_announced = -1; // its bytes, as its entry has them
    std::shared_ptr<const std::function<void()>> m_observer;
    bool m_started = false;
    std::atomic<bool> m_left = false;
};

} // namespace zel

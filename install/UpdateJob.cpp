// An update as a list of steps, read from top to bottom on one thread:
//
//     run              sweep what killed processes left, see whose record it is, then one of the two ways
//     updateByPatch    download, verify, apply to a copy and judge the result; a patch of no use falls back
//     updateByArchive  download, verify, unpack and judge
//     finish           once, on the main queue; a transfer that failed is reported here, on this thread
//
// Callbacks that start the next step from the thread that happened to end the last one were rejected:
// cancelling would have to meet each of them, and the way of a failure could not be read. A thread of its own
// costs less than that.
//
// The invariants: the inputs are copied when the job is made and never read again from the controller, so
// that a second check changes nothing here. The completion is taken out of the job by the one who calls it.
// Each download makes its own staging folder (`StagingFolder::make` in `download`); the step that finds it
// useless removes it before the next begins, and with success it goes to whoever holds the bundle
// (`Hooks::succeeded`). After a cancel, `leave` removes it and nobody is told.
#include "UpdateJob.h"

#include "common/DDLog.h"
#include "common/ZELUpdaterTypes.h"
#include "PartialDownload.h"
#include "platform/Queues.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <climits>
#include <condition_variable>
#include <optional>
#include <utility>

namespace zel {

namespace {

// A KiB a second over two minutes.
constexpr LeastPace SlowestDownload{120 * 1024, std::chrono::minutes(2)};

// For a download of the same file that was cancelled just now.
constexpr std::chrono::milliseconds TimeToEnd(1500);

QString jsonText(const QVariantMap &entry)
{
    return QString::fromUtf8(
        QJsonDocument(QJsonObject::fromVariantMap(entry)).toJson(QJsonDocument::Compact));
}

template <typename... Arguments>
void tell(const std::function<void(Arguments...)> &hook, std::type_identity_t<Arguments>... arguments)
{
    if (hook)
        hook(std::forward<Arguments>(arguments)...);
}

// Not looked at here: a file that did not get there is found when its hash is taken.
QString keepDownload(const QString &location, const QString &folder, const QUrl &answered,
                     PartialDownload *part)
{
    const QString payload = folder + payloadName(answered);
    if (part && location == part->location())
        part->moveTo(payload);
    else
        QFile::rename(location, payload);
    DDLogInfo(QLatin1String("Download location = ") + location);
    DDLogInfo(QLatin1String("temp = ") + folder);
    DDLogInfo(QLatin1String("payload = ") + payload);
    return payload;
}

} // namespace

struct UpdateJob::Download {
    enum Arrival { Failed, Wrong, Sound };

    Arrival arrival;
    std::shared_ptr<StagingFolder> folder = {}; // of a sound one
    QString payload = {};
    bool isContinued = false; // it was put together from several answers
    std::shared_ptr<PartialDownload> part = {}; // held until it is known what has come
};

struct UpdateJob::Ending {
    ZELDownloadStatus status;
    QString bundle = {};
    std::shared_ptr<StagingFolder> folder = {}; // that the bundle lies in
    bool isTransferFailure = false;

    static Ending transferFailed() { return {ZELDownloadFailed, {}, {}, true}; }
};

QString payloadName(const QUrl &url)
{
    QString path = url.path(QUrl::FullyDecoded);
    while (path.endsWith(u'/'))
        path.chop(1);
    QString name = path.section(u'/', -1);
    name.remove(QChar(u'\0'));
    name.truncate(NAME_MAX);
    while (QFile::encodeName(name).size() > NAME_MAX)
        name.chop(1);
    const bool unusable = name.isEmpty() || name == u'.' || name == QLatin1String("..");
    return unusable ? QStringLiteral("download") : name;
}

UpdateJob::UpdateJob(Inputs inputs, Hooks hooks, ZELDownloadCompletion completion)
    : m_inputs(std::move(inputs))
    , m_hooks(std::move(hooks))
    , m_completion(std::move(completion))
{
}

std::shared_ptr<UpdateJob> UpdateJob::create(Inputs inputs, Hooks hooks, ZELDownloadCompletion completion)
{
    return std::shared_ptr<UpdateJob>(
        new UpdateJob(std::move(inputs), std::move(hooks), std::move(completion)));
}

void UpdateJob::resume()
{
    {
        const std::lock_guard lock(m_mutex);
        if (std::exchange(m_started, true))
            return;
    }
    const auto self = shared_from_this();
    const auto cancelled = [weak = weak_from_this()] {
        if (const auto job = weak.lock())
            job->cancel();
    };
    if (!startSession([self] { self->run(); }, cancelled))
        onMainQueue([self] { self->finish(Ending::transferFailed()); }); // no thread is to be had
}

void UpdateJob::run()
{
    sweepStaging(m_inputs.stagingRoot); // folders that no living process holds
    sweepDownloads(m_inputs.downloadRoot);
    if (const ZELError error = trustedOffer(m_inputs.offer, m_inputs.policy, m_offer)) {
        systemLog(error.message);
        return finish({ZELDownloadFailed});
    }
    finish(m_offer.patch ? updateByPatch() : updateByArchive());
}

UpdateJob::Ending UpdateJob::updateByPatch()
{
    const PatchEntry &entry = *m_offer.patch;
    DDLogInfo(QStringLiteral("Downloading patch"));
    const Download file = download(entry);
    if (file.arrival != Download::Sound)
        return file.arrival == Download::Wrong ? fallBack() : Ending::transferFailed();
    DDLogInfo(QStringLiteral("verifying patch"));
    tell(m_hooks.preparing);
    QVariantList log;
    const QString bundle = patchInstalled(file.payload, entry.build, file.folder->path(), buildInputs(), log);
    if (isCancelled())
        return {ZELDownloadFailed, {}, file.folder};
    if (!bundle.isNull()) {
        DDLogInfo(QStringLiteral("patch succeeded"));
        return {ZELDownloadSucceeded, bundle, file.folder};
    }
    onMainQueue([self = shared_from_this(), log] { tell(self->m_hooks.handleLog, log); });
    DDLogInfo(QStringLiteral("patch failed"));
    file.folder->remove();
    return fallBack();
}

UpdateJob::Ending UpdateJob::fallBack()
{
    DDLogInfo(QStringLiteral("Attempting to download full update after patch failure"));
    tell(m_hooks.fallsBack);
    return updateByArchive();
}

UpdateJob::Ending UpdateJob::updateByArchive()
{
    DDLogInfo(QStringLiteral("Downloading full update"));
    const Download file = download(record());
    if (file.arrival != Download::Sound)
        return file.arrival == Download::Wrong ? Ending{ZELDownloadFailed} : Ending::transferFailed();
    const UnpackedBundle unpacked = unpackUpdate(file.payload, file.folder->path(), buildInputs());
    if (!unpacked.path.isNull())
        return {ZELDownloadSucceeded, unpacked.path, file.folder};
    file.folder->remove();
    if (!unpacked.unpacked)
        sweepStaging(m_inputs.stagingRoot); // deliberate: a failed extraction takes all leftovers along
    return {ZELDownloadExtractionFailed};
}

// Bytes of several answers may be of several files, or were damaged while they lay there, which says nothing
// of the file at the server: it gets one chance to come whole.
UpdateJob::Download UpdateJob::download(const OfferedFile &offered)
{
    const Download result = downloadOnce(offered);
    if (result.arrival != Download::Wrong || !result.isContinued || isCancelled())
        return result;
    DDLogInfo(QStringLiteral("The download was put together wrongly: downloading it again"));
    return downloadOnce(offered);
}

UpdateJob::Download UpdateJob::downloadOnce(const OfferedFile &offered)
{
    DDLogInfo(jsonText(offered.received));
    Download result{Download::Failed};
    ZELError error = StagingFolder::make(m_inputs.stagingRoot, result.folder);
    if (!error)
        error = transfer(offered, result.folder->path(), result);
    // A transfer that fails ends the update, but wrong bytes fall back: asking a server again that cannot be
    // reached helps nobody. More than was announced is no better than other bytes than were announced.
    result.arrival = error.code == URLErrorCode::TooLong ? Download::Wrong : Download::Failed;
    if (!error) {
        tell(m_hooks.staged, result.folder->path());
        error = checkPayload(result.payload, offered, m_inputs.policy.has_value());
        result.arrival = error ? Download::Wrong : Download::Sound;
    }
    if (const auto part = std::exchange(result.part, {})) {
        if (result.arrival == Download::Sound)
            part->discard(); // it has come another way
        else
            part->letGo();
    }
    if (!error)
        return result;
    if (result.folder)
        result.folder->remove();
    if (!isCancelled()) {
        DDLogInfo(result.arrival == Download::Wrong ? QStringLiteral("MD5 Error")
                                                    : QStringLiteral("Error downloading file"));
        systemLog(error.message);
    }
    return result;
}

// Waits for the transfer's end. A cancelled one ends at once, unless there was no thread for it: its
// completion comes from the main queue then, which may be waiting for this very job to end.
ZELError UpdateJob::transfer(const OfferedFile &offered, const QString &folder, Download &result)
{
    constexpr std::chrono::seconds timeToCancel(5);
    struct Outcome {
        std::mutex mutex;
        std::condition_variable_any changed;
        std::optional<ZELError> error;
        QString payload;
        bool isContinued = false;
    };
    const auto outcome = std::make_shared<Outcome>();
    URLRequest request;
    request.url = QUrl(offered.file);
    request.pace = SlowestDownload;
    if (offered.size && *offered.size >= 0)
        request.bodyLimit = request.size = *offered.size;
    request.pauses = m_inputs.pauses;
    const auto part = PartialDownload::take(m_inputs.downloadRoot, offered.sha256.value_or(QString()),
                                            request.size.value_or(-1), TimeToEnd, m_stop.get_token());
    std::shared_ptr<BodyFile> file = part;
    if (!file)
        file = std::make_shared<TemporaryBodyFile>(folder);
    const auto completion = [outcome, folder, part, file](const QString &location, const QUrl &answered,
                                                          const ZELError &error) {
        const std::lock_guard lock(outcome->mutex);
        outcome->isContinued = !error && location == file->location() && file->isContinued();
        if (!error)
            outcome->payload = keepDownload(location, folder, answered, part.get());
        outcome->error = error;
        outcome->changed.notify_all();
    };
    const auto task = downloadTask(request, folder, completion, file);
    setTransfer(task, offered);
    task->resume();
    task->observeCountOfBytesReceived([weak = weak_from_this()] {
        if (const auto self = weak.lock())
            self->notify();
    });
    std::unique_lock lock(outcome->mutex);
    const auto ended = [&] { return outcome->error.has_value(); };
    if (!outcome->changed.wait(lock, m_stop.get_token(), ended)
        && !outcome->changed.wait_for(lock, timeToCancel, ended))
        return ZELError::withMessage(QStringLiteral("the download was cancelled"));
    result.payload = outcome->payload;
    result.isContinued = outcome->isContinued;
    result.part = part;
    return *outcome->error;
}

void UpdateJob::setTransfer(const std::shared_ptr<URLSessionTask> &task, const OfferedFile &offered)
{
    const std::lock_guard lock(m_mutex);
    m_transfer = task;
    m_announced = offered.size.value_or(-1);
    if (isCancelled())
        task->cancel();
}

void UpdateJob::finish(Ending ending)
{
    if (!leave(ending) && ending.isTransferFailure) {
        // Deliberate: the one result that is not delivered on the main queue. Hosts expect it here.
        tell(m_completion, ending.status, QString());
    }
    onMainQueue([self = shared_from_this(), ending, completion = std::exchange(m_completion, {})] {
        // The user may have cancelled meanwhile.
        if (ending.isTransferFailure || self->leave(ending))
            return;
        if (ending.folder)
            tell(self->m_hooks.succeeded, ending.folder);
        tell(completion, ending.status, ending.bundle);
    });
}

// Whether the job was cancelled: then nothing stays, and nobody is told.
bool UpdateJob::leave(const Ending &ending)
{
    if (!isCancelled())
        return false;
    if (ending.folder)
        ending.folder->remove();
    if (!m_left.exchange(true))
        DDLogInfo(QStringLiteral("download was cancelled"));
    return true;
}

BuildInputs UpdateJob::buildInputs() const
{
    return {.installedBundle = m_inputs.installedBundle,
            .signers = pinsOf(m_inputs.policy),
            .announcedBuild = record().build,
            .archiveTool = m_inputs.archiveTool,
            .stop = m_stop.get_token()};
}

void UpdateJob::cancel()
{
    m_stop.request_stop();
    std::shared_ptr<URLSessionTask> transfer;
    {
        const std::lock_guard lock(m_mutex);
        transfer = m_transfer;
    }
    if (transfer)
        transfer->cancel();
}

qint64 UpdateJob::countOfBytesReceived() const
{
    const std::lock_guard lock(m_mutex);
    return m_transfer ? m_transfer->countOfBytesReceived() : 0;
}

qint64 UpdateJob::countOfBytesExpectedToReceive() const
{
    const std::lock_guard lock(m_mutex);
    const qint64 expected = m_transfer ? m_transfer->countOfBytesExpectedToReceive() : -1;
    return expected > 0 ? expected : m_announced;
}

void UpdateJob::observeCountOfBytesReceived(std::function<void()> observer)
{
    auto shared = observer ? std::make_shared<const std::function<void()>>(std::move(observer)) : nullptr;
    const auto first = shared;
    {
        const std::lock_guard lock(m_mutex);
        m_observer.swap(shared); // the one before is destroyed after the lock is gone
    }
    if (first)
        (*first)();
}

void UpdateJob::notify()
{
    std::shared_ptr<const std::function<void()>> observer;
    {
        const std::lock_guard lock(m_mutex);
        observer = m_observer;
    }
    if (observer)
        (*observer)();
    tell(m_hooks.progress);
}

} // namespace zel

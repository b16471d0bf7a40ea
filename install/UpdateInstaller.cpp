// The controller's side of updates. It holds what is read between them (the offer, the settings, the bundles
// that are ready), and of an update in flight nothing but the task: what a job needs is copied into it when
// it starts.
//
// Who keeps whom: the job's completion keeps this object until it has ended, and this object keeps the job;
// the hooks hold both weakly, or the two would keep each other for good. The staging folder of a finished job
// is kept in `m_ready`, and its lock with it, until `cleanup`: only then another process's sweep may remove
// the bundle.
//
// `handleUpdate`, `handlePatch` and `downloadFullUpdate` are single steps for hosts that drive them
// themselves; they work on the present offer, where a job works on its own.
#include "UpdateInstaller.h"

#include "common/DDLog.h"
#include "common/ZELUpdaterTypes.h"
#include "platform/Queues.h"
#include "UpdateJob.h"

namespace zel {

namespace {

// Completions may be left out.
void report(const ZELInstallCompletion &completion, ZELDownloadStatus status, const QString &path = {})
{
    if (completion)
        completion(status, path);
}

} // namespace

std::shared_ptr<UpdateInstaller> UpdateInstaller::create(Hooks hooks)
{
    return std::shared_ptr<UpdateInstaller>(new UpdateInstaller(std::move(hooks)));
}

void UpdateInstaller::setSettings(const Settings &settings)
{
    const std::lock_guard lock(m_mutex);
    m_settings = settings;
}

UpdateInstaller::Settings UpdateInstaller::settings() const
{
    const std::lock_guard lock(m_mutex);
    return m_settings;
}

QVariantMap UpdateInstaller::update() const
{
    const std::lock_guard lock(m_mutex);
    return m_update;
}

void UpdateInstaller::setUpdate(const QVariantMap &update)
{
    const std::lock_guard lock(m_mutex);
    m_update = update;
}

std::shared_ptr<URLSessionTask> UpdateInstaller::task() const
{
    const std::lock_guard lock(m_mutex);
    return m_task;
}

void UpdateInstaller::setTask(const std::shared_ptr<URLSessionTask> &task)
{
    const std::lock_guard lock(m_mutex);
    m_task = task;
}

QString UpdateInstaller::temporaryDirectory() const
{
    const std::lock_guard lock(m_mutex);
    return m_temporaryDirectory;
}

void UpdateInstaller::setTemporaryDirectory(const QString &directory)
{
    const std::lock_guard lock(m_mutex);
    m_temporaryDirectory = directory;
}

void UpdateInstaller::downloadUpdate(ZELDownloadCompletion completion)
{
    const auto self = shared_from_this();
    const Settings settings = this->settings();
    const QVariantMap offer = update();
    const auto handle = std::make_shared<std::weak_ptr<URLSessionTask>>(); // the job, for its own hooks
    // The job is kept here, so of the two only its completion keeps this object: until it has ended.
    const std::weak_ptr<UpdateInstaller> weak = self;
    const auto here = [weak](const auto &act) {
        return [weak, act](auto &&...arguments) {
            if (const auto installer = weak.lock())
                act(*installer, arguments...);
        };
    };
    UpdateJob::Hooks hooks;
    hooks.handleLog = m_hooks.handleLog;
    hooks.preparing = m_hooks.preparing;
    hooks.staged = here(
        [](UpdateInstaller &installer, const QString &folder) { installer.setTemporaryDirectory(folder); });
    hooks.fallsBack = here([offer](UpdateInstaller &installer) { installer.dropPatch(offer); });
    hooks.progress = here([handle](UpdateInstaller &installer) { installer.progressed(*handle); });
    hooks.succeeded = here([](UpdateInstaller &installer, const std::shared_ptr<StagingFolder> &folder) {
        const std::lock_guard lock(installer.m_mutex);
        installer.m_ready.push_back(folder);
    });
    const auto ended = [self, completion = std::move(completion)](qint64 status, const QString &path) {
        if (completion)
            completion(status, path);
    };
    const auto job = UpdateJob::create({.offer = CheckResult::fromMap(offer),
                                        .installedBundle = settings.installedBundle,
                                        .stagingRoot = settings.stagingRoot,
                                        .policy = settings.policy,
                                        .downloadRoot = settings.downloadRoot},
                                       std::move(hooks), ended);
    *handle = job;
    setTask(job);
    job->resume();
}

void UpdateInstaller::progressed(const std::weak_ptr<URLSessionTask> &task)
{
    if (!m_hooks.progress)
        return;
    onMainQueue([self = shared_from_this(), task] {
        // One that was cancelled must not write over its successor's progress.
        const auto running = task.lock();
        if (running && running == self->task())
            self->m_hooks.progress(running->countOfBytesReceived(), running->countOfBytesExpectedToReceive());
    });
}

void UpdateInstaller::dropPatch(const QVariantMap &offer)
{
    const std::lock_guard lock(m_mutex);
    if (m_update == offer)
        m_update = withoutPatch(m_update);
}

// What a step works from, and which of it can be relied on.
ZELError UpdateInstaller::prepare(BuildInputs &inputs, CheckResult &offer) const
{
    const Settings settings = this->settings();
    const ZELError error = trustedOffer(CheckResult::fromMap(update()), settings.policy, offer);
    inputs = {.installedBundle = settings.installedBundle,
              .signers = pinsOf(settings.policy),
              .announcedBuild = offer.update ? offer.update->build : 0};
    return error;
}

void UpdateInstaller::handleUpdate(const QString &payload, ZELInstallCompletion completion)
{
    BuildInputs inputs;
    CheckResult offer;
    UnpackedBundle bundle;
    ZELError error = prepare(inputs, offer);
    if (!error && inputs.signers)
        error = checkPayload(payload, *offer.update, true);
    if (error)
        systemLog(error.message);
    else
        bundle = unpackUpdate(payload, temporaryDirectory(), inputs);
    if (!bundle.unpacked)
        sweepStaging(settings().stagingRoot);
    onMainQueue([bundle, completion = std::move(completion)] {
        report(completion, bundle.unpacked ? ZELDownloadSucceeded : ZELDownloadExtractionFailed, bundle.path);
    });
}

void UpdateInstaller::handlePatch(const QString &payload, ZELInstallCompletion completion)
{
    DDLogInfo(QStringLiteral("verifying patch"));
    if (m_hooks.preparing)
        m_hooks.preparing();
    BuildInputs inputs;
    CheckResult offer;
    ZELError error = prepare(inputs, offer);
    if (!error && inputs.signers && !offer.patch)
        error = ZELError::withMessage(QStringLiteral("the record has no such patch"));
    const PatchEntry entry = offer.patch.value_or(PatchEntry());
    onGlobalQueue([self = shared_from_this(), inputs, staging = temporaryDirectory(), entry, error, payload,
                   completion = std::move(completion)]() mutable {
        QVariantList log;
        QString bundle;
        if (!error && inputs.signers)
            error = checkPayload(payload, entry, true);
        if (error)
            systemLog(error.message);
        else
            bundle = patchInstalled(payload, entry.build, staging, inputs, log);
        onMainQueue([self, bundle, log, completion = std::move(completion)] {
            if (bundle.isNull() && self->m_hooks.handleLog)
                self->m_hooks.handleLog(log);
            report(completion, bundle.isNull() ? ZELDownloadPatchFailed : ZELDownloadSucceeded, bundle);
        });
    });
}

void UpdateInstaller::downloadFullUpdate(ZELDownloadCompletion completion)
{
    DDLogInfo(QStringLiteral("Attempting to download full update after patch failure"));
    dropPatch(update());
    downloadUpdate(std::move(completion));
}

void UpdateInstaller::cleanup()
{
    std::vector<std::shared_ptr<StagingFolder>> ready;
    {
        const std::lock_guard lock(m_mutex);
        ready.swap(m_ready);
    }
    for (const auto &folder : ready)
        folder->remove();
    sweepStaging(settings().stagingRoot);
}

} // namespace zel

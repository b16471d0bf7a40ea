#include "UpdateInstaller.h"

#include "ArchiveExtractor.h"
#include "BundleSeal.h"
#include "DDLog.h"
#include "DownloadFraction.h"
#include "FileTree.h"
#include "IntegerValue.h"
#include "MD5Digest.h"
#include "PatchLog.h"
#include "Queues.h"
#include "StagingFolder.h"
#include "URLSession.h"
#include "ZELUpdaterApplyPatch.h"
#include "ZELUpdaterValidateCodeSigning.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace zel {

namespace {

enum InstallStatus : qint64 { Failed = 0, Succeeded = 1, ExtractionFailed = 2, PatchFailed = 3 };

// Completions may be left out.
void report(const ZELInstallCompletion &completion, InstallStatus status, const QString &path = {})
{
    if (completion)
        completion(status, path);
}

QString jsonText(const QVariantMap &entry)
{
    return QString::fromUtf8(
        QJsonDocument(QJsonObject::fromVariantMap(entry)).toJson(QJsonDocument::Compact));
}

// Errors are not looked at: a file that did not get there is found when its MD5 is taken.
void moveFile(const QString &from, const QString &to)
{
    QFile::rename(from, to);
}

bool hasHash(const QString &file, const QVariant &expected)
{
    const std::optional<QString> hash = MD5FromFile(file);
    return hash && expected.typeId() == QMetaType::QString && *hash == expected.toString();
}

} // namespace

// What one download is about, fixed when it starts.
struct UpdateInstaller::Chosen {
    bool isPatch;
    QVariantMap entry;
};

QString payloadName(const QUrl &url)
{
    QString path = url.path(QUrl::FullyDecoded);
    while (path.endsWith(u'/'))
        path.chop(1);
    QString name = path.section(u'/', -1);
    name.remove(QChar(u'\0'));
    const bool unusable = name.isEmpty() || name == u'.' || name == QLatin1String("..");
    return unusable ? QStringLiteral("download") : name;
}

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
    const QVariantMap update = this->update();
    Chosen chosen{update.contains(QStringLiteral("patch")), {}};
    chosen.entry = update[chosen.isPatch ? QStringLiteral("patch") : QStringLiteral("update")].toMap();
    DDLogInfo(chosen.isPatch ? QStringLiteral("Downloading patch")
                             : QStringLiteral("Downloading full update"));
    DDLogInfo(jsonText(chosen.entry));

    URLRequest request;
    request.url = QUrl(chosen.entry[QStringLiteral("file")].toString());
    const auto self = shared_from_this();
    const auto task = downloadTask(
        request, settings().stagingRoot,
        [self, chosen, completion](const QString &location, const QUrl &answered, const ZELError &error) {
            if (error.code == URLErrorCode::Cancelled) {
                DDLogInfo(QStringLiteral("download was cancelled"));
                return;
            }
            if (!error && !location.isNull()) {
                self->downloaded(chosen, location, answered, completion);
                return;
            }
            DDLogInfo(QStringLiteral("Error downloading file"));
            systemLog(error.message);
            // Deliberate: the one result that is not delivered on the main queue. Hosts expect it here.
            report(completion, Failed);
        });
    setTask(task);
    task->resume();
    if (m_hooks.progress)
        task->observeCountOfBytesReceived([self, chosen, weak = std::weak_ptr(task)] {
            onMainQueue([self, chosen, weak] {
                // One that was cancelled must not write over its successor's progress.
                const auto running = weak.lock();
                if (running && running == self->task())
                    self->m_hooks.progress(
                        running->countOfBytesReceived(),
                        expectedBytes(running->countOfBytesExpectedToReceive(), chosen.entry));
            });
        });
}

void UpdateInstaller::downloaded(const Chosen &chosen, const QString &location, const QUrl &answered,
                                 ZELDownloadCompletion completion)
{
    const QString staging = newStagingPath(settings().stagingRoot);
    setTemporaryDirectory(staging);
    makePrivateFolder(staging);
    const QString payload = staging + payloadName(answered);
    moveFile(location, payload);
    DDLogInfo(QLatin1String("Download location = ") + location);
    DDLogInfo(QLatin1String("temp = ") + staging);
    DDLogInfo(QLatin1String("payload = ") + payload);
    if (!hasHash(payload, chosen.entry[QStringLiteral("hash")]))
        wrongPayload(chosen, completion);
    else if (chosen.isPatch)
        handlePatch(payload, patchRouter(completion));
    else
        handleUpdate(payload, updateRouter(completion));
}

void UpdateInstaller::wrongPayload(const Chosen &chosen, ZELDownloadCompletion completion)
{
    onMainQueue([self = shared_from_this(), isPatch = chosen.isPatch, completion] {
        DDLogInfo(QStringLiteral("MD5 Error"));
        if (isPatch)
            self->downloadFullUpdate(completion);
        else
            report(completion, Failed);
    });
}

// The routers judge by the path alone: extraction reports success without a path when an archive holds no bundle.
ZELInstallCompletion UpdateInstaller::patchRouter(ZELDownloadCompletion completion)
{
    return [self = shared_from_this(), completion](qint64, const QString &path) {
        onMainQueue([self, completion, path] {
            DDLogInfo(path.isNull() ? QStringLiteral("patch failed") : QStringLiteral("patch succeeded"));
            if (path.isNull())
                self->downloadFullUpdate(completion);
            else
                report(completion, Succeeded, path);
        });
    };
}

ZELInstallCompletion UpdateInstaller::updateRouter(ZELDownloadCompletion completion)
{
    return [completion](qint64, const QString &path) {
        onMainQueue(
            [completion, path] { report(completion, path.isNull() ? ExtractionFailed : Succeeded, path); });
    };
}

void UpdateInstaller::handleUpdate(const QString &payload, ZELInstallCompletion completion)
{
    DDLogInfo(QStringLiteral("extracting update"));
    extractArchive(
        payload, temporaryDirectory(), [this, completion](bool ok, QString path, const ZELError &) {
            // An archive is trusted for its hash, unless the host names the signers it trusts.
            if (ok && !path.isNull() && !settings().signers.isEmpty() && !isTrusted(path))
                ok = false;
            onMainQueue([self = shared_from_this(), completion, ok, path] {
                DDLogInfo(ok ? QStringLiteral("extraction succeeded") : QStringLiteral("extraction failed"));
                if (!ok)
                    self->cleanup();
                report(completion, ok ? Succeeded : ExtractionFailed, ok ? path : QString());
            });
        });
}

bool UpdateInstaller::isTrusted(const QString &bundle) const
{
    const QStringList signers = settings().signers;
    if (signers.isEmpty())
        return ZELUpdaterValidateCodeSigning(QUrl::fromLocalFile(bundle));
    const ZELError error = verifySeal(bundle, signers);
    if (error)
        systemLog(error.message);
    return !error;
}

void UpdateInstaller::handlePatch(const QString &payload, ZELInstallCompletion completion)
{
    DDLogInfo(QStringLiteral("verifying patch"));
    if (m_hooks.preparing)
        m_hooks.preparing();
    const QVariantMap patch = update()[QStringLiteral("patch")].toMap();
    const QString build = QString::number(integerValue(patch[QStringLiteral("build")]));
    onGlobalQueue([self = shared_from_this(), staging = temporaryDirectory(), build, payload, completion] {
        self->applyPatch(staging, build, payload, completion);
    });
}

void UpdateInstaller::applyPatch(const QString &staging, const QString &build, const QString &payload,
                                 ZELInstallCompletion completion)
{
    // Deliberate: the new bundle, too, bears the number of the build that it was patched from.
    const QString oldPath = staging + QLatin1String("Old-") + build + QLatin1String(".app");
    const QString patchedPath = staging + QLatin1String("Patched-") + build + QLatin1String(".app");
    const auto self = shared_from_this();
    QVariantList log;
    if (const ZELError error = copyTree(settings().installedBundle, oldPath)) {
        onMainQueue([=]() mutable {
            appendEntry(log, QStringLiteral("Unable to copy old appliocation to temp folder"));
            DDLogInfo(QStringLiteral("Unable to copy old app"));
            self->patchFailed(log, completion);
        });
        return;
    }
    bool ready = ZELUpdaterApplyPatch(oldPath, patchedPath, payload, log);
    if (ready && !isTrusted(patchedPath)) {
        appendEntry(log, QStringLiteral("failed with code signing error"));
        DDLogInfo(QStringLiteral("patch failed with codesigning error"));
        ready = false;
    }
    onMainQueue([=] {
        if (ready)
            report(completion, Succeeded, patchedPath);
        else
            self->patchFailed(log, completion);
    });
}

void UpdateInstaller::patchFailed(const QVariantList &log, const ZELInstallCompletion &completion)
{
    if (m_hooks.handleLog)
        m_hooks.handleLog(log);
    report(completion, PatchFailed);
}

void UpdateInstaller::downloadFullUpdate(ZELDownloadCompletion completion)
{
    DDLogInfo(QStringLiteral("Attempting to download full update after patch failure"));
    {
        const std::lock_guard lock(m_mutex);
        m_update.remove(QStringLiteral("patch"));
    }
    downloadUpdate(completion);
}

void UpdateInstaller::cleanup()
{
    removeTree(settings().stagingRoot);
}

} // namespace zel

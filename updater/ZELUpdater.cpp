// The controller is thin on purpose: each method names the unit that does its work (the check, the
// installation, the seal) and hands it what it needs of the configuration, read anew at each call. What an
// update in flight was given stays as it was; only the upload of a log reads the configuration late, as the
// host has it by then.
//
// The one updater is never destroyed: its threads and callbacks may outlive the application object, and an
// object that is gone by then would be a trap. What belongs to the application, the window and its pages,
// goes with it (`dropViews`).
#include "ZELUpdater.h"

#include "check/UpdateCheck.h"
#include "install/ArchiveExtractor.h"
#include "install/PartialDownload.h"
#include "install/StagingFolder.h"
#include "install/UpdateInstaller.h"
#include "net/URLSession.h"
#include "platform/Queues.h"
#include "platform/SystemFacts.h"
#include "ui/NotesView.h"
#include "ui/Texts.h"
#include "ZELUpdaterViews.h"

#include <QCoreApplication>
#include <QThread>

#include <atomic>

ZELUpdater *ZELUpdater::shared()
{
    static std::atomic<ZELUpdater *> updater;
    auto *application = QCoreApplication::instance();
    if (updater.load())
        return updater.load();
    // Widgets belong to the main thread, and so does the updater; no lock is held while waiting for it.
    if (!application || application->thread() == QThread::currentThread())
        updater = new ZELUpdater;
    else
        QMetaObject::invokeMethod(
            application, [] { shared(); }, Qt::BlockingQueuedConnection);
    return updater.load();
}

ZELUpdater::ZELUpdater()
    : m_installer(zel::UpdateInstaller::create(
        {.handleLog = [this](const QVariantList &log) { handleLog(log); },
         .preparing = [this] { zel::onMainQueue([this] { showPreparing(); }); },
         .progress = [this](qint64 received, qint64 expected) { showProgress(received, expected); }}))
{
    makeViews();
}

ZELUpdater::~ZELUpdater() = default;

QString ZELUpdater::modelIdentifier()
{
    return zel::modelIdentifier();
}

bool ZELUpdater::isArchSupported(const QString &arch)
{
    return zel::isArchSupported(arch, zel::MachineFacts::current());
}

QString ZELUpdater::descriptionForStatus(qint64 status)
{
    return zel::descriptionForStatus(status);
}

QString ZELUpdater::descriptionForDownloadStatus(qint64 status)
{
    return zel::descriptionForDownloadStatus(status);
}

QVariantMap ZELUpdater::update() const
{
    return m_installer->update();
}

void ZELUpdater::setUpdate(const QVariantMap &update)
{
    m_installer->setUpdate(update);
}

std::shared_ptr<ZELURLSessionTask> ZELUpdater::task() const
{
    return m_installer->task();
}

void ZELUpdater::setTask(const std::shared_ptr<ZELURLSessionTask> &task)
{
    m_installer->setTask(task);
}

QString ZELUpdater::temporaryDirectory() const
{
    return m_installer->temporaryDirectory();
}

void ZELUpdater::setTemporaryDirectory(const QString &directory)
{
    m_installer->setTemporaryDirectory(directory);
}

QWebEngineView *ZELUpdater::webview() const
{
    if (m_webview)
        return zel::asWebView(m_webview);
    return m_historyPage ? m_historyPage->webview() : nullptr;
}

void ZELUpdater::setWebview(QWebEngineView *view)
{
    m_webview = zel::asObject(view);
}

void ZELUpdater::handleLog(const QVariantList &log)
{
    zel::uploadPatchLog(zel::HostConfig::fromMap(shared()->config()), log);
}

void ZELUpdater::downloadUpdate(ZELDownloadCompletion completion)
{
    prepareInstaller();
    m_installer->downloadUpdate(completion);
}

void ZELUpdater::observeValueForKeyPath(const QString &keyPath)
{
    zel::onMainQueue([this, keyPath] {
        const auto running = task();
        if (running && keyPath == QLatin1String("countOfBytesReceived"))
            showProgress(running->countOfBytesReceived(), running->countOfBytesExpectedToReceive());
    });
}

void ZELUpdater::extractFile(const QString &file, const QString &directory, ZELExtractCompletion completion)
{
    zel::extractArchive(file, directory, completion);
}

void ZELUpdater::handleUpdate(const QString &payload, ZELInstallCompletion completion)
{
    prepareInstaller();
    m_installer->handleUpdate(payload, completion);
}

void ZELUpdater::handlePatch(const QString &payload, ZELInstallCompletion completion)
{
    prepareInstaller();
    m_installer->handlePatch(payload, completion);
}

void ZELUpdater::downloadFullUpdate(ZELDownloadCompletion completion)
{
    prepareInstaller();
    m_installer->downloadFullUpdate(completion);
}

void ZELUpdater::cleanup()
{
    prepareInstaller();
    m_installer->cleanup();
}

void ZELUpdater::prepareInstaller()
{
    const zel::HostConfig config = zel::HostConfig::fromMap(m_config);
    m_installer->setSettings({.installedBundle = config.path,
                              .stagingRoot = zel::stagingRoot(),
                              .policy = zel::recordPolicy(config),
                              .downloadRoot = zel::downloadRoot()});
}

void ZELUpdater::showPreparing()
{
    if (m_progressText)
        m_progressText->setText(zel::localized("Updater.Preparing update"));
}

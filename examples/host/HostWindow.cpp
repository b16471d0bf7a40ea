#include "HostWindow.h"

#include "BundleSwap.h"

#include <ZELUpdater/ZELUpdater.h>
#include <ZELUpdater/ZELUpdaterWindow.h>

#include <QApplication>
#include <QFileInfo>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QPointer>
#include <QProcess>
#include <QSettings>
#include <QTimer>

#include <chrono>
#include <fcntl.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

const QString SkippedBuild = QStringLiteral("skippedBuild");
const QString LatestIssued = QStringLiteral("latestIssued");

QVariant offeredBuild(const QVariantMap &result)
{
    return result[QStringLiteral("update")].toMap()[QStringLiteral("build")];
}

// Whatever comes of the check: from now on older records are refused.
void keepIssued(const QVariantMap &result)
{
    const QVariant issued = result[QStringLiteral("issued")];
    if (issued.toLongLong() <= QSettings().value(LatestIssued).toLongLong())
        return;
    QSettings().setValue(LatestIssued, issued);
    QVariantMap config = ZELUpdater::shared()->config();
    config[QStringLiteral("issued")] = issued;
    ZELUpdater::shared()->setConfig(config);
}

} // namespace

HostWindow::HostWindow(const QString &bundle, const QString &url)
    : m_bundle(bundle)
{
    setWindowTitle(QStringLiteral("Example — build %1").arg(HOST_BUILD));
    setCentralWidget(new QLabel(QStringLiteral("<h2>Example</h2>This is build %1.").arg(HOST_BUILD)));
    centralWidget()->setContentsMargins(40, 20, 40, 20);
    menuBar()->addMenu(tr("&Help"))->addAction(tr("Check for Updates…"), this, &HostWindow::checkForUpdates);

    ZELUpdater *updater = ZELUpdater::shared();
    updater->setConfig({{QStringLiteral("url"), url},
                        {QStringLiteral("build"), HOST_BUILD},
                        {QStringLiteral("version"), QStringLiteral("1.%1").arg(HOST_BUILD - 100)},
                        {QStringLiteral("path"), bundle},
                        {QStringLiteral("signers"), QStringLiteral("installed")},
                        {QStringLiteral("issued"), QSettings().value(LatestIssued)}});
    updater->setIcon(QImage(bundle + QStringLiteral("/Contents/Resources/icon.png")));
    updater->setOnCancel([this] { dismissed(); });
    updater->setOnRetry([this] { checkForUpdates(); });

    // The first start of a new build: what came before it, and what it was made of, can go.
    if (dropPreviousBundle(bundle.toStdString()))
        updater->cleanup();
}

void HostWindow::checkForUpdates()
{
    ZELUpdater *updater = ZELUpdater::shared();
    if (m_isDownloading) { // a check would take the place of the download
        updater->window()->makeKeyAndOrderFront();
        return;
    }
    updater->checkForUpdates(
        [this, updater, attempt = ++m_attempt](qint64 status, const QVariantMap &result, const QVariant &) {
            keepIssued(result);
            if (attempt != m_attempt)
                return;
            if (status == ZELStatusUpdateAvailable)
                found(result);
            else if (status == ZELStatusNoUpdates)
                updater->showNoUpdates();
            else
                updater->showErrorPage();
        });
}

void HostWindow::checkInBackground()
{
    if (m_isDownloading)
        return;
    ZELUpdater::checkForUpdates(
        ZELUpdater::shared()->config(),
        [this, attempt = ++m_attempt](qint64 status, const QVariantMap &result, const QVariant &) {
            keepIssued(result);
            const QVariant skipped = QSettings().value(SkippedBuild);
            if (attempt == m_attempt && status == ZELStatusUpdateAvailable
                && offeredBuild(result).toLongLong() != skipped.toLongLong())
                found(result);
        });
}

void HostWindow::found(const QVariantMap &result)
{
    ZELUpdater *updater = ZELUpdater::shared();
    updater->setUpdate(result);
    updater->showUpdate([this](qint64 choice) { chosen(choice); });
    if (updater->window()->isSeen())
        return;
    // After a check in the background the page fetches its notes first, and comes half a second later.
    QTimer::singleShot(600ms, this, [updater] {
        updater->window()->center();
        updater->window()->makeKeyAndOrderFront();
    });
}

void HostWindow::chosen(qint64 choice)
{
    ZELUpdater *updater = ZELUpdater::shared();
    if (choice == ZELChoiceSkip)
        QSettings().setValue(SkippedBuild, offeredBuild(updater->update()));
    if (choice != ZELChoiceInstall) {
        dismissed();
        return;
    }
    if (const std::error_code error = swapObstacle(m_bundle.toStdString())) {
        dismissed();
        QMessageBox::information(
            this, windowTitle(),
            tr("The update cannot be installed in %1: %2.")
                .arg(QFileInfo(m_bundle).path(), QString::fromStdString(error.message())));
        return;
    }
    m_isDownloading = true;
    // A transfer that fails is reported on another thread, and this window may be gone by then.
    updater->downloadUpdate(
        [self = QPointer(this), attempt = ++m_attempt](qint64 status, const QString &path) {
            QMetaObject::invokeMethod(qApp, [=] {
                if (self && attempt == self->m_attempt)
                    self->downloaded(status, path);
            });
        });
}

void HostWindow::downloaded(qint64 status, const QString &newBundle)
{
    m_isDownloading = false;
    if (status != ZELDownloadSucceeded) {
        ZELUpdater::shared()->showErrorPage();
        return;
    }
    if (const std::error_code error = swapBundles(newBundle.toStdString(), m_bundle.toStdString())) {
        qWarning("The update could not be installed in %s: %s", qPrintable(m_bundle),
                 error.message().c_str());
        ZELUpdater::shared()->showErrorPage();
        return;
    }
    installed();
}

// From here on checks start from the new build: it is not offered again when the user goes on working with
// the old one.
void HostWindow::installed()
{
    ZELUpdater *updater = ZELUpdater::shared();
    QVariantMap config = updater->config();
    for (const QString &key : {QStringLiteral("build"), QStringLiteral("version")})
        config[key] = updater->update()[QStringLiteral("update")].toMap()[key];
    updater->setConfig(config);
    m_isReplaced = true;
    updater->showUpdated();
}

void HostWindow::dismissed()
{
    ++m_attempt;
    m_isDownloading = false;
    ZELUpdater::shared()->window()->hide();
    if (m_isReplaced)
        relaunch();
}

// Ends this build. The new one waits for the end of a pipe that this process holds open, so that two never
// run at once, also when closing takes long or the user is asked to save.
void HostWindow::relaunch()
{
    const QString program = m_bundle + QStringLiteral("/Contents/MacOS/host");
    int pipe[2];
    if (!QFileInfo(program).isExecutable() || pipe2(pipe, O_CLOEXEC) != 0) {
        QMessageBox::information(this, windowTitle(),
                                 tr("The new version is installed. Please start it yourself."));
        return;
    }
    QProcess successor;
    successor.setProgram(QStringLiteral("/bin/sh"));
    successor.setArguments(QStringList{QStringLiteral("-c"), QStringLiteral("cat; exec \"$@\" </dev/null"),
                                       QStringLiteral("sh"), program}
                           + QApplication::arguments().mid(1));
    successor.setStandardInputFile(QStringLiteral("/proc/self/fd/%1").arg(pipe[0]));
    const bool isStarted = successor.startDetached();
    ::close(pipe[0]);
    m_isReplaced = !isStarted; // the successor waits: once is enough
    if (isStarted)
        QApplication::quit();
}

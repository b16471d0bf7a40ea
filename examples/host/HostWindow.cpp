#include "HostWindow.h"

#include "BundleSwap.h"

#include <ZELUpdater/ZELUpdater.h>
#include <ZELUpdater/ZELUpdaterWindow.h>

#include <QApplication>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QPointer>
#include <QProcess>
#include <QSettings>
#include <QTimer>

#include <chrono>

using namespace std::chrono_literals;

namespace {

enum Status : qint64 { UpdateAvailable = 1, NoUpdates = 2 };
enum Choice : qint64 { Later = 0, Skip = 1, Install = 2 };
constexpr qint64 DownloadSuccess = 1;
const QString SkippedBuild = QStringLiteral("skippedBuild");

QVariant offeredBuild(const QVariantMap &result)
{
    return result[QStringLiteral("update")].toMap()[QStringLiteral("build")];
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
                        {QStringLiteral("path"), bundle}});
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
    updater->checkForUpdates(
        [this, updater, attempt = ++m_attempt](qint64 status, const QVariantMap &result, const QVariant &) {
            if (attempt != m_attempt)
                return;
            if (status == UpdateAvailable)
                found(result);
            else if (status == NoUpdates)
                updater->showNoUpdates();
            else
                updater->showErrorPage();
        });
}

void HostWindow::checkInBackground()
{
    ZELUpdater::checkForUpdates(
        ZELUpdater::shared()->config(),
        [this, attempt = ++m_attempt](qint64 status, const QVariantMap &result, const QVariant &) {
            const QVariant skipped = QSettings().value(SkippedBuild);
            if (attempt == m_attempt && status == UpdateAvailable
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
    if (choice == Skip)
        QSettings().setValue(SkippedBuild, offeredBuild(updater->update()));
    if (choice != Install) {
        dismissed();
        return;
    }
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
    if (status != DownloadSuccess) {
        ZELUpdater::shared()->showErrorPage();
        return;
    }
    if (const std::error_code error = swapBundles(newBundle.toStdString(), m_bundle.toStdString())) {
        qWarning("The update could not be installed in %s: %s", qPrintable(m_bundle),
                 error.message().c_str());
        ZELUpdater::shared()->showErrorPage();
        return;
    }
    m_isReplaced = true;
    ZELUpdater::shared()->showUpdated();
}

void HostWindow::dismissed()
{
    ++m_attempt;
    ZELUpdater::shared()->window()->hide();
    if (m_isReplaced)
        relaunch();
}

void HostWindow::relaunch()
{
    QStringList arguments = QApplication::arguments();
    arguments.removeFirst();
    if (QProcess::startDetached(m_bundle + QStringLiteral("/Contents/MacOS/host"), arguments))
        QApplication::quit();
    else
        QMessageBox::information(this, windowTitle(),
                                 tr("The new version is installed. Please start it yourself."));
}

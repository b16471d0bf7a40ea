// The updater: one object that checks for updates, shows them in its window, and downloads and builds the new
// bundle. Start reading here; docs/host-guide.md explains how a host uses it.
#pragma once

#include <ZELUpdater/ZELCompletions.h>
#include <ZELUpdater/ZELExport.h>
#include <ZELUpdater/ZELUpdaterTypes.h>
#include <ZELUpdater/ZELURLSessionTask.h>

#include <QImage>
#include <QLabel>
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QVariantMap>

#include <functional>
#include <memory>

class QWebEngineView;
class ZELUpdaterButton;
class ZELUpdaterCheckingPage;
class ZELUpdaterDownloadPage;
class ZELUpdaterErrorPage;
class ZELUpdaterHistoryPage;
class ZELUpdaterNoUpdatesPage;
class ZELUpdaterProgressView;
class ZELUpdaterUpdatedPage;
class ZELUpdaterView;
class ZELUpdaterWindow;

namespace zel {
class UpdateInstaller;
struct UpdaterViews;
} // namespace zel

/// The updater. It belongs to the main thread: every function is called there, and every callback comes
/// there, where nothing else is said. It needs an application object with a running event loop. A
/// QCoreApplication is enough for background checks and downloads; there is no window then: its properties
/// are null, and what would show something does nothing.
///
/// Results are the host's to act on: the updater shows a page when it is told to, and never hides its window,
/// replaces the installed bundle or relaunches it.
class ZEL_EXPORT ZELUpdater : public QObject
{
    Q_OBJECT
    Q_MOC_INCLUDE("updater/PropertyTypes.h")
    Q_PROPERTY(ZELUpdaterWindow *window READ window WRITE setWindow)
    Q_PROPERTY(QWidget *currentPage READ currentPage WRITE setCurrentPage)
    Q_PROPERTY(ZELUpdaterButton *actionButton READ actionButton WRITE setActionButton)
    Q_PROPERTY(ZELUpdaterButton *actionButton2 READ actionButton2 WRITE setActionButton2)
    Q_PROPERTY(ZELUpdaterCheckingPage *checkingPage READ checkingPage WRITE setCheckingPage)
    Q_PROPERTY(ZELUpdaterHistoryPage *historyPage READ historyPage WRITE setHistoryPage)
    Q_PROPERTY(ZELUpdaterDownloadPage *downloadPage READ downloadPage WRITE setDownloadPage)
    Q_PROPERTY(ZELUpdaterErrorPage *errorPage READ errorPage WRITE setErrorPage)
    Q_PROPERTY(ZELUpdaterNoUpdatesPage *noUpdatesPage READ noUpdatesPage WRITE setNoUpdatesPage)
    Q_PROPERTY(ZELUpdaterUpdatedPage *updatedPage READ updatedPage WRITE setUpdatedPage)
    Q_PROPERTY(std::function<void()> onCancel READ onCancel WRITE setOnCancel)
    Q_PROPERTY(std::function<void()> onRetry READ onRetry WRITE setOnRetry)
    Q_PROPERTY(std::shared_ptr<ZELURLSessionTask> task READ task WRITE setTask)
    Q_PROPERTY(QString temporaryDirectory READ temporaryDirectory WRITE setTemporaryDirectory)
    Q_PROPERTY(QTimer *checkingTimer READ checkingTimer WRITE setCheckingTimer)
    Q_PROPERTY(ZELUpdaterButton *updateWindowDownloadButton READ updateWindowDownloadButton WRITE
                   setUpdateWindowDownloadButton)
    Q_PROPERTY(ZELUpdaterButton *updateWindowRemindButton READ updateWindowRemindButton WRITE
                   setUpdateWindowRemindButton)
    Q_PROPERTY(
        ZELUpdaterButton *updateWindowSkipButton READ updateWindowSkipButton WRITE setUpdateWindowSkipButton)
    Q_PROPERTY(ZELUpdaterButton *checkingCancelButton READ checkingCancelButton WRITE setCheckingCancelButton)
    Q_PROPERTY(ZELUpdaterView *historyView READ historyView WRITE setHistoryView)
    Q_PROPERTY(ZELUpdaterView *downloadView READ downloadView WRITE setDownloadView)
    Q_PROPERTY(QWidget *checkingView READ checkingView WRITE setCheckingView)
    Q_PROPERTY(
        ZELUpdaterProgressView *checkingProgressView READ checkingProgressView WRITE setCheckingProgressView)
    Q_PROPERTY(ZELUpdaterProgressView *progressView READ progressView WRITE setProgressView)
    Q_PROPERTY(ZELUpdaterButton *progressButton READ progressButton WRITE setProgressButton)
    Q_PROPERTY(QLabel *progressText READ progressText WRITE setProgressText)
    Q_PROPERTY(QVariantMap config READ config WRITE setConfig)
    Q_PROPERTY(QVariantMap update READ update WRITE setUpdate)
    Q_PROPERTY(QWebEngineView *webview READ webview WRITE setWebview)
public:
    /// The one updater, made at the first call, which must come after the application object was made. Safe
    /// from any thread; a first call from another thread than the main one waits for the main thread.
    static ZELUpdater *shared();

    /// The hardware's model; null where the machine does not say. Safe from any thread.
    static QString modelIdentifier();

    /// Whether an update record for `arch` suits this build: its own word ("x86", "arm") or "all", exactly.
    /// Safe from any thread.
    static bool isArchSupported(const QString &arch);

    /// The fixed English text of a `ZELStatus`: "Unknown Error" for a code without one. Safe from any
    /// thread.
    static QString descriptionForStatus(qint64 status);

    /// The fixed English text of a `ZELDownloadStatus`: "Download Failed" for a code without one. Safe from
    /// any thread.
    static QString descriptionForDownloadStatus(qint64 status);

    // The check

    /// Checks in the background with a configuration of its own: it needs no updater, shows nothing and
    /// changes no property. The keys are "url", "build", "beta" and "path". `completion` is called once, with
    /// one of the first three `ZELStatus`, and a check result where there is an update. Safe from any thread.
    static void checkForUpdates(const QVariantMap &config, ZELCheckCompletion completion);

    /// Checks as the configuration says, and clears `update` first. In mode 0 it shows the checking page,
    /// brings the window forward unless "sheet" or "hidechecking" is there, and loads a found update's
    /// release notes into the release-notes page and under "html" into the check result. `completion` as
    /// above.
    void checkForUpdates(ZELCheckCompletion completion);

    /// Fetches the release notes of a check result; null when no answer came.
    void downloadHistory(const QVariantMap &result, std::function<void(const QByteArray &)> completion);

    // The offer

    /// Shows the release notes of `update` with Install, Skip and Later. `choice`, which may be empty, is
    /// called with a `ZELChoice`: for Install once the download page is shown.
    void showUpdate(std::function<void(qint64)> choice);

    /// Uploads the log of a failed patch, with the configuration of the shared updater. Nothing tells how
    /// that went.
    void handleLog(const QVariantList &log);

    // Download and installation

    /// Downloads and builds what `update` offers. `completion` is called once, on the main thread but for a
    /// failed transfer, which is reported on the thread of its session: `ZELDownloadSucceeded` and the path
    /// of the new bundle, `ZELDownloadFailed`, or `ZELDownloadExtractionFailed` for an archive without a good
    /// bundle. It is not called for a cancelled download. A patch that is wrong or fails is followed by a
    /// download of the full archive.
    void downloadUpdate(ZELDownloadCompletion completion);

    /// Writes the download's progress into the download page when `keyPath` is "countOfBytesReceived". Safe
    /// from any thread.
    void observeValueForKeyPath(const QString &keyPath);

    /// Extracts a zip archive into a folder and finds the bundle in it, on the calling thread, which waits
    /// meanwhile.
    void extractFile(const QString &file, const QString &directory, ZELExtractCompletion completion);

    /// Extracts a full archive into `temporaryDirectory`, on the calling thread: `ZELDownloadSucceeded` and
    /// the bundle's path, null when there is none; or `ZELDownloadExtractionFailed`, after removing all
    /// staging folders that are not in use.
    void handleUpdate(const QString &payload, ZELInstallCompletion completion);

    /// Applies a bundle patch to a copy of the installed bundle, in `temporaryDirectory`, on another thread,
    /// and checks the result's seal: `ZELDownloadSucceeded` and its path; or `ZELDownloadPatchFailed`, after
    /// uploading the log.
    void handlePatch(const QString &payload, ZELInstallCompletion completion);

    /// Drops the patch from `update` and downloads the full archive.
    void downloadFullUpdate(ZELDownloadCompletion completion);

    /// Removes the staging folders with the bundles that were built for this process, and all others that
    /// nobody uses; an update in flight keeps its own. Errors are ignored.
    void cleanup();

    // The window

    /// The application's icon, shown on every page but the release notes; a null image clears it.
    void setIcon(const QImage &icon);

    /// Each of these takes the current page out of the window, puts its own in and resizes the window around
    /// its centre. The window is not shown by that.
    void showCheckingView();
    void showDownloadPage();
    void showErrorPage();
    void showNoUpdates();
    void showUpdated();

    // Properties. The setters only store what they are given; the updater owns none of it, and a view must
    // stay until another one, or null, is set. A page that is null is not shown. What the updater makes
    // itself is gone once the application object is: the getters return null from then on.

    /// The updater's window.
    ZELUpdaterWindow *window() const { return m_window; }
    void setWindow(ZELUpdaterWindow *window) { m_window = window; }

    /// The page in the window; null before the first.
    QWidget *currentPage() const { return m_currentPage; }
    void setCurrentPage(QWidget *page) { m_currentPage = page; }

    ZELUpdaterCheckingPage *checkingPage() const { return m_checkingPage; }
    void setCheckingPage(ZELUpdaterCheckingPage *page) { m_checkingPage = page; }

    ZELUpdaterHistoryPage *historyPage() const { return m_historyPage; }
    void setHistoryPage(ZELUpdaterHistoryPage *page) { m_historyPage = page; }

    ZELUpdaterDownloadPage *downloadPage() const { return m_downloadPage; }
    void setDownloadPage(ZELUpdaterDownloadPage *page) { m_downloadPage = page; }

    ZELUpdaterErrorPage *errorPage() const { return m_errorPage; }
    void setErrorPage(ZELUpdaterErrorPage *page) { m_errorPage = page; }

    ZELUpdaterNoUpdatesPage *noUpdatesPage() const { return m_noUpdatesPage; }
    void setNoUpdatesPage(ZELUpdaterNoUpdatesPage *page) { m_noUpdatesPage = page; }

    ZELUpdaterUpdatedPage *updatedPage() const { return m_updatedPage; }
    void setUpdatedPage(ZELUpdaterUpdatedPage *page) { m_updatedPage = page; }

    /// The web view of the release notes: one that was set, as long as it exists, else the release-notes
    /// page's own, null until there was something to show in it.
    QWebEngineView *webview() const;
    void setWebview(QWebEngineView *view);

    /// Called when the user dismisses or cancels; the host decides what happens then.
    std::function<void()> onCancel() const { return m_onCancel; }
    void setOnCancel(std::function<void()> callback) { m_onCancel = std::move(callback); }

    /// Called by the error page's Retry.
    std::function<void()> onRetry() const { return m_onRetry; }
    void setOnRetry(std::function<void()> callback) { m_onRetry = std::move(callback); }

    /// The host's settings; docs/host-guide.md lists the keys. Empty before the host sets it.
    QVariantMap config() const { return m_config; }
    void setConfig(const QVariantMap &config) { m_config = config; }

    /// The check result that is offered: "update" and, where there is one, "patch"; "html" with the release
    /// notes. Empty stands for none.
    QVariantMap update() const;
    void setUpdate(const QVariantMap &update);

    /// The running or last download, which the download page's Cancel cancels; a host without the window
    /// cancels and watches it here. Null before the first.
    std::shared_ptr<ZELURLSessionTask> task() const;
    void setTask(const std::shared_ptr<ZELURLSessionTask> &task);

    /// The staging folder of the last download.
    QString temporaryDirectory() const;
    void setTemporaryDirectory(const QString &directory);

    // Reserved slots: the updater sets none of them. What it does with those that a host has set is said
    // where it does anything.

    ZELUpdaterButton *actionButton() const { return m_actionButton; }
    void setActionButton(ZELUpdaterButton *button) { m_actionButton = button; }

    ZELUpdaterButton *actionButton2() const { return m_actionButton2; }
    void setActionButton2(ZELUpdaterButton *button) { m_actionButton2 = button; }

    QTimer *checkingTimer() const { return m_checkingTimer; }
    void setCheckingTimer(QTimer *timer) { m_checkingTimer = timer; }

    ZELUpdaterButton *updateWindowDownloadButton() const { return m_updateWindowDownloadButton; }
    void setUpdateWindowDownloadButton(ZELUpdaterButton *button) { m_updateWindowDownloadButton = button; }

    ZELUpdaterButton *updateWindowRemindButton() const { return m_updateWindowRemindButton; }
    void setUpdateWindowRemindButton(ZELUpdaterButton *button) { m_updateWindowRemindButton = button; }

    ZELUpdaterButton *updateWindowSkipButton() const { return m_updateWindowSkipButton; }
    void setUpdateWindowSkipButton(ZELUpdaterButton *button) { m_updateWindowSkipButton = button; }

    ZELUpdaterButton *checkingCancelButton() const { return m_checkingCancelButton; }
    void setCheckingCancelButton(ZELUpdaterButton *button) { m_checkingCancelButton = button; }

    ZELUpdaterView *historyView() const { return m_historyView; }
    void setHistoryView(ZELUpdaterView *view) { m_historyView = view; }

    /// Hidden when the release notes have been shown.
    ZELUpdaterView *downloadView() const { return m_downloadView; }
    void setDownloadView(ZELUpdaterView *view) { m_downloadView = view; }

    QWidget *checkingView() const { return m_checkingView; }
    void setCheckingView(QWidget *view) { m_checkingView = view; }

    ZELUpdaterProgressView *checkingProgressView() const { return m_checkingProgressView; }
    void setCheckingProgressView(ZELUpdaterProgressView *view) { m_checkingProgressView = view; }

    /// Its looping stops when the release notes have been shown.
    ZELUpdaterProgressView *progressView() const { return m_progressView; }
    void setProgressView(ZELUpdaterProgressView *view) { m_progressView = view; }

    ZELUpdaterButton *progressButton() const { return m_progressButton; }
    void setProgressButton(ZELUpdaterButton *button) { m_progressButton = button; }

    /// Told when a patch is about to be applied.
    QLabel *progressText() const { return m_progressText; }
    void setProgressText(QLabel *label) { m_progressText = label; }

private:
    ZELUpdater();
    ~ZELUpdater() override;

    void makeViews();
    void dropViews();
    void wireDismissal();
    void cancel() const;
    bool placePage(QWidget *page);
    void resizeWindow(const QSize &size);
    void recentreWindow(const QSize &size);
    void bringForward();
    void loadNotes(const QVariantMap &result, ZELCheckCompletion completion);
    void showHistoryPage();
    void historyPageShown();
    void showProgress(qint64 received, qint64 expected);
    void showPreparing();
    void prepareInstaller();

    std::unique_ptr<zel::UpdaterViews> m_views;
    const std::shared_ptr<zel::UpdateInstaller> m_installer;
    QVariantMap m_config;
    std::function<void()> m_onCancel;
    std::function<void()> m_onRetry;
    ZELUpdaterWindow *m_window = nullptr;
    QPointer<QWidget> m_currentPage;
    ZELUpdaterCheckingPage *m_checkingPage = nullptr;
    ZELUpdaterHistoryPage *m_historyPage = nullptr;
    ZELUpdaterDownloadPage *m_downloadPage = nullptr;
    ZELUpdaterErrorPage *m_errorPage = nullptr;
    ZELUpdaterNoUpdatesPage *m_noUpdatesPage = nullptr;
    ZELUpdaterUpdatedPage *m_updatedPage = nullptr;
    QPointer<QObject> m_webview;
    ZELUpdaterButton *m_actionButton = nullptr;
    ZELUpdaterButton *m_actionButton2 = nullptr;
    QTimer *m_checkingTimer = nullptr;
    ZELUpdaterButton *m_updateWindowDownloadButton = nullptr;
    ZELUpdaterButton *m_updateWindowRemindButton = nullptr;
    ZELUpdaterButton *m_updateWindowSkipButton = nullptr;
    ZELUpdaterButton *m_checkingCancelButton = nullptr;
    ZELUpdaterView *m_historyView = nullptr;
    ZELUpdaterView *m_downloadView = nullptr;
    QWidget *m_checkingView = nullptr;
    ZELUpdaterProgressView *m_checkingProgressView = nullptr;
    ZELUpdaterProgressView *m_progressView = nullptr;
    ZELUpdaterButton *m_progressButton = nullptr;
    QLabel *m_progressText = nullptr;
};

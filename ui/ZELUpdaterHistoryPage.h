// The page that offers an update: its release notes, and Install, Skip and Later.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QByteArray>
#include <QPointer>
#include <QUrl>
#include <QVariantMap>
#include <QWidget>

#include <memory>

class QLabel;
class QWebEngineView;
class ZELUpdaterButton;

/// Builds its buttons once, as its children; the setters only name another one, which the page does not own.
/// Main thread only.
///
/// The web view is made when it is first given something to show: only then the web engine is loaded, from
/// the library's module. An application that was made before this library was loaded must have set
/// Qt::AA_ShareOpenGLContexts.
///
/// Where there are no notes the page shows what is offered instead, the application's name and the version:
/// when the release has none, until they are there and when they cannot be had, and where the module is
/// missing or the web engine would end the process (as the superuser with its sandbox on, without its program
/// or its resources): it is not started there.
///
/// The page's upper edge moves the window; a click there reaches the notes all the same.
class ZEL_EXPORT ZELUpdaterHistoryPage : public QWidget
{
    Q_OBJECT
public:
    explicit ZELUpdaterHistoryPage(QWidget *parent = nullptr);
    ~ZELUpdaterHistoryPage() override;

    /// The view that was set, as long as it exists, else the page's own: null before there was anything to
    /// show and where there is no web engine. Its user agent is "corrand". A link that the user activates
    /// opens the system's handler (http, https and mailto only) and leaves the page where it is; nothing else
    /// of the notes leaves it, no script of theirs runs, and they reach neither files nor this machine's
    /// network. ui/NotesView.h has the whole of it.
    QWebEngineView *webview() const;

    /// Names another view, which the page neither owns nor fills.
    void setWebview(QWebEngineView *webview);

    ZELUpdaterButton *downloadButton() const { return m_downloadButton; }
    void setDownloadButton(ZELUpdaterButton *downloadButton) { m_downloadButton = downloadButton; }

    ZELUpdaterButton *skipButton() const { return m_skipButton; }
    void setSkipButton(ZELUpdaterButton *skipButton) { m_skipButton = skipButton; }

    ZELUpdaterButton *laterButton() const { return m_laterButton; }
    void setLaterButton(ZELUpdaterButton *laterButton) { m_laterButton = laterButton; }

    /// Shows what a POST of `body` to `url` brings.
    void loadURL(const QUrl &url, const QByteArray &body);

    /// Shows a document in UTF-8, of any length; an empty page when it is null or not valid UTF-8.
    void loadHTML(const QByteArray &html);

    /// Takes the three buttons out, puts them back and lays them out: Later, Skip, Install, which is also the
    /// order in which Tab leads from the notes to them. Of the check result `update` only the version is
    /// used, for an offer without notes.
    void updateButtons(const QVariantMap &update);

protected:
    void focusInEvent(QFocusEvent *event) override;

private:
    struct Notes;
    Notes *notes();

    std::unique_ptr<Notes> m_notes; // null until there is a web view
    QPointer<QObject> m_webview; // one that was set from outside
    QWidget *m_summary; // over the notes until there is something to see in them
    QLabel *m_version;
    ZELUpdaterButton *m_downloadButton = nullptr;
    ZELUpdaterButton *m_skipButton = nullptr;
    ZELUpdaterButton *m_laterButton = nullptr;
};

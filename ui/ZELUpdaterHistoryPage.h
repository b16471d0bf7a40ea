// The page that offers an update: its release notes, and Install, Skip and Later.
#pragma once

#include "ZELExport.h"

#include <QByteArray>
#include <QUrl>
#include <QVariantMap>
#include <QWidget>

#include <memory>

class QWebEngineView;
class ZELUpdaterButton;

namespace zel {
class NotesView;
}

/// Builds its buttons once, as its children; the setters only name another one, which the page does not own. Main
/// thread only.
///
/// The web view is made when it is first asked for or given something to show: only then the web engine is loaded,
/// from the library's module. An application that was made before this library was loaded must have set
/// Qt::AA_ShareOpenGLContexts. Where the module is missing the page has no notes and works otherwise.
class ZEL_EXPORT ZELUpdaterHistoryPage : public QWidget
{
    Q_OBJECT
public:
    explicit ZELUpdaterHistoryPage(QWidget *parent = nullptr);
    ~ZELUpdaterHistoryPage() override;

    /// The web view; null where it cannot be made. Its user agent is "corrand". A click on a link opens the system's
    /// handler (http, https and mailto only) and leaves the page where it is; the notes get no files, windows,
    /// dialogs of scripts, downloads or permissions, and nothing of them is stored.
    QWebEngineView *webview();
    void setWebview(QWebEngineView *webview);

    ZELUpdaterButton *downloadButton() const { return m_downloadButton; }
    void setDownloadButton(ZELUpdaterButton *downloadButton) { m_downloadButton = downloadButton; }

    ZELUpdaterButton *skipButton() const { return m_skipButton; }
    void setSkipButton(ZELUpdaterButton *skipButton) { m_skipButton = skipButton; }

    ZELUpdaterButton *laterButton() const { return m_laterButton; }
    void setLaterButton(ZELUpdaterButton *laterButton) { m_laterButton = laterButton; }

    /// Shows what a POST of `body` to `url` brings; nothing special when it fails.
    void loadURL(const QUrl &url, const QByteArray &body);

    /// Shows a document in UTF-8, of any length; an empty page when it is null or not valid UTF-8.
    void loadHTML(const QByteArray &html);

    /// Takes the three buttons out, puts them back and lays them out: Later, Skip, Install. The check result is not
    /// consulted.
    void updateButtons(const QVariantMap &update);

private:
    zel::NotesView *notes();

    std::unique_ptr<zel::NotesView> m_notes;
    QWebEngineView *m_webview = nullptr; // one that was set from outside
    ZELUpdaterButton *m_downloadButton = nullptr;
    ZELUpdaterButton *m_skipButton = nullptr;
    ZELUpdaterButton *m_laterButton = nullptr;
};

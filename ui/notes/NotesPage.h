// What the release notes may do.
#pragma once

#include <QWebEnginePage>

class QWebEngineNewWindowRequest;

namespace zel {

class NotesProfile;

/// A page that stays where it is. A link that the user activates goes to the system's handler; no script of
/// the page runs, no form is sent, no frame is loaded; and nothing that asks for a window, a dialog, a file,
/// a device or a permission gets it.
class NotesPage : public QWebEnginePage
{
public:
    explicit NotesPage(NotesProfile &profile);

    /// Shows what comes from `request`, or the document `html`. Nothing else ever changes what is shown.
    void open(const QWebEngineHttpRequest &request);
    void open(const QString &html);

    /// Whether nothing has come yet of what was opened last.
    bool isAwaited() const { return m_isAwaited; }

protected:
    bool acceptNavigationRequest(const QUrl &url, NavigationType type, bool isMainFrame) override;
    QStringList chooseFiles(FileSelectionMode mode, const QStringList &oldFiles,
                            const QStringList &acceptedMimeTypes) override;
    void javaScriptConsoleMessage(JavaScriptConsoleMessageLevel level, const QString &message, int line,
                                  const QString &source) override;

private:
    void begin(const QUrl &address);
    bool isExpected(const QUrl &url, NavigationType type);
    void openNewWindowOutside(const QWebEngineNewWindowRequest &request);

    NotesProfile &m_profile;
    bool m_isAwaited = false; // from `open` until its document begins
};

} // namespace zel

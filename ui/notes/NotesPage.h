// What the release notes may do.
#pragma once

#include <QWebEnginePage>

class QWebEngineNewWindowRequest;

namespace zel {

/// A page that stays where it is: links go to the system's handler, and nothing that asks for a window, a script's
/// dialog, a file, a device or a permission gets it.
class NotesPage : public QWebEnginePage
{
public:
    NotesPage(QWebEngineProfile *profile, QObject *parent);

protected:
    bool acceptNavigationRequest(const QUrl &url, NavigationType type, bool isMainFrame) override;
    QStringList chooseFiles(FileSelectionMode mode, const QStringList &oldFiles,
                            const QStringList &acceptedMimeTypes) override;
    void javaScriptAlert(const QUrl &securityOrigin, const QString &message) override;
    bool javaScriptConfirm(const QUrl &securityOrigin, const QString &message) override;
    bool javaScriptPrompt(const QUrl &securityOrigin, const QString &message, const QString &defaultValue,
                          QString *result) override;
    void javaScriptConsoleMessage(JavaScriptConsoleMessageLevel level, const QString &message, int line,
                                  const QString &source) override;

private:
    void openNewWindowOutside(const QWebEngineNewWindowRequest &request);
};

} // namespace zel

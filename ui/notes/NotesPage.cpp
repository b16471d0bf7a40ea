#include "NotesPage.h"

#include "NotesProfile.h"

#include <QColor>
#include <QDesktopServices>
#include <QWebEngineNewWindowRequest>
#include <QWebEngineSettings>

namespace zel {

namespace {

void openOutside(const QUrl &url)
{
    static const QStringList schemes{QStringLiteral("http"), QStringLiteral("https"),
                                     QStringLiteral("mailto")};
    if (schemes.contains(url.scheme()))
        QDesktopServices::openUrl(url);
}

} // namespace

NotesPage::NotesPage(QWebEngineProfile *profile, QObject *parent)
    : QWebEnginePage(profile, parent)
{
    setBackgroundColor(QColor(Qt::transparent));
    for (const auto attribute :
         {QWebEngineSettings::JavascriptCanOpenWindows, QWebEngineSettings::JavascriptCanAccessClipboard,
          QWebEngineSettings::LocalContentCanAccessFileUrls, QWebEngineSettings::PluginsEnabled,
          QWebEngineSettings::PdfViewerEnabled, QWebEngineSettings::ErrorPageEnabled,
          QWebEngineSettings::NavigateOnDropEnabled, QWebEngineSettings::AutoLoadIconsForPage,
          QWebEngineSettings::FocusOnNavigationEnabled})
        settings()->setAttribute(attribute, false);
    connect(this, &QWebEnginePage::newWindowRequested, this, &NotesPage::openNewWindowOutside);
    connect(this, &QWebEnginePage::featurePermissionRequested, this,
            [this](const QUrl &origin, Feature feature) {
                setFeaturePermission(origin, feature, PermissionDeniedByUser);
            });
}

bool NotesPage::acceptNavigationRequest(const QUrl &url, NavigationType type, bool isMainFrame)
{
    Q_UNUSED(isMainFrame);
    if (type != NavigationTypeLinkClicked)
        return mayBeLoaded(url);
    openOutside(url);
    return false;
}

void NotesPage::openNewWindowOutside(const QWebEngineNewWindowRequest &request)
{
    if (request.isUserInitiated())
        openOutside(request.requestedUrl());
}

QStringList NotesPage::chooseFiles(FileSelectionMode, const QStringList &, const QStringList &)
{
    return {};
}

void NotesPage::javaScriptAlert(const QUrl &, const QString &) { }

bool NotesPage::javaScriptConfirm(const QUrl &, const QString &)
{
    return false;
}

bool NotesPage::javaScriptPrompt(const QUrl &, const QString &, const QString &, QString *)
{
    return false;
}

// The host's log is no place for what a web page prints.
void NotesPage::javaScriptConsoleMessage(JavaScriptConsoleMessageLevel, const QString &, int, const QString &)
{
}

} // namespace zel

// Where a link in the notes is judged. The engine asks by one of two ways, by how the link was activated:
//
// - in place, by a click or Return: `acceptNavigationRequest`, as "link clicked";
// - for another window, by a target, the middle button or a modifier key: `newWindowRequested`, initiated by
//   the user.
//
// Both end in `openOutside`, which lets three schemes pass to the system's handler, and the page stays where
// it is. Any other change of address must be one that `open` began, or a redirection of it before its
// document is there; that is what `isExpected` decides. Scripts are off, so nothing on the page can pretend
// to be the user.
#include "NotesPage.h"

#include "base/SystemCalls.h"
#include "NotesProfile.h"

#include <QColor>
#include <QDesktopServices>
#include <QWebEngineHttpRequest>
#include <QWebEngineLoadingInfo>
#include <QWebEngineNewWindowRequest>
#include <QWebEngineSettings>

#include <unistd.h>

namespace zel {

namespace {

// Called for what the user activated only: without scripts, the engine tells of a clicked link for no other
// reason.
void openOutside(const QUrl &url)
{
    static const QStringList schemes{QStringLiteral("http"), QStringLiteral("https"),
                                     QStringLiteral("mailto")};
    if (schemes.contains(url.scheme()))
        QDesktopServices::openUrl(url);
}

// Ten times what notes take. Without a limit, a document that does not end fills the machine's memory.
constexpr quint64 MemoryOfAPage = quint64(1) << 30;

// The engine may have been told to do without processes of its own.
void limitPage(qint64 process)
{
    if (process > 0 && process != getpid())
        limitMemory(pid_t(process), MemoryOfAPage);
}

} // namespace

NotesPage::NotesPage(NotesProfile &profile)
    : QWebEnginePage(&profile, nullptr)
    , m_profile(profile)
{
    setBackgroundColor(QColor(Qt::transparent));
    for (const auto attribute :
         {QWebEngineSettings::JavascriptEnabled, QWebEngineSettings::LocalContentCanAccessFileUrls,
          QWebEngineSettings::PluginsEnabled, QWebEngineSettings::PdfViewerEnabled,
          QWebEngineSettings::ErrorPageEnabled, QWebEngineSettings::NavigateOnDropEnabled,
          QWebEngineSettings::HyperlinkAuditingEnabled, QWebEngineSettings::DnsPrefetchEnabled,
          QWebEngineSettings::AutoLoadIconsForPage, QWebEngineSettings::FocusOnNavigationEnabled})
        settings()->setAttribute(attribute, false);
    connect(this, &QWebEnginePage::renderProcessPidChanged, this, limitPage);
    connect(this, &QWebEnginePage::newWindowRequested, this, &NotesPage::openNewWindowOutside);
    connect(this, &QWebEnginePage::urlChanged, this, [this] { m_isAwaited = false; });
    connect(this, &QWebEnginePage::loadingChanged, this, [this](const QWebEngineLoadingInfo &loading) {
        m_isAwaited = m_isAwaited && loading.status() != QWebEngineLoadingInfo::LoadSucceededStatus;
    });
    connect(this, &QWebEnginePage::featurePermissionRequested, this,
            [this](const QUrl &origin, Feature feature) {
                setFeaturePermission(origin, feature, PermissionDeniedByUser);
            });
}

void NotesPage::open(const QWebEngineHttpRequest &request)
{
    begin(request.url());
    load(request);
}

void NotesPage::open(const QString &html)
{
    const QUrl address = m_profile.source().setHtml(html);
    begin(address);
    load(address);
}

void NotesPage::begin(const QUrl &address)
{
    m_profile.reach().start(address);
    m_profile.parts().reset();
    m_isAwaited = true;
}

bool NotesPage::acceptNavigationRequest(const QUrl &url, NavigationType type, bool isMainFrame)
{
    if (type == NavigationTypeLinkClicked) {
        openOutside(url);
        return false;
    }
    return isMainFrame && isExpected(url, type);
}

bool NotesPage::isExpected(const QUrl &url, NavigationType type)
{
    if (type == NavigationTypeTyped)
        return NotesSource::isSource(url) || m_profile.reach().allows(url);
    // The server's redirections come before there is a document, a document's own ones after.
    if (type != NavigationTypeRedirect || !m_isAwaited || !m_profile.reach().allows(url))
        return false;
    m_profile.reach().follow(url);
    return true;
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

// The host's log is no place for what a web page brings about.
void NotesPage::javaScriptConsoleMessage(JavaScriptConsoleMessageLevel, const QString &, int, const QString &)
{
}

} // namespace zel

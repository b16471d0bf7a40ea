// The notes come from whoever publishes the application, or from whoever has taken over their server. They
// are fenced in by layers that do not rely on each other: no script of theirs runs (NotesPage.cpp), what the
// engine asks for ends at `NotesFence` unless it is the document or one of four kinds of parts, and each part
// is fetched by NotesReach.cpp rather than by the engine. The profile is off the record, so nothing is left
// on the disk.
//
// The scripts below are the updater's own. They run in a world of their own, where the page cannot see them.
#include "NotesProfile.h"

#include "common/WireValues.h"

#include <QBuffer>
#include <QWebEngineScript>
#include <QWebEngineScriptCollection>
#include <QWebEngineUrlRequestInfo>
#include <QWebEngineUrlRequestJob>
#include <QWebEngineUrlScheme>

namespace zel {

namespace {

constexpr char SourceScheme[] = "zel-notes";

// Text of the notes cannot be selected, and holding it calls up nothing.
constexpr char PlainText[] =
    "var css = '*{-webkit-touch-callout:none;-webkit-user-select:none}'; var head = document.head || "
    "document.getElementsByTagName('head')[0]; var style = document.createElement('style'); style.type = "
    "'text/css'; style.appendChild(document.createTextNode(css)); head.appendChild(style);";

// The window is dark: texts, links and controls without a style of the page are those of the dark scheme. A
// layer gives way to every rule of the page.
constexpr char DarkUnlessStyled[] =
    "var dark = new CSSStyleSheet(); dark.replaceSync('@layer{:where(:root){color-scheme:dark}}');"
    "document.adoptedStyleSheets = [dark];";

// A page that brings a light background of its own, or names its scheme, counts on the dark text that goes
// with it.
constexpr char LightIfThePageIs[] = R"(
    for (const element of [document.body, document.documentElement]) {
        const [red, green, blue, alpha = 1] =
            element ? getComputedStyle(element).backgroundColor.match(/[\d.]+/g).map(Number) : [0, 0, 0, 0];
        if (alpha > 0.5 && 0.3 * red + 0.6 * green + 0.1 * blue > 127)
            document.adoptedStyleSheets = [];
    }
    if (document.querySelector('meta[name=color-scheme]'))
        document.adoptedStyleSheets = [];)";

// A form that opens a window is the one way out that a click on something else than a link would take.
constexpr char NoForms[] =
    "document.addEventListener('submit', event => event.preventDefault(), {capture: true});";

// In a world of its own the updater's scripts run, while the page's scripts do not.
QWebEngineScript script(const char *source, QWebEngineScript::InjectionPoint when, bool inFrames)
{
    QWebEngineScript script;
    script.setInjectionPoint(when);
    script.setRunsOnSubFrames(inFrames);
    script.setWorldId(QWebEngineScript::ApplicationWorld);
    script.setSourceCode(QLatin1String(source));
    return script;
}

QList<QWebEngineScript> scripts()
{
    return {script(DarkUnlessStyled, QWebEngineScript::DocumentCreation, false),
            script(NoForms, QWebEngineScript::DocumentCreation, true),
            script(PlainText, QWebEngineScript::DocumentReady, false),
            script(LightIfThePageIs, QWebEngineScript::DocumentReady, false)};
}

} // namespace

QUrl NotesSource::setHtml(const QString &html)
{
    m_html = html.toUtf8();
    return QUrl(QStringLiteral("%1:%2").arg(QLatin1String(SourceScheme)).arg(++m_number));
}

bool NotesSource::isSource(const QUrl &url)
{
    return url.scheme() == QLatin1String(SourceScheme);
}

void NotesSource::requestStarted(QWebEngineUrlRequestJob *job)
{
    auto *content = new QBuffer(job);
    content->setData(m_html);
    job->reply("text/html;charset=utf-8", content);
}

NotesFence::NotesFence(const NotesReach &reach)
    : m_reach(reach)
{
}

void NotesFence::interceptRequest(QWebEngineUrlRequestInfo &info)
{
    const QUrl url = info.requestUrl();
    switch (info.resourceType()) {
    case QWebEngineUrlRequestInfo::ResourceTypeMainFrame:
        // What a page asks for has an initiator; what the updater asks for has none.
        info.block(!info.initiator().isEmpty() || !(NotesSource::isSource(url) || m_reach.allows(url)));
        return;
    case QWebEngineUrlRequestInfo::ResourceTypeStylesheet:
    case QWebEngineUrlRequestInfo::ResourceTypeImage:
    case QWebEngineUrlRequestInfo::ResourceTypeFontResource:
    case QWebEngineUrlRequestInfo::ResourceTypeMedia:
        if (m_reach.allows(url))
            info.redirect(partUrl(url));
        else if (url.scheme() != QLatin1String(PartScheme) && url.scheme() != QLatin1String("data"))
            info.block(true);
        return;
    default:
        info.block(true);
    }
}

void registerNotesSchemes()
{
    if (!QWebEngineUrlScheme::schemeByName(SourceScheme).name().isEmpty())
        return;
    QWebEngineUrlScheme source(SourceScheme);
    source.setSyntax(QWebEngineUrlScheme::Syntax::Path);
    QWebEngineUrlScheme::registerScheme(source);
    QWebEngineUrlScheme part(PartScheme);
    part.setSyntax(QWebEngineUrlScheme::Syntax::Path);
    // A part is no less safe than its address, and pages of https and those with a policy have theirs, too.
    part.setFlags(QWebEngineUrlScheme::SecureScheme | QWebEngineUrlScheme::CorsEnabled
                  | QWebEngineUrlScheme::ContentSecurityPolicyIgnored);
    QWebEngineUrlScheme::registerScheme(part);
}

NotesProfile::NotesProfile()
{
    setHttpUserAgent(QLatin1String(UserAgent));
    setHttpAcceptLanguage(QString::fromLatin1(userLanguages()));
    QWebEngineProfile::scripts()->insert(zel::scripts());
    setUrlRequestInterceptor(&m_fence);
    installUrlSchemeHandler(SourceScheme, &m_source);
    installUrlSchemeHandler(PartScheme, &m_parts);
}

NotesProfile::~NotesProfile()
{
    removeUrlSchemeHandler(&m_source);
    removeUrlSchemeHandler(&m_parts);
    setUrlRequestInterceptor(nullptr);
}

} // namespace zel

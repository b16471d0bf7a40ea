#include "NotesProfile.h"

#include "UserLanguages.h"

#include <QBuffer>
#include <QWebEngineScript>
#include <QWebEngineScriptCollection>
#include <QWebEngineUrlRequestInfo>
#include <QWebEngineUrlRequestJob>
#include <QWebEngineUrlScheme>

namespace zel {

namespace {

constexpr char Scheme[] = "zel-notes";

// Text of the notes cannot be selected, and holding it calls up nothing.
constexpr char Script[] =
    "var css = '*{-webkit-touch-callout:none;-webkit-user-select:none}'; var head = document.head || "
    "document.getElementsByTagName('head')[0]; var style = document.createElement('style'); style.type = "
    "'text/css'; style.appendChild(document.createTextNode(css)); head.appendChild(style);";

QWebEngineScript script()
{
    QWebEngineScript script;
    script.setInjectionPoint(QWebEngineScript::DocumentReady);
    script.setRunsOnSubFrames(false);
    script.setWorldId(QWebEngineScript::MainWorld);
    script.setSourceCode(QLatin1String(Script));
    return script;
}

} // namespace

QUrl notesUrl()
{
    return QUrl(QLatin1String(Scheme) + QLatin1String(":notes"));
}

bool mayBeLoaded(const QUrl &url)
{
    static const QStringList schemes{QStringLiteral("http"),  QStringLiteral("https"), QStringLiteral("data"),
                                     QStringLiteral("about"), QStringLiteral("blob"),  QLatin1String(Scheme)};
    return schemes.contains(url.scheme());
}

void NotesSource::requestStarted(QWebEngineUrlRequestJob *job)
{
    auto *content = new QBuffer(job);
    content->setData(m_html);
    job->reply("text/html;charset=utf-8", content);
}

void NotesFence::interceptRequest(QWebEngineUrlRequestInfo &info)
{
    if (!mayBeLoaded(info.requestUrl()))
        info.block(true);
}

void registerNotesScheme()
{
    if (!QWebEngineUrlScheme::schemeByName(Scheme).name().isEmpty())
        return;
    QWebEngineUrlScheme scheme(Scheme);
    scheme.setSyntax(QWebEngineUrlScheme::Syntax::Path);
    QWebEngineUrlScheme::registerScheme(scheme);
}

NotesProfile::NotesProfile()
{
    setHttpUserAgent(QStringLiteral("corrand"));
    setHttpAcceptLanguage(QString::fromLatin1(userLanguages()));
    scripts()->insert(script());
    setUrlRequestInterceptor(&m_fence);
    installUrlSchemeHandler(Scheme, &m_source);
}

NotesProfile::~NotesProfile()
{
    removeUrlSchemeHandler(&m_source);
    setUrlRequestInterceptor(nullptr);
}

} // namespace zel

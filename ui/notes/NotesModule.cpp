// The module: a NotesView over the web engine.
//
// Three parts that the engine joins loosely are one object here: the profile (what may be reached), the page
// (what it may do) and the view. They end together, in the order of `close`, and before the engine ends
// itself with the application: all open views are closed by a routine that is registered after the engine's
// and so runs before it. Whatever is asked of a view later does nothing.
//
// What the user is told of a load is one answer per document: whether there is anything to see. A failed load
// becomes an empty document, for the one before may belong to another build.
#include "base/ZELExport.h"
#include "common/DDLog.h"
#include "common/WireValues.h"
#include "EngineObstacle.h"
#include "NotesPage.h"
#include "NotesProfile.h"
#include "ui/NotesView.h"

#include <QCoreApplication>
#include <QPointer>
#include <QQuickRenderControl>
#include <QTimer>
#include <QWebEngineHttpRequest>
#include <QWebEngineLoadingInfo>
#include <QWebEngineScript>
#include <QWebEngineView>

#include <chrono>

namespace zel {

namespace {

using namespace std::chrono_literals;

// The engine itself waits for as long as bytes come.
constexpr auto NotesDeadline = 2min;

// Pictures alone are notes, too; a document that is none of HTML (SVG) has no body.
constexpr char HasContent[] =
    "!document.body || document.body.innerText.trim() !== '' || "
    "document.body.querySelector('img,svg,picture,video,object,embed,input') !== null";

class WebNotesView final : public NotesView
{
public:
    explicit WebNotesView(QWidget *parent)
        : m_profile(std::make_unique<NotesProfile>())
        , m_page(std::make_unique<NotesPage>(*m_profile))
        , m_view(new QWebEngineView(m_page.get(), parent))
        , m_deadline(new QTimer(m_page.get()))
    {
        m_deadline->setObjectName(QStringLiteral("deadline"));
        m_deadline->setSingleShot(true);
        m_deadline->setInterval(NotesDeadline);
        QObject::connect(m_deadline, &QTimer::timeout, m_view, [this] { endLoading(); });
        m_view->setContextMenuPolicy(Qt::NoContextMenu);
        m_view->setAcceptDrops(false);
        openViews().append(this);
        static const bool registered = (closeBeforeTheEngineEnds(), true);
        Q_UNUSED(registered);
        QObject::connect(m_page.get(), &QWebEnginePage::loadingChanged, m_view,
                         [this](const QWebEngineLoadingInfo &loading) { loadingChanged(loading); });
        QObject::connect(m_page.get(), &QWebEnginePage::renderProcessTerminated, m_view,
                         [this] { report(false); });
        QObject::connect(qApp, &QCoreApplication::aboutToQuit, m_page.get(), closeViews);
    }
    ~WebNotesView() override
    {
        close();
        openViews().removeOne(this);
    }

    QWebEngineView *view() override { return m_view; }
    QWidget *widget() override { return m_view; }

    void setOnShown(std::function<void(bool)> onShown) override { m_onShown = std::move(onShown); }

    void load(const QUrl &address, const QByteArray &body) override
    {
        if (!m_page)
            return;
        if (!isWebAddress(address)) {
            setHtml({});
            return;
        }
        QWebEngineHttpRequest request(address, QWebEngineHttpRequest::Post);
        request.setHeader("Content-Type", "application/json");
        request.setPostData(body);
        m_page->open(request);
        m_deadline->start();
    }

    void setHtml(const QString &html) override
    {
        if (!m_page)
            return;
        m_page->open(html);
        m_deadline->stop();
    }

private:
    void loadingChanged(const QWebEngineLoadingInfo &loading)
    {
        const bool hasDocument = loading.status() == QWebEngineLoadingInfo::LoadSucceededStatus
            || loading.errorDomain() == QWebEngineLoadingInfo::HttpStatusCodeDomain;
        if (loading.status() == QWebEngineLoadingInfo::LoadStartedStatus)
            return;
        if (hasDocument) {
            m_deadline->stop();
            judgeContent();
        } else if (loading.status() == QWebEngineLoadingInfo::LoadFailedStatus
                   && !NotesSource::isSource(loading.url())) {
            // Notes that cannot be had leave the view empty: what was there may be another build's.
            setHtml({});
        }
    }

    // What has come of a document by then is shown.
    void endLoading()
    {
        const bool isAwaited = m_page->isAwaited();
        m_page->triggerAction(QWebEnginePage::Stop);
        if (isAwaited)
            setHtml({});
        else
            judgeContent();
    }

    void judgeContent()
    {
        m_page->runJavaScript(QLatin1String(HasContent), QWebEngineScript::ApplicationWorld,
                              [this, view = m_view](const QVariant &hasContent) {
                                  if (view)
                                      report(hasContent.toBool());
                              });
    }

    void report(bool hasContent)
    {
        if (m_onShown)
            m_onShown(hasContent);
    }

    static QList<WebNotesView *> &openViews()
    {
        static QList<WebNotesView *> views;
        return views;
    }

    // The web engine and the scene graph end themselves with the application, and the views must be gone by
    // then. They do so in routines that run in the reverse order of their registration. The engine's is there
    // with the first profile, the scene graph's with the first render control.
    static void closeBeforeTheEngineEnds()
    {
        const QQuickRenderControl sceneGraph;
        qAddPostRoutine(closeViews);
    }

    static void closeViews()
    {
        for (WebNotesView *view : openViews())
            view->close();
    }

    void close()
    {
        m_onShown = nullptr; // the page answers what it was asked before it goes
        m_page.reset();
        m_profile.reset();
        delete m_view;
    }

    std::unique_ptr<NotesProfile> m_profile; // null once the application ends
    std::unique_ptr<NotesPage> m_page;
    QPointer<QWebEngineView> m_view;
    QPointer<QTimer> m_deadline; // of a document's load, with all its parts
    std::function<void(bool)> m_onShown;
};

} // namespace

} // namespace zel

extern "C" ZEL_EXPORT zel::NotesView *zelMakeNotesView(QWidget *parent)
{
    if (const QString obstacle = zel::engineObstacle(); !obstacle.isEmpty()) {
        qCWarning(zelSystemLog).noquote() << "The release notes cannot be shown:" << obstacle;
        return nullptr;
    }
    zel::registerNotesSchemes();
    return new zel::WebNotesView(parent);
}

// The module: a NotesView over the web engine.
#include "NotesPage.h"
#include "NotesProfile.h"
#include "NotesView.h"
#include "ZELExport.h"

#include <QCoreApplication>
#include <QPointer>
#include <QQuickRenderControl>
#include <QWebEngineHttpRequest>
#include <QWebEngineLoadingInfo>
#include <QWebEngineView>

namespace zel {

namespace {

class WebNotesView final : public NotesView
{
public:
    explicit WebNotesView(QWidget *parent)
        : m_profile(std::make_unique<NotesProfile>())
        , m_page(std::make_unique<NotesPage>(m_profile.get(), nullptr))
        , m_view(new QWebEngineView(m_page.get(), parent))
    {
        m_view->setContextMenuPolicy(Qt::NoContextMenu);
        m_view->setAcceptDrops(false);
        openViews().append(this);
        static const bool registered = (closeBeforeTheEngineEnds(), true);
        Q_UNUSED(registered);
        QObject::connect(m_page.get(), &QWebEnginePage::loadingChanged, m_view,
                         [this](const QWebEngineLoadingInfo &loading) { clearAfterFailure(loading); });
        QObject::connect(qApp, &QCoreApplication::aboutToQuit, m_page.get(), closeViews);
    }
    ~WebNotesView() override
    {
        close();
        openViews().removeOne(this);
    }

    QWebEngineView *view() override { return m_view; }
    QWidget *widget() override { return m_view; }

    void load(const QUrl &address, const QByteArray &body) override
    {
        if (!isNetworkAddress(address)) {
            setHtml({});
            return;
        }
        QWebEngineHttpRequest request(address, QWebEngineHttpRequest::Post);
        request.setHeader("Content-Type", "application/json");
        request.setPostData(body);
        if (m_page)
            m_page->load(request);
    }

    void setHtml(const QString &html) override
    {
        if (!m_page)
            return;
        m_profile->source().setHtml(html);
        m_page->load(notesUrl());
    }

private:
    static bool isNetworkAddress(const QUrl &url)
    {
        return url.isValid()
            && (url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https"));
    }

    // Notes that cannot be had leave the view empty: what was there may be another build's.
    void clearAfterFailure(const QWebEngineLoadingInfo &loading)
    {
        const bool failed = loading.status() == QWebEngineLoadingInfo::LoadFailedStatus
            && loading.errorDomain() != QWebEngineLoadingInfo::HttpStatusCodeDomain;
        if (failed && loading.url() != notesUrl())
            setHtml({});
    }

    static QList<WebNotesView *> &openViews()
    {
        static QList<WebNotesView *> views;
        return views;
    }

    // The web engine and the scene graph end themselves with the application, and the views must be gone by then. They
    // do so in routines that run in the reverse order of their registration. The engine's is there with the first
    // profile, the scene graph's with the first render control.
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
        m_page.reset();
        m_profile.reset();
        delete m_view;
    }

    std::unique_ptr<NotesProfile> m_profile; // null once the application ends
    std::unique_ptr<NotesPage> m_page;
    QPointer<QWebEngineView> m_view;
};

} // namespace

} // namespace zel

extern "C" ZEL_EXPORT zel::NotesView *zelMakeNotesView(QWidget *parent)
{
    zel::registerNotesScheme();
    return new zel::WebNotesView(parent);
}

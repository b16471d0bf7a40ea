// The module: a NotesView over the web engine.
#include "NotesPage.h"
#include "NotesProfile.h"
#include "NotesView.h"
#include "ZELExport.h"

#include <QCoreApplication>
#include <QPointer>
#include <QWebEngineHttpRequest>
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
        // The web engine ends itself with the application, and its pages must be gone by then. Such routines run in
        // the reverse order of their registration: this one before that of the engine, which the profile has started.
        static const bool registered = (qAddPostRoutine(closeViews), true);
        Q_UNUSED(registered);
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
        QWebEngineHttpRequest request(address, QWebEngineHttpRequest::Post);
        request.setHeader("Content-Type", "application/x-www-form-urlencoded");
        request.setPostData(body);
        m_page->load(request);
    }

    void setHtml(const QString &html) override
    {
        m_profile->source().setHtml(html);
        m_page->load(notesUrl());
    }

private:
    static QList<WebNotesView *> &openViews()
    {
        static QList<WebNotesView *> views;
        return views;
    }

    static void closeViews()
    {
        for (WebNotesView *view : openViews())
            view->close();
    }

    void close()
    {
        delete m_view;
        m_page.reset();
        m_profile.reset();
    }

    std::unique_ptr<NotesProfile> m_profile;
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

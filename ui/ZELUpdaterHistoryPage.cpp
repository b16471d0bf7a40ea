// Two things lie over each other here: the web view with the notes and, on top, a summary of the offer (name
// and version) that is hidden as soon as there is something to see in the notes. So the page is never empty,
// not while notes are on their way, not without a web engine, and a failure of either needs no state of its
// own.
//
// The engine costs a process and its memory, which is why the view is made by the first notes (`notes`), by a
// module that is loaded then (NotesView.h).
//
// The window has no title bar and is moved by its background, of which the notes leave none: hence the grip
// over their upper edge. It is an event filter and not a widget, because a widget there would take the clicks
// on links, too.
#include "ZELUpdaterHistoryPage.h"

#include "base/SafeText.h"
#include "common/UpdateRecord.h"
#include "NotesView.h"
#include "PageParts.h"
#include "ZELUpdaterButton.h"

#include <QAccessibleWidget>
#include <QApplication>
#include <QChildEvent>
#include <QLabel>
#include <QMouseEvent>
#include <QStringDecoder>

#include <optional>

namespace {

constexpr int ButtonStrip = 96; // pixels at the bottom
constexpr std::size_t LongestVersion = 48;

ZELLayoutFrame notesFrame()
{
    return ZELMakeLayoutFrame(0, 0, 0, -ButtonStrip, ZELLayoutNotSet, ZELLayoutNotSet);
}

QString shownVersion(const QVariantMap &record)
{
    const QString version = record[zel::key::Version].toString();
    const QString text = version.isEmpty() ? record[zel::key::Build].toString() : version;
    return QString::fromStdString(zel::safeText(text.toStdString(), LongestVersion));
}

// Makes the upper edge of a widget, and of all that is in it, one to drag the window by. A click there is
// the widget's: only a press that moves on becomes the window's, and the widget then sees it end where
// nothing can be hit.
class WindowGrip : public QObject
{
public:
    static constexpr int Height = 32; // logical pixels from the upper edge

    // Owned by `widget`.
    explicit WindowGrip(QWidget *widget);

    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void watch(QObject *object);
    bool handle(QWidget *target, QMouseEvent *event);
    bool handlesMove(QWidget *target, QMouseEvent *event);
    void drag(QWidget *target, QMouseEvent *event);
    void pass(QMouseEvent *event, QEvent::Type type, const QPointF &globalPosition);

    QWidget *m_widget;
    std::optional<QPointF> m_pressed; // where, on the screen
    bool m_isDragging = false;
};

WindowGrip::WindowGrip(QWidget *widget)
    : QObject(widget)
    , m_widget(widget)
{
    watch(widget);
}

void WindowGrip::watch(QObject *object)
{
    if (!object->isWidgetType())
        return;
    object->installEventFilter(this);
    for (QObject *child : object->children())
        watch(child);
}

bool WindowGrip::eventFilter(QObject *watched, QEvent *event)
{
    switch (event->type()) {
    case QEvent::ChildAdded: // a web view gets the widget that takes its mouse when a page begins
        watch(static_cast<QChildEvent *>(event)->child());
        return false;
    case QEvent::MouseButtonPress:
    case QEvent::MouseMove:
    case QEvent::MouseButtonRelease:
        return handle(static_cast<QWidget *>(watched), static_cast<QMouseEvent *>(event));
    default:
        return false;
    }
}

bool WindowGrip::handle(QWidget *target, QMouseEvent *event)
{
    if (!(event->buttons() & Qt::LeftButton) && event->type() == QEvent::MouseMove)
        m_pressed.reset(); // who moves the window for us may keep the release
    if (event->type() == QEvent::MouseMove)
        return m_pressed && handlesMove(target, event);
    const QPointF place = m_widget->mapFromGlobal(event->globalPosition());
    if (event->button() != Qt::LeftButton)
        return false;
    const bool wasDragging = m_isDragging;
    m_isDragging = false;
    m_pressed.reset();
    if (event->type() == QEvent::MouseButtonPress && place.y() < Height)
        m_pressed = event->globalPosition();
    if (event->type() == QEvent::MouseButtonRelease && wasDragging)
        pass(event, QEvent::MouseButtonRelease, event->globalPosition());
    return wasDragging;
}

bool WindowGrip::handlesMove(QWidget *target, QMouseEvent *event)
{
    const QPointF way = event->globalPosition() - *m_pressed;
    if (!m_isDragging && way.manhattanLength() >= QApplication::startDragDistance())
        drag(target, event);
    if (m_isDragging)
        pass(event, QEvent::MouseMove, event->globalPosition());
    // Until it is decided the widget is told nothing: it would begin to drag the link below the mouse.
    return true;
}

void WindowGrip::drag(QWidget *target, QMouseEvent *event)
{
    const QPointF pressed = *m_pressed;
    m_pressed.reset(); // so that what is sent now passes
    const QPointF nowhere(-1, -1);
    QMouseEvent end(QEvent::MouseButtonRelease, nowhere, target->mapToGlobal(nowhere), Qt::LeftButton,
                    Qt::NoButton, event->modifiers());
    QApplication::sendEvent(target, &end);
    m_pressed = pressed;
    m_isDragging = true;
    pass(event, QEvent::MouseButtonPress, pressed);
}

void WindowGrip::pass(QMouseEvent *event, QEvent::Type type, const QPointF &globalPosition)
{
    QWidget *window = m_widget->window();
    const Qt::MouseButton button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
    QMouseEvent passed(type, window->mapFromGlobal(globalPosition), globalPosition, button, event->buttons(),
                       event->modifiers());
    QApplication::sendEvent(window, &passed);
}

QAccessibleInterface *makeAccessibleHistoryPage(const QString &, QObject *object)
{
    auto *page = qobject_cast<ZELUpdaterHistoryPage *>(object);
    // Owned by the cache of QAccessible; the updater gives the page a name and a description with each offer.
    return page ? new QAccessibleWidget(page, QAccessible::Grouping) : nullptr;
}

} // namespace

struct ZELUpdaterHistoryPage::Notes {
    const std::unique_ptr<zel::NotesView> view;
};

ZELUpdaterHistoryPage::ZELUpdaterHistoryPage(QWidget *parent)
    : QWidget(parent)
    , m_summary(new QWidget(this))
    , m_version(zel::makeMessage(m_summary, nullptr, 32))
    , m_downloadButton(zel::makeButton(this, "Updater.Install", 1))
{
    QAccessible::installFactory(makeAccessibleHistoryPage); // once, however often it is called
    // Deliberate: Later bears the text of Cancel.
    m_laterButton = zel::makeButton(this, "Updater.Cancel", 0);
    m_skipButton = zel::makeButton(this, "Updater.Skip", 0);

    m_summary->setAutoFillBackground(true);
    ZELLayoutView(m_summary, notesFrame());
    zel::makeTitle(m_summary, "", 140)->setText(QGuiApplication::applicationDisplayName());
    ZELLayoutView(m_version,
                  ZELMakeLayoutFrame(32, -32, 176, ZELLayoutNotSet, ZELLayoutNotSet, ZELLayoutNotSet));
}

ZELUpdaterHistoryPage::~ZELUpdaterHistoryPage() = default;

// Null where there is no web engine; asked again with the next notes, for what stood against it may have
// gone.
ZELUpdaterHistoryPage::Notes *ZELUpdaterHistoryPage::notes()
{
    if (m_notes)
        return m_notes.get();
    std::unique_ptr<zel::NotesView> made = zel::makeNotesView(this);
    if (!made)
        return nullptr;
    made->setOnShown([this](bool hasContent) { m_summary->setHidden(hasContent); });
    QWidget *view = made->widget();
    m_notes.reset(new Notes{std::move(made)});
    view->lower();
    ZELLayoutView(view, notesFrame());
    new WindowGrip(view);
    view->show();
    setTabOrder(view, m_laterButton);
    if (hasFocus())
        view->setFocus();
    return m_notes.get();
}

QWebEngineView *ZELUpdaterHistoryPage::webview() const
{
    if (m_webview)
        return zel::asWebView(m_webview);
    return m_notes ? m_notes->view->view() : nullptr;
}

void ZELUpdaterHistoryPage::setWebview(QWebEngineView *webview)
{
    m_webview = zel::asObject(webview);
}

void ZELUpdaterHistoryPage::loadURL(const QUrl &url, const QByteArray &body)
{
    if (const Notes *shown = notes())
        shown->view->load(url, body);
}

void ZELUpdaterHistoryPage::loadHTML(const QByteArray &html)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder(html);
    if (const Notes *shown = notes())
        shown->view->setHtml(decoder.hasError() ? QString() : text);
}

void ZELUpdaterHistoryPage::updateButtons(const QVariantMap &update)
{
    m_version->setText(shownVersion(update[zel::key::Update].toMap()));
    for (ZELUpdaterButton *button : {m_laterButton, m_downloadButton, m_skipButton}) {
        button->setParent(nullptr);
        button->setParent(this);
        button->show();
    }
    ZELLayoutViewsHorizontal2(m_laterButton, m_skipButton, m_downloadButton, 20, zel::buttonRowFrame());
    if (m_notes && m_notes->view->widget())
        setTabOrder(m_notes->view->widget(), m_laterButton);
    setTabOrder(m_laterButton, m_skipButton);
    setTabOrder(m_skipButton, m_downloadButton);
}

// Keys scroll the notes at once.
void ZELUpdaterHistoryPage::focusInEvent(QFocusEvent *event)
{
    if (m_notes && m_notes->view->widget())
        m_notes->view->widget()->setFocus(event->reason());
}

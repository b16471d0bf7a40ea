// A window without a frame has to do what the frame does elsewhere: an edge that parts it from other dark
// windows, being moved (by the window system where it offers that, by hand else), and not being closed by the
// user.
//
// As a sheet it is a transient, window-modal window of the host's, which the window system keeps above that
// one; its place is kept by following the host's moves. On Wayland the system alone knows places, and the
// sheet goes where that puts it. Qt hides a window whose flags change, so becoming a sheet, and being none
// again, ends in a hidden window that is shown anew where it should be.
#include "ZELUpdaterWindow.h"

#include "Drawing.h"
#include "ZELUpdaterButton.h"

#include <QAccessibleWidget>
#include <QCloseEvent>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QScreen>
#include <QWindow>

namespace {

constexpr QSize InitialSize(350, 450);
constexpr Qt::WindowFlags FreeStanding = Qt::Window | Qt::FramelessWindowHint;
// X11 ties a window to another one only when it is of such a kind.
constexpr Qt::WindowFlags Attached = Qt::Sheet | Qt::FramelessWindowHint;
const QColor Background = QColor::fromRgbF(0.16F, 0.16F, 0.16F);
const QColor EdgeColour = QColor::fromRgbF(0.38F, 0.38F, 0.38F);

// A line along the window's edge, above its pages, that parts it from another dark window behind it.
class Edge : public QWidget
{
public:
    explicit Edge(QWidget *window)
        : QWidget(window)
    {
        setAttribute(Qt::WA_TransparentForMouseEvents);
    }

protected:
    void resizeEvent(QResizeEvent *) override
    {
        setMask(QRegion(rect()) - QRegion(rect().adjusted(1, 1, -1, -1)));
    }

    void paintEvent(QPaintEvent *event) override
    {
        QPainter(this).fillRect(event->rect(), zel::isHighContrast() ? QColor(Qt::white) : EdgeColour);
    }
};

QAccessibleInterface *makeAccessibleWindow(const QString &, QObject *object)
{
    auto *window = qobject_cast<ZELUpdaterWindow *>(object);
    // Owned by the cache of QAccessible; its title is its name as any window's.
    return window ? new QAccessibleWidget(window, QAccessible::Dialog) : nullptr;
}

} // namespace

ZELUpdaterWindow::ZELUpdaterWindow()
    : QWidget(nullptr, FreeStanding)
    , m_contentView(new QWidget(this))
    , m_edge(new Edge(this))
{
    QAccessible::installFactory(makeAccessibleWindow); // once, however often it is called
    setAttribute(Qt::WA_QuitOnClose, false);
    takeColours();
    m_contentView->setAutoFillBackground(true);
    setFrame({QPoint(), InitialSize}, true);
}

QRect ZELUpdaterWindow::frame() const
{
    return {m_sheetParent ? m_sheetOrigin : pos(), size()};
}

void ZELUpdaterWindow::setFrame(const QRect &frame, bool display)
{
    setFixedSize(frame.size());
    m_sheetOrigin = frame.topLeft();
    move(m_sheetParent ? sheetPlace() : frame.topLeft());
    if (display && isVisible())
        repaint();
}

QRect ZELUpdaterWindow::centredFrame(const QSize &size) const
{
    const QRect current = frame();
    const QSize change = (current.size() - size) / 2;
    return {current.topLeft() + QPoint(change.width(), change.height()), size};
}

void ZELUpdaterWindow::center()
{
    QRect place = frame();
    place.moveCenter(screen()->availableGeometry().center());
    move(place.topLeft());
}

void ZELUpdaterWindow::makeKeyAndOrderFront()
{
    setWindowState(windowState() & ~Qt::WindowMinimized);
    show();
    raise();
    activateWindow();
}

bool ZELUpdaterWindow::isSeen() const
{
    return isVisible() && !isMinimized();
}

void ZELUpdaterWindow::beginSheet(QWidget *host)
{
    endSheet();
    // This hides the window: window systems take a new parent and modality only of a hidden one.
    setWindowFlags(Attached);
    setWindowModality(Qt::WindowModal);
    m_sheetParent = host->window();
    m_sheetOrigin = {};
    m_sheetParent->winId(); // makes the handle
    winId();
    followHost();
    m_sheetParent->installEventFilter(this);
    connect(m_sheetParent, &QObject::destroyed, this, &ZELUpdaterWindow::endSheet);
    move(sheetPlace());
    makeKeyAndOrderFront();
}

void ZELUpdaterWindow::followHost()
{
    if (m_sheetParent && windowHandle())
        windowHandle()->setTransientParent(m_sheetParent->windowHandle());
}

void ZELUpdaterWindow::endSheet()
{
    if (windowModality() == Qt::NonModal)
        return;
    hide();
    if (m_sheetParent) {
        m_sheetParent->removeEventFilter(this);
        disconnect(m_sheetParent, nullptr, this, nullptr);
        m_sheetParent = nullptr;
    }
    if (windowHandle())
        windowHandle()->setTransientParent(nullptr);
    setWindowModality(Qt::NonModal);
    setWindowFlags(FreeStanding);
}

QPoint ZELUpdaterWindow::sheetPlace() const
{
    const QRect host = m_sheetParent->geometry();
    return {host.left() + (host.width() - width()) / 2, host.top()};
}

bool ZELUpdaterWindow::performKeyEquivalent(QKeyEvent *event)
{
    for (ZELUpdaterButton *button : m_contentView->findChildren<ZELUpdaterButton *>()) {
        if (button->performKeyEquivalent(event))
            return true;
    }
    return false;
}

bool ZELUpdaterWindow::event(QEvent *event)
{
    // A web view makes the window one that OpenGL draws, with a new handle that knows nothing of the host.
    if (event->type() == QEvent::WinIdChange)
        followHost();
    if (event->type() == QEvent::ApplicationPaletteChange)
        takeColours();
    return QWidget::event(event);
}

void ZELUpdaterWindow::takeColours()
{
    QPalette dark = palette();
    dark.setColor(QPalette::Window, zel::isHighContrast() ? QColor(Qt::black) : Background);
    setPalette(dark);
}

void ZELUpdaterWindow::showEvent(QShowEvent *)
{
    // No title bar shows it, but lists of windows do, and it is what a screen reader calls the window.
    if (windowTitle().isEmpty())
        setWindowTitle(QGuiApplication::applicationDisplayName());
}

bool ZELUpdaterWindow::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_sheetParent && (event->type() == QEvent::Move || event->type() == QEvent::Resize))
        move(sheetPlace());
    return QWidget::eventFilter(watched, event);
}

void ZELUpdaterWindow::closeEvent(QCloseEvent *event)
{
    event->setAccepted(!event->spontaneous());
}

void ZELUpdaterWindow::keyPressEvent(QKeyEvent *event)
{
    if (!performKeyEquivalent(event))
        QWidget::keyPressEvent(event);
}

void ZELUpdaterWindow::mousePressEvent(QMouseEvent *event)
{
    m_grip.reset();
    if (event->button() != Qt::LeftButton || m_sheetParent || windowHandle()->startSystemMove())
        return;
    m_grip = event->position().toPoint();
}

void ZELUpdaterWindow::mouseMoveEvent(QMouseEvent *event)
{
    if (m_grip && event->buttons() & Qt::LeftButton)
        move(event->globalPosition().toPoint() - *m_grip);
}

void ZELUpdaterWindow::mouseReleaseEvent(QMouseEvent *)
{
    m_grip.reset();
}

void ZELUpdaterWindow::resizeEvent(QResizeEvent *)
{
    m_contentView->setGeometry(rect());
    m_edge->setGeometry(rect());
}

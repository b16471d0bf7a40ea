// The updater's window: its pages, their buttons, and the way from one page to the next.
//
// What a button does is wired in one of two places, by how long it holds. `wireDismissal` wires what never
// changes, once; a page's show function wires the rest, each time: Retry in `showErrorPage`, and the keys of
// the pages that have some. (Install, Skip and Later of an offer: ZELUpdaterOffer.cpp.)
//
// A page lives as long as the updater and is only taken into the window and out of it (`placePage`), so that
// its state may be set while another page is shown. Every function may be called without a window system, and
// after the application object has gone: the pointers are null then.
#include "ZELUpdater.h"

#include "install/UpdateInstaller.h"
#include "ui/Texts.h"
#include "ui/ZELLayout.h"
#include "ui/ZELProgressIndicator.h"
#include "ui/ZELUpdaterButton.h"
#include "ZELUpdaterViews.h"

#include <QApplication>
#include <QKeyEvent>

namespace {

using KeyHandler = std::function<bool(ZELUpdaterButton *, QKeyEvent *)>;

// Clicks the button on one of `keys`.
KeyHandler clickOn(const QList<int> &keys)
{
    return [keys](ZELUpdaterButton *button, QKeyEvent *event) {
        if (!keys.contains(event->key()))
            return false;
        if (const auto click = button->onClick())
            click();
        return true;
    };
}

} // namespace

void ZELUpdater::makeViews()
{
    // Without a window system there is nothing to show and nothing that could be shown.
    if (!qobject_cast<QApplication *>(QCoreApplication::instance()))
        return;
    m_views = std::make_unique<zel::UpdaterViews>();
    m_window = &m_views->window;
    m_checkingPage = &m_views->checkingPage;
    m_historyPage = &m_views->historyPage;
    m_downloadPage = &m_views->downloadPage;
    m_errorPage = &m_views->errorPage;
    m_noUpdatesPage = &m_views->noUpdatesPage;
    m_updatedPage = &m_views->updatedPage;
    wireDismissal();
    // Widgets must go before the application object does, which this object outlives.
    qAddPostRoutine([] { shared()->dropViews(); });
}

void ZELUpdater::dropViews()
{
    m_window = nullptr;
    m_currentPage = nullptr;
    m_checkingPage = nullptr;
    m_historyPage = nullptr;
    m_downloadPage = nullptr;
    m_errorPage = nullptr;
    m_noUpdatesPage = nullptr;
    m_updatedPage = nullptr;
    m_views.reset();
}

void ZELUpdater::wireDismissal()
{
    const auto dismiss = [this] { cancel(); };
    m_updatedPage->cancelButton()->setOnClick(dismiss);
    m_checkingPage->cancelButton()->setOnClick(dismiss);
    m_noUpdatesPage->cancelButton()->setOnClick(dismiss);
    m_historyPage->laterButton()->setOnClick(dismiss);
    m_downloadPage->cancelButton()->setOnClick([this] {
        if (const auto running = task())
            running->cancel();
        cancel();
    });
}

void ZELUpdater::cancel() const
{
    // A copy: the host may set another callback while this one runs.
    if (const auto callback = m_onCancel)
        callback();
}

void ZELUpdater::setIcon(const QImage &icon)
{
    for (ZELUpdaterPage *page : std::initializer_list<ZELUpdaterPage *>{
             m_downloadPage, m_checkingPage, m_errorPage, m_noUpdatesPage, m_updatedPage}) {
        if (page)
            page->icon()->setImage(icon);
    }
}

void ZELUpdater::showCheckingView()
{
    if (!placePage(m_checkingPage))
        return;
    resizeWindow(zel::PageSize);
    m_checkingPage->progress()->setHidden(false);
    m_checkingPage->progress()->startAnimation();
    // Deliberate: Escape does not cancel a check.
    m_checkingPage->cancelButton()->setProcessKeyEvent(clickOn({Qt::Key_Return}));
}

void ZELUpdater::showDownloadPage()
{
    if (!placePage(m_downloadPage))
        return;
    resizeWindow(zel::PageSize);
    m_downloadPage->text()->setText(zel::localized("Updater.Connecting"));
    ZELProgressIndicator *bar = m_downloadPage->progress();
    bar->setDoubleValue(0);
    bar->setIndeterminate(true);
    bar->startAnimation();
}

void ZELUpdater::showErrorPage()
{
    if (!placePage(m_errorPage))
        return;
    resizeWindow(zel::PageSize);
    m_errorPage->retryButton()->setOnClick([this] {
        if (const auto callback = m_onRetry)
            callback();
    });
    m_errorPage->cancelButton()->setOnClick([this] { cancel(); });
}

void ZELUpdater::showNoUpdates()
{
    if (!placePage(m_noUpdatesPage))
        return;
    recentreWindow(zel::PageSize);
    m_noUpdatesPage->cancelButton()->setProcessKeyEvent(clickOn({Qt::Key_Return, Qt::Key_Escape}));
}

void ZELUpdater::showUpdated()
{
    if (!placePage(m_updatedPage))
        return;
    recentreWindow(zel::PageSize);
    m_updatedPage->cancelButton()->setProcessKeyEvent(clickOn({Qt::Key_Return, Qt::Key_Escape}));
}

bool ZELUpdater::placePage(QWidget *page)
{
    if (!m_window || !page)
        return false;
    const QPointer<QWidget> last = m_currentPage;
    m_currentPage = page;
    page->setParent(m_window->contentView());
    ZELLayoutView(page, ZELMakeLayoutFrame(0, 0, 0, 0, ZELLayoutNotSet, ZELLayoutNotSet));
    page->show();
    // From there Tab leads to the page's first button, and a screen reader reads what the page tells. The
    // last page goes after that: one that takes the focus with it passes it on to some other button, which
    // would be read, too.
    page->setFocus(Qt::OtherFocusReason);
    if (last && last != page)
        last->setParent(nullptr);
    return true;
}

void ZELUpdater::resizeWindow(const QSize &size)
{
    const QRect centred = m_window->centredFrame(size);
    if (m_window->sheetParent())
        m_window->setFrame({QPoint(), size}, true);
    else if (centred != m_window->frame())
        m_window->setFrame(centred, true);
}

// Deliberate: the pages that end a flow look neither at a sheet nor at the present frame.
void ZELUpdater::recentreWindow(const QSize &size)
{
    m_window->setFrame(m_window->centredFrame(size), false);
}

void ZELUpdater::showProgress(qint64 received, qint64 expected)
{
    if (!m_downloadPage)
        return;
    ZELProgressIndicator *bar = m_downloadPage->progress();
    if (bar->isIndeterminate()) {
        bar->setIndeterminate(false);
        bar->stopAnimation();
    }
    const double fraction = zel::downloadFraction(received, expected);
    bar->setDoubleValue(fraction);
    const QString percentage = QString::asprintf("%.0f%%", fraction * 100);
    m_downloadPage->text()->setText(
        zel::localized("Updater.%@ completed").replace(QLatin1String("%@"), percentage));
}

#include "ClickThrough.h"

#include <ZELUpdater/ZELUpdater.h>
#include <ZELUpdater/ZELUpdaterButton.h>
#include <ZELUpdater/ZELUpdaterCheckingPage.h>
#include <ZELUpdater/ZELUpdaterDownloadPage.h>
#include <ZELUpdater/ZELUpdaterErrorPage.h>
#include <ZELUpdater/ZELUpdaterHistoryPage.h>
#include <ZELUpdater/ZELUpdaterNoUpdatesPage.h>
#include <ZELUpdater/ZELUpdaterUpdatedPage.h>
#include <ZELUpdater/ZELUpdaterWindow.h>

#include <QApplication>
#include <QDir>
#include <QMouseEvent>

#include <cstdio>

namespace {

void click(ZELUpdaterButton *button)
{
    const QPointF middle = QRectF(button->rect()).center();
    for (const auto type : {QEvent::MouseButtonPress, QEvent::MouseButtonRelease}) {
        QMouseEvent event(type, middle, button->mapToGlobal(middle), Qt::LeftButton,
                          type == QEvent::MouseButtonPress ? Qt::LeftButton : Qt::NoButton, {});
        QApplication::sendEvent(button, &event);
    }
}

} // namespace

void ClickThrough::start(HostWindow &window, const QString &folder)
{
    auto *user = new ClickThrough(window, folder); // owned by the window
    window.checkForUpdates();
    user->look();
}

ClickThrough::ClickThrough(HostWindow &window, const QString &folder)
    : QObject(&window)
    , m_window(window)
    , m_folder(folder)
{
    QDir().mkpath(folder);
    connect(&m_timer, &QTimer::timeout, this, &ClickThrough::look);
    m_timer.start(1000);
    save(QStringLiteral("host"), window);
}

void ClickThrough::look()
{
    ZELUpdater *updater = ZELUpdater::shared();
    QWidget *page = updater->currentPage();
    if (page == m_seen || !updater->window()->isVisible())
        return;
    m_seen = page;
    if (page == updater->checkingPage()) {
        save(QStringLiteral("checking"), *updater->window());
    } else if (page == updater->historyPage()) {
        save(QStringLiteral("release-notes"), *updater->window());
        click(updater->historyPage()->downloadButton());
        save(QStringLiteral("download"), *updater->window());
        m_seen = updater->downloadPage();
    } else if (page == updater->updatedPage()) {
        save(QStringLiteral("updated"), *updater->window());
        click(updater->updatedPage()->cancelButton());
    } else if (page == updater->noUpdatesPage()) {
        save(QStringLiteral("no-updates"), *updater->window());
        QApplication::quit();
    } else if (page == updater->errorPage()) {
        save(QStringLiteral("error"), *updater->window());
        QApplication::exit(1);
    }
}

void ClickThrough::save(const QString &name, QWidget &widget)
{
    const QString file = QStringLiteral("%1/build-%2-%3.png").arg(m_folder).arg(HOST_BUILD).arg(name);
    widget.grab().save(file);
    std::printf("Build %d: %s\n", HOST_BUILD, qPrintable(name));
    std::fflush(stdout);
}

// Renders each page and state of the interface to a picture, without a display.
#include "ContactSheet.h"
#include "ui/Texts.h"
#include "ui/ZELProgressIndicator.h"
#include "ui/ZELUpdaterButton.h"
#include "ui/ZELUpdaterHistoryPage.h"
#include "ui/ZELUpdaterPages.h"
#include "ui/ZELUpdaterProgressView.h"
#include "ui/ZELUpdaterWindow.h"
#include "updater/ZELUpdater.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEnterEvent>
#include <QPainter>

#include <cstdio>

namespace {

const char Notes[] =
    R"(<html><body style="background:transparent;color:#ddd;font:14px sans-serif;margin:32px">
<h2 style="font-weight:300">Example 1.1</h2><p>What is new in this version:</p>
<ul><li>A manual that is up to date</li><li>An evening greeting</li><li>A dark theme</li></ul>
<p><a style="color:#4aa8ff" href="https://example.invalid/">The whole story</a></p></body></html>)";

void letPass(int milliseconds)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < milliseconds)
        QApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
}

class Gallery
{
public:
    explicit Gallery(const QString &folder)
        : m_folder(folder)
    {
    }

    bool render();

private:
    void pages();
    void download();
    void states();
    void texts();
    void pagesIn(const QString &language);
    void rowOfThreeIn(const QString &language);
    void sheet();
    void highContrast();
    void notes();
    void buttons();
    void rings();
    void backgrounds();
    void save(const QString &name, QWidget &widget);
    void save(const QString &name, const QPixmap &picture);
    void saveWindow(const QString &name);

    const QDir m_folder;
    const QImage m_icon = QImage(QStringLiteral(ZEL_EXAMPLE_ICON));
    ZELUpdater *const m_updater = ZELUpdater::shared();
    int m_number = 0;
    bool m_ok = true;
};

bool Gallery::render()
{
    m_updater->setIcon(m_icon);
    m_updater->window()->show();
    m_updater->window()->activateWindow();
    pages();
    states();
    download();
    texts();
    notes();
    highContrast();
    sheet();
    buttons();
    rings();
    backgrounds();
    return m_ok;
}

void Gallery::save(const QString &name, QWidget &widget)
{
    QApplication::processEvents();
    save(name, widget.grab());
}

void Gallery::save(const QString &name, const QPixmap &picture)
{
    const QString file = QStringLiteral("%1-%2.png").arg(++m_number, 2, 10, QLatin1Char('0')).arg(name);
    m_ok = picture.save(m_folder.filePath(file)) && m_ok;
}

void Gallery::saveWindow(const QString &name)
{
    save(name, *m_updater->window());
}

void Gallery::pages()
{
    m_updater->showCheckingView();
    saveWindow(QStringLiteral("checking"));
    m_updater->checkingPage()->cancelButton()->setIsActive(true);
    saveWindow(QStringLiteral("checking-pressed"));
    m_updater->checkingPage()->cancelButton()->setIsActive(false);
    m_updater->showErrorPage();
    saveWindow(QStringLiteral("error"));
    m_updater->errorPage()->retryButton()->setIsActive(true);
    saveWindow(QStringLiteral("error-pressed"));
    m_updater->errorPage()->retryButton()->setIsActive(false);
    m_updater->showNoUpdates();
    saveWindow(QStringLiteral("no-updates"));
    m_updater->showUpdated();
    saveWindow(QStringLiteral("updated"));
}

void Gallery::download()
{
    m_updater->showDownloadPage();
    letPass(400);
    saveWindow(QStringLiteral("download-connecting"));
    ZELUpdaterDownloadPage *page = m_updater->downloadPage();
    page->progress()->setIndeterminate(false);
    for (const int percent : {0, 42, 100}) {
        page->progress()->setDoubleValue(percent / 100.);
        page->text()->setText(
            zel::localized("Updater.%@ completed").replace("%@", QString::number(percent) + u'%'));
        saveWindow(QStringLiteral("download-%1").arg(percent));
    }
}

// Each state of the error page's buttons, the real events bringing it about.
void Gallery::states()
{
    m_updater->showErrorPage();
    ZELUpdaterButton *retry = m_updater->errorPage()->retryButton();
    m_updater->errorPage()->cancelButton()->setFocus(Qt::TabFocusReason);
    saveWindow(QStringLiteral("error-focus"));
    retry->setFocus(Qt::TabFocusReason);
    saveWindow(QStringLiteral("error-focus-primary"));
    retry->clearFocus();
    for (ZELUpdaterButton *button : {m_updater->errorPage()->cancelButton(), retry}) {
        const QPointF middle = QRectF(button->rect()).center();
        QEnterEvent enter(middle, middle, button->mapToGlobal(middle));
        QCoreApplication::sendEvent(button, &enter);
    }
    saveWindow(QStringLiteral("error-hover"));
    for (ZELUpdaterButton *button : {m_updater->errorPage()->cancelButton(), retry}) {
        QEvent leave(QEvent::Leave);
        QCoreApplication::sendEvent(button, &leave);
        button->setEnabled(false);
    }
    saveWindow(QStringLiteral("error-disabled"));
    retry->setEnabled(true);
    m_updater->errorPage()->cancelButton()->setEnabled(true);
}

void Gallery::texts()
{
    m_updater->showErrorPage();
    const QString message = m_updater->errorPage()->text()->text();
    const QString words =
        QStringLiteral("A message that somebody wrote at length wraps onto as many lines as "
                       "it needs, stays in the middle and does not make the page wider. ");
    for (const int times : {1, 2, 4}) {
        m_updater->errorPage()->text()->setText(words.repeated(times).trimmed());
        saveWindow(QStringLiteral("error-long-%1").arg(times));
    }
    m_updater->errorPage()->text()->setText(message);
    for (const char *language : {"de", "ru", "ar", "he", "ja"})
        pagesIn(QLatin1String(language));
    for (const char *language : {"de", "tr", "ru", "he", "ja"})
        rowOfThreeIn(QLatin1String(language));
    zel::setLanguage(QStringLiteral("en"));
}

void Gallery::pagesIn(const QString &language)
{
    zel::setLanguage(language);
    ZELUpdaterWindow window;
    window.setFrame({0, 0, 350, 400}, false);
    ZELUpdaterErrorPage error(window.contentView());
    error.icon()->setImage(m_icon);
    error.resize(350, 400);
    window.show();
    save(QStringLiteral("error-%1").arg(language), window);
    error.hide();
    ZELUpdaterDownloadPage page(window.contentView());
    page.icon()->setImage(m_icon);
    page.progress()->setIndeterminate(false);
    page.progress()->setDoubleValue(0.42);
    page.text()->setText(zel::localized("Updater.%@ completed").replace("%@", "42%"));
    page.resize(350, 400);
    page.show();
    save(QStringLiteral("download-%1").arg(language), window);
}

void Gallery::rowOfThreeIn(const QString &language)
{
    zel::setLanguage(language);
    ZELUpdaterWindow window;
    window.setFrame({0, 0, 500, 96}, false);
    ZELUpdaterHistoryPage page(window.contentView());
    page.resize(500, 96);
    page.updateButtons({});
    window.show();
    save(QStringLiteral("three-buttons-%1").arg(language), window);
}

// A host's window with the updater's attached to it. Offscreen, no window system puts one above the other.
void Gallery::sheet()
{
    QWidget host;
    host.setGeometry(0, 0, 600, 440);
    host.show();
    m_updater->showUpdated();
    m_updater->window()->beginSheet(&host);
    QApplication::processEvents();
    QPixmap both = host.grab();
    QPainter painter(&both);
    painter.drawPixmap(m_updater->window()->pos() - host.geometry().topLeft(), m_updater->window()->grab());
    painter.end();
    save(QStringLiteral("sheet"), both);
    m_updater->window()->endSheet();
    m_updater->window()->show();
}

void Gallery::highContrast()
{
    const QPalette usual = QApplication::palette();
    QPalette palette = usual;
    palette.setColor(QPalette::Window, Qt::black);
    palette.setColor(QPalette::WindowText, Qt::white);
    QApplication::setPalette(palette);
    m_updater->showErrorPage();
    m_updater->window()->activateWindow();
    QApplication::processEvents();
    m_updater->errorPage()->retryButton()->setFocus(Qt::TabFocusReason);
    saveWindow(QStringLiteral("high-contrast"));
    QApplication::setPalette(usual);
    QApplication::processEvents();
}

void Gallery::notes()
{
    m_updater->setUpdate({{QStringLiteral("html"), QByteArray(Notes)}});
    m_updater->historyPage()->loadHTML(Notes);
    letPass(1500);
    m_updater->showUpdate({});
    letPass(1500);
    saveWindow(QStringLiteral("release-notes"));
    m_updater->showErrorPage();
}

void Gallery::buttons()
{
    ZELUpdaterWindow window;
    window.setFrame({0, 0, 350, 208}, false);
    int y = 24;
    for (const qint64 style : {0, 1}) {
        for (const bool active : {false, true}) {
            auto *button = new ZELUpdaterButton(window.contentView());
            button->setGeometry(32, y, 286, 32);
            button->setStyle(style);
            button->setIsActive(active);
            button->setLabel(QStringLiteral("Style %1%2").arg(style).arg(active ? ", pressed" : ""));
            y += 44;
        }
    }
    window.show();
    save(QStringLiteral("buttons"), window);
}

void Gallery::rings()
{
    ZELUpdaterWindow window;
    window.setFrame({0, 0, 350, 350}, false);
    auto *ring = new ZELUpdaterProgressView(window.contentView());
    ring->setGeometry(50, 50, 250, 250);
    window.show();
    for (const float progress : {0.F, 0.42F, 1.F}) {
        ring->setProgress(progress);
        save(QStringLiteral("ring-%1").arg(qRound(progress * 100)), window);
    }
    ring->startLooping();
    letPass(1200);
    save(QStringLiteral("ring-filling"), window);
    letPass(3000);
    save(QStringLiteral("ring-emptying"), window);
}

void Gallery::backgrounds()
{
    ZELUpdaterWindow window;
    window.setFrame({0, 0, 350, 120}, false);
    ZELUpdaterView view(window.contentView());
    view.setGeometry(20, 20, 310, 40);
    ZELUpdaterFooter footer(window.contentView());
    footer.setGeometry(0, 80, 350, 40);
    window.show();
    save(QStringLiteral("view-and-footer"), window);
}

} // namespace

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() == 4 && arguments[1] == QLatin1String("--sheet"))
        return makeContactSheet(arguments[2], arguments[3]) ? 0 : 1;
    if (arguments.size() != 2 || !QDir().mkpath(arguments[1])) {
        std::fprintf(stderr, "Usage: gallery FOLDER, or gallery --sheet FOLDER FILE\n");
        return 2;
    }
    zel::setLanguage(QStringLiteral("en"));
    return Gallery(arguments[1]).render() ? 0 : 1;
}

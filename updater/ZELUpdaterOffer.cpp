// How the updater checks, and how it offers what it found.
#include "check/RequestBodies.h"
#include "check/UpdateCheck.h"
#include "check/UpdateStatus.h"
#include "common/WireValues.h"
#include "OfferTexts.h"
#include "platform/Queues.h"
#include "ui/ZELLayout.h"
#include "ui/ZELUpdaterButton.h"
#include "ui/ZELUpdaterProgressView.h"
#include "ui/ZELUpdaterView.h"
#include "ZELUpdaterViews.h"

using namespace std::chrono_literals;

namespace {

enum Choice : qint64 { Later = 0, Skip = 1, Install = 2 };

constexpr QSize HistoryPageSize(500, 470);
const QString Notes = QStringLiteral("html");

// Time for the web view to draw the notes before it is seen.
constexpr auto NotesDelay = 500ms;

bool isInteractive(const QVariantMap &config)
{
    return zel::integerValue(config[QStringLiteral("mode")]) == 0;
}

} // namespace

void ZELUpdater::checkForUpdates(const QVariantMap &config, ZELCheckCompletion completion)
{
    zel::checkForUpdates(config, completion);
}

void ZELUpdater::checkForUpdates(ZELCheckCompletion completion)
{
    setUpdate({});
    const bool interactive = isInteractive(m_config);
    if (interactive) {
        showCheckingView();
        bringForward();
    }
    zel::checkForUpdates(m_config,
                         [=, this](qint64 status, const QVariantMap &result, const QVariant &reserved) {
                             if (interactive && status == zel::UpdateAvailable)
                                 loadNotes(result, completion);
                             else if (completion)
                                 completion(status, result, reserved);
                         });
}

void ZELUpdater::bringForward()
{
    // Either key counts by being there, whatever its value: the host shows the window itself.
    const bool hostShows =
        m_config.contains(QStringLiteral("sheet")) || m_config.contains(QStringLiteral("hidechecking"));
    if (!m_window || hostShows || m_window->isSeen())
        return;
    m_window->center();
    m_window->makeKeyAndOrderFront();
}

void ZELUpdater::loadNotes(const QVariantMap &result, ZELCheckCompletion completion)
{
    downloadHistory(result, [=, this](const QByteArray &notes) {
        QVariantMap withNotes = result;
        if (!notes.isNull())
            withNotes[Notes] = notes;
        if (m_historyPage)
            m_historyPage->loadHTML(notes);
        zel::onMainQueueAfter(NotesDelay, [=] {
            if (completion)
                completion(zel::UpdateAvailable, withNotes, QVariant());
        });
    });
}

void ZELUpdater::downloadHistory(const QVariantMap &result,
                                 std::function<void(const QByteArray &)> completion)
{
    zel::downloadHistory(m_config, result, completion);
}

void ZELUpdater::showUpdate(std::function<void(qint64)> choice)
{
    if (!m_historyPage)
        return;
    const auto report = [choice](qint64 code) {
        if (choice)
            choice(code);
    };
    m_historyPage->downloadButton()->setOnClick([=, this] {
        showDownloadPage();
        report(Install);
    });
    m_historyPage->laterButton()->setOnClick([=] { report(Later); });
    m_historyPage->skipButton()->setOnClick([=] { report(Skip); });

    const QVariantMap result = update();
    const bool loaded = result.contains(Notes);
    if (!loaded)
        m_historyPage->loadURL(zel::historyUrl(result),
                               zel::historyPageBody(m_config, zel::MachineFacts::current()));
    m_historyPage->updateButtons(result);
    zel::onMainQueueAfter(loaded ? 0ms : NotesDelay, [this] { showHistoryPage(); });
}

void ZELUpdater::showHistoryPage()
{
    if (!m_historyPage)
        return;
    const QVariantMap record = update()[QStringLiteral("update")].toMap();
    m_historyPage->setAccessibleName(zel::offerTitle(record));
    m_historyPage->setAccessibleDescription(zel::offerText(m_config, record));
    if (!placePage(m_historyPage))
        return;
    resizeWindow(HistoryPageSize);
    zel::onMainQueueAfter(300ms, [this] { historyPageShown(); });
}

void ZELUpdater::historyPageShown()
{
    if (m_progressView)
        m_progressView->stopLooping();
    if (m_downloadView)
        m_downloadView->setHidden(true);
}

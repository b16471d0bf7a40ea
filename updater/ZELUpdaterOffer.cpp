// How the updater checks, and how it offers what it found.
#include "check/UpdateCheck.h"
#include "OfferTexts.h"
#include "platform/Queues.h"
#include "ui/ZELLayout.h"
#include "ui/ZELUpdaterButton.h"
#include "ui/ZELUpdaterPages.h"
#include "ui/ZELUpdaterProgressView.h"
#include "ZELUpdaterViews.h"

using namespace std::chrono_literals;

namespace {

constexpr QSize HistoryPageSize(500, 470);

// Time for the web view to draw the notes before it is seen.
constexpr auto NotesDelay = 500ms;

} // namespace

void ZELUpdater::checkForUpdates(const QVariantMap &config, ZELCheckCompletion completion)
{
    zel::checkForUpdates(zel::HostConfig::fromMap(config), completion);
}

void ZELUpdater::checkForUpdates(ZELCheckCompletion completion)
{
    setUpdate({});
    const zel::HostConfig config = zel::HostConfig::fromMap(m_config);
    const bool interactive = config.isInteractive;
    if (interactive) {
        showCheckingView();
        bringForward();
    }
    zel::checkForUpdates(config,
                         [=, this](qint64 status, const QVariantMap &result, const QVariant &reserved) {
                             if (interactive && status == ZELStatusUpdateAvailable)
                                 loadNotes(result, completion);
                             else if (completion)
                                 completion(status, result, reserved);
                         });
}

void ZELUpdater::bringForward()
{
    if (!m_window || zel::HostConfig::fromMap(m_config).hostShowsWindow || m_window->isSeen())
        return;
    m_window->center();
    m_window->makeKeyAndOrderFront();
}

void ZELUpdater::loadNotes(const QVariantMap &result, ZELCheckCompletion completion)
{
    downloadHistory(result, [=, this](const QByteArray &notes) {
        if (m_historyPage)
            m_historyPage->loadHTML(notes);
        zel::onMainQueueAfter(NotesDelay, [=] {
            if (completion)
                completion(ZELStatusUpdateAvailable, zel::withNotes(result, notes), QVariant());
        });
    });
}

void ZELUpdater::downloadHistory(const QVariantMap &result,
                                 std::function<void(const QByteArray &)> completion)
{
    zel::downloadHistory(zel::HostConfig::fromMap(m_config), zel::CheckResult::fromMap(result).historyUrl(),
                         completion);
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
        report(ZELChoiceInstall);
    });
    m_historyPage->laterButton()->setOnClick([=] { report(ZELChoiceLater); });
    m_historyPage->skipButton()->setOnClick([=] { report(ZELChoiceSkip); });

    const QVariantMap result = update();
    const bool loaded = zel::hasNotes(result);
    if (!loaded)
        m_historyPage->loadURL(
            zel::CheckResult::fromMap(result).historyUrl(),
            zel::historyPageBody(zel::HostConfig::fromMap(m_config), zel::MachineFacts::current()));
    m_historyPage->updateButtons(result);
    zel::onMainQueueAfter(loaded ? 0ms : NotesDelay, [this] { showHistoryPage(); });
}

void ZELUpdater::showHistoryPage()
{
    if (!m_historyPage)
        return;
    const QVariantMap record = update()[zel::key::Update].toMap();
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

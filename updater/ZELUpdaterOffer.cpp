// How the updater checks, and how it offers what it found: from the question to the host's choice.
//
// Each step asks again for what it shows, and does nothing when that has gone: between two steps the
// application may end, or the host set another update. The waits (`NotesDelay`) are there for the web view,
// which tells of a document that has loaded, not of one that is drawn. Later, Skip and Install are wired
// here, with each offer, for the host's callback is that one offer's; all other buttons are wired in
// ZELUpdaterNavigation.cpp.
#include "ZELUpdater.h"

#include "base/SafeText.h"
#include "check/UpdateCheck.h"
#include "platform/Queues.h"
#include "ui/Texts.h"
#include "ui/ZELUpdaterButton.h"
#include "ui/ZELUpdaterProgressView.h"
#include "ZELUpdaterViews.h"

#include <QGuiApplication>

using namespace std::chrono_literals;

namespace {

// Time for the web view to draw the notes before it is seen.
constexpr auto NotesDelay = 500ms;

// What a screen reader says of a version or a build: a server's words, of which nobody listens to more.
QString spoken(const QVariant &text)
{
    constexpr std::size_t longest = 48;
    return QString::fromStdString(zel::safeText(text.toString().toStdString(), longest));
}

// "Version 1.1 is available, you have 1.0."; the builds tell a rebuild of the same version apart. Null where
// one of the versions is not known.
QString spokenOffer(const QVariantMap &config, const QVariantMap &record)
{
    QString offered = spoken(record[zel::key::Version]);
    QString current = spoken(config[zel::key::Version]);
    if (offered.isEmpty() || current.isEmpty())
        return {};
    if (offered == current) {
        offered += QStringLiteral(" (%1)").arg(spoken(record[zel::key::Build]));
        current += QStringLiteral(" (%1)").arg(spoken(config[zel::key::Build]));
    }
    return zel::localized("Updater.Version %1 is available, you have %2.").arg(offered, current);
}

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
    zel::downloadHistory(zel::HostConfig::fromMap(m_config), zel::CheckResult::fromMap(result), completion);
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
    const zel::HostConfig config = zel::HostConfig::fromMap(m_config);
    const bool loaded = zel::hasNotes(result);
    if (!loaded && config.isPinned()) {
        // The page would show whatever comes; here it is compared with what was signed.
        downloadHistory(result, [this](const QByteArray &notes) {
            if (m_historyPage)
                m_historyPage->loadHTML(notes);
        });
    } else if (!loaded) {
        m_historyPage->loadURL(zel::CheckResult::fromMap(result).historyUrl(),
                               zel::historyPageBody(config, zel::MachineFacts::current()));
    }
    m_historyPage->updateButtons(result);
    zel::onMainQueueAfter(loaded ? 0ms : NotesDelay, [this] { showHistoryPage(); });
}

void ZELUpdater::showHistoryPage()
{
    if (!m_historyPage)
        return;
    const QVariantMap record = update()[zel::key::Update].toMap();
    const QString name = QGuiApplication::applicationDisplayName();
    m_historyPage->setAccessibleName(
        QStringLiteral("%1 %2").arg(name, spoken(record[zel::key::Version])).trimmed());
    m_historyPage->setAccessibleDescription(spokenOffer(m_config, record));
    if (!placePage(m_historyPage))
        return;
    resizeWindow(zel::HistoryPageSize);
    zel::onMainQueueAfter(300ms, [this] { historyPageShown(); });
}

void ZELUpdater::historyPageShown()
{
    if (m_progressView)
        m_progressView->stopLooping();
    if (m_downloadView)
        m_downloadView->setHidden(true);
}

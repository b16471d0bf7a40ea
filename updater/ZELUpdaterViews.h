// What the updater makes for itself to show.
#pragma once

#include "ui/ZELUpdaterHistoryPage.h"
#include "ui/ZELUpdaterPages.h"
#include "ui/ZELUpdaterWindow.h"

#include <QSize>

namespace zel {

/// The window's size while a page is shown: where each page's size comes from, for a page fills the window.
/// In points.
inline constexpr QSize PageSize(350, 400);
inline constexpr QSize HistoryPageSize(500, 470); // with the release notes

/// The pages go before the window that one of them may be in.
struct UpdaterViews {
    ZELUpdaterWindow window;
    ZELUpdaterCheckingPage checkingPage;
    ZELUpdaterHistoryPage historyPage;
    ZELUpdaterDownloadPage downloadPage;
    ZELUpdaterErrorPage errorPage;
    ZELUpdaterNoUpdatesPage noUpdatesPage;
    ZELUpdaterUpdatedPage updatedPage;
};

} // namespace zel

// What the updater makes for itself to show.
#pragma once

#include "ui/ZELUpdaterHistoryPage.h"
#include "ui/ZELUpdaterPages.h"
#include "ui/ZELUpdaterWindow.h"
#include "ZELUpdater.h"

/// The pages go before the window that one of them may be in.
struct ZELUpdater::Views {
    ZELUpdaterWindow window;
    ZELUpdaterCheckingPage checkingPage;
    ZELUpdaterHistoryPage historyPage;
    ZELUpdaterDownloadPage downloadPage;
    ZELUpdaterErrorPage errorPage;
    ZELUpdaterNoUpdatesPage noUpdatesPage;
    ZELUpdaterUpdatedPage updatedPage;
};

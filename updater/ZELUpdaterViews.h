// What the updater makes for itself to show.
#pragma once

#include "ZELUpdater.h"
#include "ZELUpdaterCheckingPage.h"
#include "ZELUpdaterDownloadPage.h"
#include "ZELUpdaterErrorPage.h"
#include "ZELUpdaterHistoryPage.h"
#include "ZELUpdaterNoUpdatesPage.h"
#include "ZELUpdaterUpdatedPage.h"
#include "ZELUpdaterWindow.h"

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

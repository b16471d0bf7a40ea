// The classes that the updater's properties point to, for its meta-object.
#pragma once

#include "ZELUpdaterButton.h"
#include "ZELUpdaterCheckingPage.h"
#include "ZELUpdaterDownloadPage.h"
#include "ZELUpdaterErrorPage.h"
#include "ZELUpdaterHistoryPage.h"
#include "ZELUpdaterNoUpdatesPage.h"
#include "ZELUpdaterProgressView.h"
#include "ZELUpdaterUpdatedPage.h"
#include "ZELUpdaterView.h"
#include "ZELUpdaterWindow.h"

// Only the notes module links the web engine.
Q_DECLARE_OPAQUE_POINTER(QWebEngineView *)

// The classes that the updater's properties point to, for its meta-object.
#pragma once

#include "ui/ZELUpdaterButton.h"
#include "ui/ZELUpdaterCheckingPage.h"
#include "ui/ZELUpdaterDownloadPage.h"
#include "ui/ZELUpdaterErrorPage.h"
#include "ui/ZELUpdaterHistoryPage.h"
#include "ui/ZELUpdaterNoUpdatesPage.h"
#include "ui/ZELUpdaterProgressView.h"
#include "ui/ZELUpdaterUpdatedPage.h"
#include "ui/ZELUpdaterView.h"
#include "ui/ZELUpdaterWindow.h"

// Only the notes module links the web engine.
Q_DECLARE_OPAQUE_POINTER(QWebEngineView *)

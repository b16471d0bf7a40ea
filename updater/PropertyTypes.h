// The classes that the updater's properties point to, for its meta-object.
#pragma once

#include "ui/ZELUpdaterButton.h"
#include "ui/ZELUpdaterHistoryPage.h"
#include "ui/ZELUpdaterPages.h"
#include "ui/ZELUpdaterProgressView.h"
#include "ui/ZELUpdaterWindow.h"

// Only the notes module links the web engine.
Q_DECLARE_OPAQUE_POINTER(QWebEngineView *)

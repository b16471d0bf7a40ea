// The status codes of checks and downloads, and their texts.
#pragma once

#include <QString>

namespace zel {

/// What a check reports. Hosts use the further codes of the table in `descriptionForStatus` for what follows.
enum CheckStatus : qint64 { CheckFailed = 0, UpdateAvailable = 1, NoUpdates = 2 };

/// The fixed English text of a check or update status; "Unknown Error" for a code without one.
QString descriptionForStatus(qint64 status);

/// The fixed English text of a download or extraction status; "Download Failed" for a code without one.
QString descriptionForDownloadStatus(qint64 status);

} // namespace zel

// The words that the updater and its host share: statuses and choices. Callbacks carry them as plain 64-bit
// numbers, so that a status this version does not know is no trap; the constants convert to that by
// themselves.
#pragma once

#include <QtGlobal>

/// What became of a check, and what a host may go on to tell its user with the same words. A check reports
/// the first three; the others are the host's own. `ZELUpdater::descriptionForStatus` has a text for each.
enum ZELStatus : qint64 {
    ZELStatusUnknownError = 0, ///< no usable answer came
    ZELStatusUpdateAvailable = 1, ///< the check result says which
    ZELStatusNoUpdates = 2,
    ZELStatusDownloadLimitReached = 3,
    ZELStatusPayloadProblem = 4,
    ZELStatusInstalledSuccessfully = 5,
    ZELStatusInstallError = 6,
    ZELStatusVersionSkipped = 7,
    ZELStatusRequiresForeground = 8
};

/// What became of a download or of one of the steps after it. `ZELUpdater::descriptionForDownloadStatus` has
/// a text for each.
enum ZELDownloadStatus : qint64 {
    ZELDownloadFailed = 0, ///< the transfer failed, or what came is not what was announced
    ZELDownloadSucceeded = 1, ///< the new bundle is ready
    ZELDownloadExtractionFailed = 2, ///< the archive holds no good bundle
    ZELDownloadPatchFailed = 3 ///< of `handlePatch` alone; the text for it is "Path Failed"
};

/// What the user chose on the release-notes page.
enum ZELChoice : qint64 {
    ZELChoiceLater = 0,
    ZELChoiceSkip = 1, ///< not this build; the host remembers which
    ZELChoiceInstall = 2
};

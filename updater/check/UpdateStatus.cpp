#include "UpdateStatus.h"

#include <array>

namespace zel {

namespace {

constexpr std::array StatusTexts = {
    "Unknown Error",
    "Update Available",
    "No Updates",
    "Download Attempt Limit Reached",
    "Payload Problem",
    "Installed Successfully",
    "Install Error",
    "Version Skipped",
    "Update Requires Foreground Updater",
};

constexpr std::array DownloadTexts = {"Download Failed", "Download Success", "Extraction Failed",
                                      "Path Failed"};

template <typename Texts> QString textOf(const Texts &texts, qint64 status)
{
    return QLatin1String(texts[status > 0 && status < qint64(texts.size()) ? size_t(status) : 0]);
}

} // namespace

QString descriptionForStatus(qint64 status)
{
    return textOf(StatusTexts, status);
}

QString descriptionForDownloadStatus(qint64 status)
{
    return textOf(DownloadTexts, status);
}

} // namespace zel

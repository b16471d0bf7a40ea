// "releases.json": the feed of a release folder, an array of update records.
#pragma once

#include "common/ZELError.h"

#include <QJsonArray>
#include <QString>

#include <functional>

namespace zel {

/// Reads the feed; a folder without one has no records yet. An error when it cannot be looked at or read,
/// when it is a link or no file, is larger than four times what clients read, or is no array of objects.
ZELError readFeed(const QString &folder, QJsonArray &records);

/// Replaces the feed at once, one record in each line. An error, which says what to do, where it would be
/// more than clients read (FeedLimits), with room for the addresses that servers make absolute; from three
/// quarters of that on it is said.
ZELError writeFeed(const QString &folder, const QJsonArray &records,
                   const std::function<void(const QString &line)> &say);

} // namespace zel

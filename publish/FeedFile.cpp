#include "FeedFile.h"

#include "common/UpdateRecord.h"
#include "platform/BoundedJson.h"
#include "ReleaseFiles.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <array>
#include <utility>

namespace zel {

namespace {

const QLatin1String FeedName("/releases.json");
constexpr qint64 MostBytes = FeedLimits::Bytes / 8 * 7; // the rest is for the addresses' beginnings

// A person takes records out, and reads differences, by the line. Indented, it would be a third larger.
QByteArray textOf(const QJsonArray &records)
{
    QByteArrayList lines;
    for (const QJsonValue record : records)
        lines += QJsonDocument(record.toObject()).toJson(QJsonDocument::Compact);
    return "[\n" + lines.join(",\n") + "\n]\n";
}

ZELError checkRoom(const QByteArray &text, qsizetype records,
                   const std::function<void(const QString &line)> &say)
{
    const std::array<std::pair<qint64, qint64>, 3> shares{
        {{text.size(), MostBytes}, {valuesIn(text), FeedLimits::Values}, {records, FeedLimits::Records}}};
    const auto exceeds = [&shares](int quarters) {
        return std::any_of(shares.begin(), shares.end(),
                           [=](const auto &share) { return share.first > share.second / 4 * quarters; });
    };
    const QString state =
        QStringLiteral("the feed takes %1, and clients read no more than %2, with addresses in full, or %3 "
                       "values: take the records of the oldest builds out of releases.json, and name them "
                       "with --withdrawn")
            .arg(sizeText(text.size()), sizeText(FeedLimits::Bytes))
            .arg(FeedLimits::Values);
    if (exceeds(4))
        return ZELError::withMessage(state);
    if (exceeds(3))
        say(QLatin1String("soon too large: ") + state);
    return {};
}

} // namespace

ZELError readFeed(const QString &folder, QJsonArray &records)
{
    constexpr qint64 leniency = 4; // it can be read here, to be made smaller
    records = {};
    bool isThere = false;
    if (const ZELError error = lookAt(folder, isThere))
        return error;
    if (isThere && !QFileInfo(folder).isDir())
        return ZELError::withMessage(folder
                                     + QLatin1String(" is not a folder, or a link that leads nowhere"));
    const QString feed = folder + FeedName;
    if (const ZELError error = lookAt(feed, isThere); error || !isThere)
        return error;
    QByteArray bytes;
    QJsonDocument json;
    if (const ZELError error = readPublished(feed, leniency * FeedLimits::Bytes, bytes))
        return error;
    if (const ZELError error = parseJson(bytes, leniency * FeedLimits::Values, json))
        return ZELError::withMessage(feed + QLatin1String(" cannot be read: ") + error.message);
    records = json.array();
    const bool isFeed = json.isArray()
        && std::all_of(records.constBegin(), records.constEnd(),
                       [](const QJsonValue &record) { return record.isObject(); });
    return isFeed
        ? ZELError()
        : ZELError::withMessage(feed + QLatin1String(" is not a feed: it must hold a JSON array of records"));
}

ZELError writeFeed(const QString &folder, const QJsonArray &records,
                   const std::function<void(const QString &line)> &say)
{
    const QByteArray text = textOf(records);
    const ZELError error = checkRoom(text, records.size(), say);
    return error ? error : writeDurably(folder + FeedName, text);
}

} // namespace zel

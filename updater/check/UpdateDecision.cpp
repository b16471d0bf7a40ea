// The decision is a pure function of the reply, the configuration, the installed build and the machine's
// facts, so that tests and fuzzing reach all of it without a server. Records are looked at one after the
// other, in the server's order, and only the best so far is kept: a reply of ten thousand records costs no
// more memory than its text.
//
// Keys act by being there: a "beta" of false marks a beta build, as a "patchonly" of null keeps the archive
// from those without a patch. Servers and hosts rely on it.
#include "UpdateDecision.h"

#include "common/DDLog.h"
#include "platform/BoundedJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace zel {

namespace {

constexpr qsizetype MostRecords = 10'000;

// Records as long as the protocol makes them have fewer in 4 MiB.
constexpr qsizetype MostValues = 200'000;

// The records of a reply; nothing when it is none.
std::optional<QJsonArray> recordsIn(const QByteArray &body)
{
    QJsonDocument reply;
    if (const ZELError error = parseJson(body, MostValues, reply)) {
        systemLog(QLatin1String("the reply of the check is not read: ") + error.message);
        return std::nullopt;
    }
    if (!reply.isArray() || reply.array().size() > MostRecords)
        return std::nullopt;
    return reply.array();
}

bool reject(const char *why)
{
    DDLogInfo(QLatin1String(why));
    return false;
}

bool suits(const UpdateRecord &record, const HostConfig &config, const MachineFacts &facts)
{
    if (record.build <= config.buildNumber())
        return reject("version is old");
    if (record.platform) {
        const auto [major, minor, patch] = *record.platform;
        if (!(facts.system >= SystemVersion{major, minor, patch}))
            return reject("platform is not valid");
        DDLogInfo(QStringLiteral("platform is valid"));
    }
    if (record.arch) {
        if (!isArchSupported(*record.arch, facts))
            return reject("arch is not valid");
        DDLogInfo(QStringLiteral("arch is valid"));
    }
    if (record.isBeta && !config.acceptsBeta)
        return reject("beta updates not allowed");
    return true;
}

// Of two equal builds the earlier one stays: the server's order is its ranking.
std::optional<UpdateRecord> bestRecord(const QJsonArray &records, const HostConfig &config,
                                       const MachineFacts &facts)
{
    std::optional<UpdateRecord> best;
    for (const QJsonValue &value : records) {
        UpdateRecord record = UpdateRecord::fromMap(value.toObject().toVariantMap());
        if (suits(record, config, facts) && record.build > (best ? best->build : 0)) {
            best = std::move(record);
            DDLogInfo(QStringLiteral("found new build"));
        }
    }
    return best;
}

// Deliberate: from the bundle's own build, not the configured one, which is only what the host says of
// itself.
std::optional<PatchEntry> patchFrom(std::optional<qint64> installedBuild, const UpdateRecord &record)
{
    for (const PatchEntry &patch : record.patches) {
        if (patch.build == installedBuild)
            return patch;
    }
    return std::nullopt;
}

} // namespace

MachineFacts MachineFacts::current()
{
    return {architectureWord(), systemVersion(), modelIdentifier()};
}

bool isArchSupported(const QString &arch, const MachineFacts &facts)
{
    return !arch.isNull() && (arch == facts.architecture || arch == QLatin1String("all"));
}

Decision decideUpdate(const QByteArray &body, const HostConfig &config, std::optional<qint64> installedBuild,
                      const MachineFacts &facts)
{
    const std::optional<QJsonArray> records = recordsIn(body);
    if (!records)
        return {ZELStatusUnknownError};
    const std::optional<UpdateRecord> best = bestRecord(*records, config, facts);
    if (!best)
        return {ZELStatusNoUpdates};
    const std::optional<PatchEntry> patch = patchFrom(installedBuild, *best);
    if (!patch && best->isPatchOnly)
        return {ZELStatusNoUpdates};
    return {ZELStatusUpdateAvailable, {best, patch}};
}

} // namespace zel

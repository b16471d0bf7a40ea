#include "UpdateDecision.h"

#include "common/DDLog.h"
#include "common/WireValues.h"
#include "platform/BoundedJson.h"
#include "UpdateStatus.h"

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

qint64 buildOf(const QVariantMap &entry)
{
    return integerValue(entry[QStringLiteral("build")]);
}

SystemVersion versionOf(const QVariantMap &platform)
{
    return {integerValue(platform[QStringLiteral("major")]), integerValue(platform[QStringLiteral("minor")]),
            integerValue(platform[QStringLiteral("patch")])};
}

bool reject(const char *why)
{
    DDLogInfo(QLatin1String(why));
    return false;
}

// Keys act by being there: null, false and 0 count.
bool suits(const QVariantMap &record, const QVariantMap &config, const MachineFacts &facts)
{
    if (buildOf(record) <= buildOf(config))
        return reject("version is old");
    if (record.contains(QStringLiteral("platform"))) {
        if (!(facts.system >= versionOf(record[QStringLiteral("platform")].toMap())))
            return reject("platform is not valid");
        DDLogInfo(QStringLiteral("platform is valid"));
    }
    if (const auto arch = record.constFind(QStringLiteral("arch")); arch != record.constEnd()) {
        if (arch->typeId() != QMetaType::QString || !isArchSupported(arch->toString(), facts))
            return reject("arch is not valid");
        DDLogInfo(QStringLiteral("arch is valid"));
    }
    if (record.contains(QStringLiteral("beta")) && !config.contains(QStringLiteral("beta")))
        return reject("beta updates not allowed");
    return true;
}

std::optional<QVariantMap> bestRecord(const QJsonArray &records, const QVariantMap &config,
                                      const MachineFacts &facts)
{
    std::optional<QVariantMap> best;
    for (const QJsonValue &value : records) {
        const QVariantMap record = value.toObject().toVariantMap();
        if (suits(record, config, facts) && buildOf(record) > (best ? buildOf(*best) : 0)) {
            best = record;
            DDLogInfo(QStringLiteral("found new build"));
        }
    }
    return best;
}

std::optional<QVariantMap> patchFrom(qint64 installedBuild, const QVariantMap &record)
{
    const QVariantList patches = record[QStringLiteral("patches")].toList();
    for (const QVariant &value : patches) {
        if (value.typeId() == QMetaType::QVariantMap && buildOf(value.toMap()) == installedBuild)
            return value.toMap();
    }
    return std::nullopt;
}

} // namespace

Decision decideUpdate(const QByteArray &body, const QVariantMap &config, std::optional<qint64> installedBuild,
                      const MachineFacts &facts)
{
    const std::optional<QJsonArray> records = recordsIn(body);
    if (!records)
        return {CheckFailed, {}};
    const std::optional<QVariantMap> best = bestRecord(*records, config, facts);
    if (!best)
        return {NoUpdates, {}};
    const auto patch = installedBuild ? patchFrom(*installedBuild, *best) : std::nullopt;
    if (!patch && best->contains(QStringLiteral("patchonly")))
        return {NoUpdates, {}};
    QVariantMap result{{QStringLiteral("update"), *best}};
    if (patch)
        result[QStringLiteral("patch")] = *patch;
    return {UpdateAvailable, result};
}

} // namespace zel

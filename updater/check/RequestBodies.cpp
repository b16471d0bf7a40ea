#include "RequestBodies.h"

#include "common/WireValues.h"
#include "install/PatchLog.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace zel {

namespace {

QJsonObject systemObject(const SystemVersion &system)
{
    // Deliberate: "patch" carries the minor version again; the server's records are matched to that.
    return {{QLatin1String("major"), system.majorVersion},
            {QLatin1String("minor"), system.minorVersion},
            {QLatin1String("patch"), system.minorVersion}};
}

void passThrough(QJsonObject &body, const QVariantMap &config, const QString &key)
{
    if (config.contains(key))
        body[key] = jsonValue(config[key]);
}

QByteArray compact(const QJsonObject &body)
{
    return QJsonDocument(body).toJson(QJsonDocument::Compact);
}

} // namespace

MachineFacts MachineFacts::current()
{
    return {architectureWord(), systemVersion(), modelIdentifier()};
}

QByteArray checkRequestBody(const QVariantMap &config, const MachineFacts &facts)
{
    QJsonObject body{{QLatin1String("arch"), facts.architecture},
                     {QLatin1String("os"), systemObject(facts.system)}};
    if (!facts.model.isNull())
        body[QLatin1String("model")] = facts.model;
    passThrough(body, config, QStringLiteral("build"));
    return compact(body);
}

QByteArray historyPageBody(const QVariantMap &config, const MachineFacts &facts)
{
    QJsonObject body{{QLatin1String("arch"), facts.architecture}};
    passThrough(body, config, QStringLiteral("build"));
    return compact(body);
}

QByteArray logUploadBody(const QVariantMap &config, const QVariantList &log, const MachineFacts &facts)
{
    QJsonObject body{{QLatin1String("arch"), facts.architecture},
                     {QLatin1String("os"), systemObject(facts.system)},
                     {QLatin1String("log"), patchLogToUpload(log)}};
    passThrough(body, config, QStringLiteral("build"));
    passThrough(body, config, QStringLiteral("version"));
    return compact(body);
}

bool isArchSupported(const QString &arch, const MachineFacts &facts)
{
    return !arch.isNull() && (arch == facts.architecture || arch == QLatin1String("all"));
}

} // namespace zel

#include "HostConfig.h"

#include "UpdateRecord.h"
#include "WireValues.h"

namespace zel {

namespace {

std::optional<QVariant> valueUnder(const QString &name, const QVariantMap &map)
{
    const auto value = map.constFind(name);
    return value == map.constEnd() ? std::nullopt : std::optional<QVariant>(*value);
}

} // namespace

HostConfig HostConfig::fromMap(const QVariantMap &map)
{
    return {.url = map[key::Url].toString(),
            .server = map[key::Server].toString(),
            .path = map[key::Path].toString(),
            .build = valueUnder(key::Build, map),
            .version = valueUnder(key::Version, map),
            .signers = valueUnder(key::Signers, map),
            .threshold = valueUnder(key::Threshold, map),
            .issued = valueUnder(key::Issued, map),
            .acceptsBeta = map.contains(key::Beta),
            .isInteractive = integerValue(map[key::Mode]) == 0,
            .hostShowsWindow = map.contains(key::Sheet) || map.contains(key::HideChecking)};
}

qint64 HostConfig::buildNumber() const
{
    return build ? integerValue(*build) : 0;
}

} // namespace zel

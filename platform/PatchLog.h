// The patch log: what happened while a patch was applied, for the people who made the patch.
#pragma once

#include <QJsonArray>
#include <QVariantList>
#include <QVariantMap>

namespace zel {

inline void appendEntry(QVariantList &log, const QString &description, QVariantMap keys = {})
{
    keys[QStringLiteral("description")] = description;
    log.append(keys);
}

/// The log as JSON has it: byte arrays ("original" and "new") as base64 text.
QJsonArray patchLogJson(const QVariantList &log);

} // namespace zel

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

/// The log as it may leave the machine: of each path the last name, no home folder, no file's content above 1
/// MiB, and of a log that takes more than `limit` bytes as JSON only the last entries that fit, which tell
/// why it failed.
QJsonArray patchLogToUpload(const QVariantList &log, qint64 limit = qint64(16) << 20);

} // namespace zel

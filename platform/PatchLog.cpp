#include "PatchLog.h"

QJsonArray zel::patchLogJson(const QVariantList &log)
{
    QJsonArray entries;
    for (const QVariant &entry : log) {
        QVariantMap keys = entry.toMap();
        for (QVariant &value : keys) {
            if (value.typeId() == QMetaType::QByteArray)
                value = QString::fromLatin1(value.toByteArray().toBase64());
        }
        entries.append(QJsonValue::fromVariant(keys));
    }
    return entries;
}

#include "FeedRecord.h"

#include "common/UpdateRecord.h"
#include "common/WireValues.h"
#include "ReleaseFiles.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QUrl>

namespace zel {

namespace {

ZELError isMissing(const QJsonObject &record, const QString &folder, const QJsonValue &address)
{
    return recordError(record,
                       QStringLiteral("there is no file \"%1\" in %2; bring it back, or take the build's "
                                      "record out of releases.json")
                           .arg(nameOf(address), folder));
}

ZELError isAnother(const QJsonObject &record, const QJsonValue &address)
{
    return recordError(record,
                       nameOf(address)
                           + QLatin1String(" is not the file that the record describes; bring that back, or "
                                           "take the record out of releases.json"));
}

// The path of what lies right in the folder; an error for any other address.
ZELError findFile(const QString &folder, const QJsonObject &record, const QJsonValue &address, QString &path)
{
    const QString name = nameOf(address);
    bool isThere = false;
    path = folder + u'/' + name;
    if (!name.isEmpty() && !name.contains(u'/') && !name.contains(QChar(u'\0')) && !name.startsWith(u'.')) {
        if (const ZELError error = lookAt(path, isThere))
            return recordError(record, error.message);
    }
    return isThere ? ZELError() : isMissing(record, folder, address);
}

} // namespace

qint64 buildOf(const QJsonValue &entry)
{
    return integerValue(entry[key::Build].toVariant());
}

ZELError recordError(const QJsonObject &record, const QString &message)
{
    return ZELError::withMessage(QStringLiteral("build %1: %2").arg(buildOf(record)).arg(message));
}

QString addressOf(const QString &name)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(name));
}

QString nameOf(const QJsonValue &address)
{
    return QUrl::fromPercentEncoding(address.toString().toLatin1());
}

ZELError describeFile(const QString &folder, const QJsonObject &record, QJsonObject &entry,
                      const QString &copy)
{
    QString path;
    if (const ZELError error = findFile(folder, record, entry[key::File], path))
        return error;
    OfferedFile facts;
    facts.file = entry[key::File].toString();
    ZELError error = copy.isEmpty() ? ZELError() : copyPublished(path, copy);
    if (!error)
        error = settleFile(copy.isEmpty() ? path : copy, facts);
    if (error)
        return recordError(record, error.message);
    QJsonObject described;
    facts.announceIn(described);
    return mergeFacts(record, described, entry);
}

ZELError mergeFacts(const QJsonObject &record, const QJsonObject &described, QJsonObject &entry)
{
    for (const QLatin1String name : {key::Size, key::Hash, key::SHA256}) {
        if (entry.contains(name) && entry[name] != described[name])
            return isAnother(record, entry[key::File]);
        entry[name] = described[name];
    }
    return {};
}

ZELError describeNotes(const QString &folder, QJsonObject &record)
{
    QString path;
    QByteArray notes;
    if (!record.contains(key::History))
        return {};
    if (const ZELError error = findFile(folder, record, record[key::History], path))
        return error;
    if (const ZELError error = readPublished(path, FeedLimits::Bytes, notes))
        return recordError(record, error.message);
    const QString found =
        QString::fromLatin1(QCryptographicHash::hash(notes, QCryptographicHash::Sha256).toHex());
    if (record.contains(key::HistorySHA256) && record[key::HistorySHA256] != found)
        return isAnother(record, record[key::History]);
    record[key::HistorySHA256] = found;
    return {};
}

ZELError describeFiles(const QString &folder, QJsonObject &record)
{
    if (const ZELError error = describeFile(folder, record, record))
        return error;
    QJsonArray patches = record[key::Patches].toArray();
    for (QJsonValueRef patch : patches) {
        QJsonObject entry = patch.toObject();
        if (const ZELError error = describeFile(folder, record, entry))
            return error;
        patch = entry;
    }
    record[key::Patches] = patches;
    return describeNotes(folder, record);
}

} // namespace zel

// A log is of use to the people who made the patch and private to the user whose machine wrote it. It is kept
// whole on the machine; what leaves it goes through `anonymous` here, and nowhere else: last names instead of
// paths, no home folder, no large contents. The reasons of system errors stay, for they are what a log is
// read for.
#include "PatchLog.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>
#include <vector>

namespace zel {

namespace {

constexpr qsizetype ContentLimit = 1 << 20;

QJsonObject entryJson(QVariantMap keys)
{
    for (QVariant &value : keys) {
        if (value.typeId() == QMetaType::QByteArray)
            value = QString::fromLatin1(value.toByteArray().toBase64());
    }
    return QJsonObject::fromVariantMap(keys);
}

QString lastName(QString path)
{
    while (path.endsWith(u'/'))
        path.chop(1);
    return path.section(u'/', -1);
}

// Blanks and colons do not end a path, so all from the first absolute one to the last slash goes. What a
// reason behind the last colon says stays whole ("Input/output error").
QString withoutFolders(QString text)
{
    static const QRegularExpression absolute(QStringLiteral(R"((?<![^\s"'(:=,])~?/)"));
    if (const QString home = QDir::homePath(); home.size() > 1)
        text.replace(home, QLatin1String("~"));
    const qsizetype colon = text.lastIndexOf(QLatin1String(": "));
    const bool hasReason = colon >= 0 && !QStringView(text).mid(colon).contains(absolute);
    const qsizetype end = hasReason ? colon : text.size();
    const QRegularExpressionMatch first = absolute.match(text.left(end));
    if (first.hasMatch())
        text.remove(first.capturedStart(),
                    QStringView(text).first(end).lastIndexOf(u'/') + 1 - first.capturedStart());
    return text;
}

QVariantMap anonymous(const QVariantMap &keys)
{
    QVariantMap result;
    for (auto key = keys.begin(); key != keys.end(); ++key) {
        if (key->typeId() == QMetaType::QString)
            result[key.key()] = key.key() == QLatin1String("path") ? lastName(key->toString())
                                                                   : withoutFolders(key->toString());
        else if (key->typeId() != QMetaType::QByteArray || key->toByteArray().size() <= ContentLimit)
            result[key.key()] = *key;
    }
    return result;
}

} // namespace

QJsonArray patchLogJson(const QVariantList &log)
{
    QJsonArray entries;
    for (const QVariant &entry : log)
        entries.append(entryJson(entry.toMap()));
    return entries;
}

QJsonArray patchLogToUpload(const QVariantList &log, qint64 limit)
{
    std::vector<QJsonObject> entries; // the last one first
    for (auto entry = log.rbegin(); entry != log.rend(); ++entry) {
        const QJsonObject object = entryJson(anonymous(entry->toMap()));
        limit -= QJsonDocument(object).toJson(QJsonDocument::Compact).size() + 1;
        if (limit < 0)
            break;
        entries.push_back(object);
    }
    QJsonArray result;
    std::for_each(entries.rbegin(), entries.rend(),
                  [&result](const QJsonObject &object) { result.append(object); });
    return result;
}

} // namespace zel

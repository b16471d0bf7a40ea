// The border between maps that strangers fill and the flows that act on them. Odd types are judged here and
// nowhere else, each so that the flows need no second look: a build may be a number or a text, as servers
// write both; a hash, an address or an architecture of another type than text is worth nothing, and suits
// nobody; a key that acts by its presence acts whatever its value is.
//
// What came is kept beside what was read (`received`). Hosts are handed that: a key of theirs that this
// version does not know, or a build that is a text, reaches them as the server wrote it. Rejected was to
// write maps back from the fields, which would have changed both.
#include "UpdateRecord.h"

#include "WireValues.h"

#include <QJsonArray>

#include <cmath>

namespace zel {

namespace {

bool isText(const QVariant &value)
{
    return value.typeId() == QMetaType::QString;
}

// Nothing where the key is missing; null where it holds another type.
std::optional<QString> textUnder(const QString &name, const QVariantMap &map)
{
    const auto value = map.constFind(name);
    if (value == map.constEnd())
        return std::nullopt;
    return isText(*value) ? value->toString() : QString();
}

// A whole number as JSON has it. Deliberate: a text is no size, although it is a build.
std::optional<qint64> countUnder(const QString &name, const QVariantMap &map)
{
    const auto value = map.constFind(name);
    if (value == map.constEnd())
        return std::nullopt;
    const bool whole = value->typeId() == QMetaType::LongLong
        || (value->typeId() == QMetaType::Double && std::trunc(value->toDouble()) == value->toDouble());
    return qMax(whole ? value->toLongLong() : -1, qint64(-1));
}

UpdateRecord::System systemFrom(const QVariantMap &map)
{
    return {integerValue(map[key::Major]), integerValue(map[key::Minor]), integerValue(map[key::Patch])};
}

OfferedFile fileFrom(const QVariantMap &map)
{
    const QVariant hash = map[key::Hash];
    return {integerValue(map[key::Build]),
            map[key::File].toString(),
            isText(hash) ? std::optional(hash.toString()) : std::nullopt,
            textUnder(key::SHA256, map),
            countUnder(key::Size, map),
            map};
}

// Nobody knows a null word.
QStringList wordsFrom(const QVariant &value)
{
    if (value.typeId() != QMetaType::QVariantList)
        return {QString()};
    QStringList words;
    for (const QVariant &word : value.toList())
        words.append(isText(word) ? word.toString() : QString());
    return words;
}

QList<PatchEntry> patchesFrom(const QVariantList &values)
{
    QList<PatchEntry> patches;
    for (const QVariant &value : values) {
        if (value.typeId() == QMetaType::QVariantMap)
            patches.append(PatchEntry::fromMap(value.toMap()));
    }
    return patches;
}

} // namespace

void OfferedFile::announceIn(QJsonObject &entry) const
{
    entry[key::File] = file;
    if (hash)
        entry[key::Hash] = *hash;
    if (sha256)
        entry[key::SHA256] = *sha256;
    if (size)
        entry[key::Size] = *size;
}

PatchEntry PatchEntry::fromMap(const QVariantMap &map)
{
    PatchEntry entry{fileFrom(map)};
    if (map.contains(key::Format))
        entry.format = qMax(countUnder(key::Format, map).value_or(0), qint64(0));
    if (map.contains(key::Requires))
        entry.requirements = wordsFrom(map[key::Requires]);
    return entry;
}

QJsonObject PatchEntry::toJson() const
{
    QJsonObject entry{{key::Build, build}};
    if (format > 1) {
        entry[key::Format] = format;
        entry[key::Requires] = QJsonArray::fromStringList(requirements);
    }
    announceIn(entry);
    return entry;
}

UpdateRecord UpdateRecord::fromMap(const QVariantMap &map)
{
    UpdateRecord record{fileFrom(map)};
    record.version = map[key::Version].toString();
    record.shownBuild = map[key::Build].toString();
    record.history = map[key::History].toString();
    if (map.contains(key::Platform))
        record.platform = systemFrom(map[key::Platform].toMap());
    record.arch = textUnder(key::Arch, map);
    record.isBeta = map.contains(key::Beta);
    record.isPatchOnly = map.contains(key::PatchOnly);
    record.patches = patchesFrom(map[key::Patches].toList());
    record.identifier = textUnder(key::Identifier, map).value_or(QString());
    record.historySHA256 = textUnder(key::HistorySHA256, map).value_or(QString());
    record.issued = qMax(countUnder(key::Issued, map).value_or(0), qint64(0));
    record.expires = qMax(countUnder(key::Expires, map).value_or(0), qint64(0));
    return record;
}

UpdateRecord UpdateRecord::resolvedAgainst(const QUrl &base) const
{
    const auto resolved = [&base](QVariantMap entry) {
        for (const QLatin1String name : {key::File, key::History}) {
            if (entry.contains(name))
                entry[name] = base.resolved(QUrl(entry[name].toString())).toString(QUrl::FullyEncoded);
        }
        return entry;
    };
    QVariantMap map = resolved(received);
    QVariantList entries;
    for (const PatchEntry &patch : patches)
        entries.append(resolved(patch.received));
    map[key::Patches] = entries;
    return fromMap(map);
}

QJsonObject UpdateRecord::toJson() const
{
    QJsonObject record{{key::Build, build}, {key::Version, version}};
    announceIn(record);
    QJsonArray entries;
    for (const PatchEntry &patch : patches)
        entries.append(patch.toJson());
    record[key::Patches] = entries;
    if (arch)
        record[key::Arch] = *arch;
    if (isBeta)
        record[key::Beta] = true;
    if (isPatchOnly)
        record[key::PatchOnly] = true;
    if (!history.isEmpty())
        record[key::History] = history;
    if (!historySHA256.isEmpty())
        record[key::HistorySHA256] = historySHA256;
    if (!identifier.isEmpty())
        record[key::Identifier] = identifier;
    return record;
}

CheckResult CheckResult::fromMap(const QVariantMap &map)
{
    CheckResult result;
    if (map.contains(key::Update))
        result.update = UpdateRecord::fromMap(map[key::Update].toMap());
    if (map.contains(key::Patch))
        result.patch = PatchEntry::fromMap(map[key::Patch].toMap());
    if (map.contains(key::Issued))
        result.issued = countUnder(key::Issued, map);
    return result;
}

QVariantMap CheckResult::toMap() const
{
    QVariantMap map;
    if (update)
        map[key::Update] = update->received;
    if (patch)
        map[key::Patch] = patch->received;
    if (issued)
        map[key::Issued] = *issued;
    return map;
}

QUrl CheckResult::historyUrl() const
{
    return update ? QUrl(update->history) : QUrl();
}

QVariantMap withoutPatch(QVariantMap result)
{
    result.remove(key::Patch);
    return result;
}

QVariantMap withNotes(QVariantMap result, const QByteArray &notes)
{
    if (!notes.isNull())
        result[key::Html] = notes;
    return result;
}

bool hasNotes(const QVariantMap &result)
{
    return result.contains(key::Html);
}

} // namespace zel

// A check meets many records and may spend next to nothing on each, so what a record says is judged first,
// and a signature is verified only of one that would be taken. That order is safe: what is not verified
// decides nothing but what is looked at next.
//
// A record is read from its signature twice, at the check and again when the update begins: between the two,
// the result is in the host's hands, may be kept there for days, and expire.
#include "SignedRecord.h"

#include "common/DDLog.h"
#include "common/WireValues.h"
#include "platform/BoundedJson.h"
#include "platform/BundleInfo.h"
#include "seal/ConfiguredSigners.h"
#include "seal/SealSignature.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <limits>

namespace zel {

namespace {

constexpr qsizetype LongestText = (MaxSignatureSize + 2) / 3 * 4; // a hundred patches take a tenth
constexpr qint64 MostValues = 20'000;
constexpr qint64 ClockTolerance = 24 * 60 * 60; // seconds: clocks in another time zone by mistake

bool isKnown(const OfferedFile &file)
{
    return file.size.value_or(0) > 0 && file.sha256 && file.sha256->size() == 64 && file.hash;
}

// What hosts keep of an "issued": a number, or a text of digits as files of settings have it; nothing, or an
// invalid value, before the first. Anything else lets no record pass, rather than every one.
qint64 secondsSeen(const std::optional<QVariant> &issued)
{
    if (!issued || !issued->isValid() || issued->isNull())
        return 0;
    bool understood = false;
    const double seconds = issued->toDouble(&understood);
    constexpr double latest = 1e15; // in thirty million years
    if (understood && issued->typeId() != QMetaType::Bool && seconds >= 0 && seconds <= latest)
        return qint64(seconds);
    DDLogInfo(QStringLiteral("\"issued\" is no number of seconds: no record is accepted"));
    return std::numeric_limits<qint64>::max();
}

ZELError refused(const QString &why)
{
    return ZELError::withMessage(why);
}

} // namespace

std::optional<RecordPolicy> recordPolicy(const HostConfig &config)
{
    const SignerPins pins = pinnedSigners(config);
    if (!pins)
        return std::nullopt;
    const QVariantMap info =
        config.path.isEmpty() ? QVariantMap() : bundleInfo(config.path).value_or(QVariantMap());
    const QVariant build = info[QStringLiteral("CFBundleVersion")];
    return RecordPolicy{.signers = *pins,
                        .identifier = info[QStringLiteral("CFBundleIdentifier")].toString(),
                        .seen = secondsSeen(config.issued),
                        .now = QDateTime::currentSecsSinceEpoch(),
                        .installedBuild =
                            build.isValid() ? std::optional(integerValue(build)) : std::nullopt};
}

SignerPins pinsOf(const std::optional<RecordPolicy> &policy)
{
    return policy ? SignerPins(policy->signers) : std::nullopt;
}

QString dateText(qint64 seconds)
{
    const QString text = QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC).toString(Qt::ISODate);
    return text.isEmpty() ? QString::number(seconds) : text;
}

std::optional<SignedRecord> SignedRecord::read(const QString &text)
{
    if (text.isEmpty() || text.size() > LongestText)
        return std::nullopt;
    SignedRecord result;
    result.message = QByteArray::fromBase64(text.toLatin1());
    QJsonDocument json;
    if (parseJson(contentOf(result.message), MostValues, json) || !json.isObject())
        return std::nullopt;
    QJsonObject object = json.object();
    const QJsonArray builds = object.take(key::Builds).toArray();
    QVariantMap map = object.toVariantMap();
    map[key::Signed] = text;
    result.record = UpdateRecord::fromMap(map);
    // Hosts have no use for them, and a hundred records have ten thousand.
    for (const QJsonValue build : builds)
        result.record.builds.append(build.toInteger());
    return result;
}

ZELError judgeRecord(const UpdateRecord &record, const RecordPolicy &policy)
{
    if (record.issued <= 0 || record.expires <= record.issued)
        return refused(QStringLiteral("it does not say from when until when it is good"));
    if (record.expires - record.issued > LongestValidity)
        return refused(QStringLiteral("it says that it is good for longer than a year"));
    if (!record.builds.contains(record.build))
        return refused(QStringLiteral("it does not say which builds there are"));
    if (record.identifier != policy.identifier && policy.identifier.isEmpty())
        return refused(
            QStringLiteral("it is for \"%1\", and the installed bundle, under \"path\", states no identifier")
                .arg(record.identifier.left(100)));
    if (record.identifier != policy.identifier)
        return refused(QStringLiteral("it is for another application, \"%1\" and not \"%2\"")
                           .arg(record.identifier.left(100), policy.identifier));
    if (record.issued - ClockTolerance > policy.now)
        return refused(
            QStringLiteral("it was issued at %1, which is still to come: this computer's clock says %2")
                .arg(dateText(record.issued), dateText(policy.now)));
    if (record.expires <= policy.now)
        return refused(
            QStringLiteral("it expired at %1: the server offers an old one, or this computer's clock, "
                           "which says %2, is wrong")
                .arg(dateText(record.expires), dateText(policy.now)));
    if (record.issued < policy.seen)
        return refused(QStringLiteral("it was issued at %1, and a newer one of %2 has been seen: a replay")
                           .arg(dateText(record.issued), dateText(policy.seen)));
    if (!isKnown(record))
        return refused(QStringLiteral("it does not say what its archive is known by"));
    return {};
}

ZELError verifyRecord(const SignedRecord &record, const RecordPolicy &policy)
{
    return verifyMessage(record.message, policy.signers, record.record.issued);
}

ZELError trustedOffer(const CheckResult &result, const std::optional<RecordPolicy> &policy,
                      CheckResult &trusted)
{
    trusted = result;
    if (!policy)
        return {};
    trusted.update.reset();
    trusted.patch.reset();
    const auto record =
        result.update ? SignedRecord::read(result.update->received[key::Signed].toString()) : std::nullopt;
    if (!record)
        return refused(QStringLiteral("the update's record bears no signature, and signers are pinned"));
    ZELError error = judgeRecord(record->record, *policy);
    if (!error)
        error = verifyRecord(*record, *policy);
    // A result may have been kept while another update came.
    if (!error && policy->installedBuild && record->record.build <= *policy->installedBuild)
        error = refused(QStringLiteral("build %1 is installed").arg(*policy->installedBuild));
    if (error)
        return refused(QStringLiteral("the record of build %1 is refused: %2")
                           .arg(record->record.build)
                           .arg(error.message));
    trusted.update = record->record;
    trusted.update->file = result.update->file;
    for (const PatchEntry &entry : record->record.patches) {
        const bool isChosen = result.patch && result.patch->build == entry.build && !trusted.patch
            && result.patch->format == entry.format && result.patch->requirements == entry.requirements;
        if (isChosen && isKnown(entry)) {
            trusted.patch = entry;
            trusted.patch->file = result.patch->file;
        }
    }
    return {};
}

} // namespace zel

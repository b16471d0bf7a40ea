// Signing a feed again, week after week, must not launder it. The folder may lie on the web server, or be
// brought back from there, and whoever owns that could write a record of his own between two others, and wait
// for the publisher to sign it. So what is signed again comes from inside the old signature alone:
//
// - All who sign now must have signed it before. Were one enough, the thief of one of two keys would plant
//   what he signed with it, and be given the other signature.
// - All records must be of one signing. An older one that somebody put back, of a build that was withdrawn,
//   would get a new date; one of another feed that the same keys sign, a new audience.
// - All that were signed together must be there. Who took the newest one out would have the publisher vouch
//   that there is none.
// - The files must be those that the signature knows. Clients would refuse others, and the publisher hears of
//   it first.
//
// What nobody has signed is another matter (FeedAdoption.cpp). What no signature can tell is that all of an
// older folder was put back: keep the folder with the key, and give the server a copy.
#include "SignedFeed.h"

#include "common/UpdateRecord.h"
#include "FeedRecord.h"
#include "install/SignedRecord.h"
#include "seal/SignerCertificate.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include <algorithm>

namespace zel {

namespace {

// What is inside of a signature that may be made again.
ZELError open(const QJsonObject &listed, const FeedSigning &signing, QJsonObject &content)
{
    const auto found = SignedRecord::read(listed[key::Signed].toString());
    if (!found)
        return recordError(listed,
                           QStringLiteral("what stands under \"signed\" is no signature; take the record "
                                          "out of releases.json"));
    const QStringList known = fingerprintsOf(signing.signers) + signing.former;
    if (const QString others = missingAmong(namedSigners(found->message), known); !others.isEmpty())
        return recordError(listed,
                           QStringLiteral("it is signed by %1: give the key, too, or the fingerprint with "
                                          "--signer, if that signer is trusted and signs no more")
                               .arg(others));
    const AcceptedSigners accepted(known, 1);
    const AcceptedSigners all(fingerprintsOf(signing.signers), signing.signers.size());
    if (const ZELError error =
            verifyMessage(found->message, signing.newSigner ? accepted : all, found->record.issued))
        return recordError(listed,
                           QStringLiteral("not all who are to sign it have signed it before (%1); give "
                                          "--new-signer if that is meant")
                               .arg(error.message));
    content = QJsonDocument::fromJson(contentOf(found->message)).object();
    return {};
}

// Two that were signed together, or somebody has put them together: records of another time, or of another
// feed that the same keys have signed.
ZELError compareSignings(const QJsonObject &first, const QJsonObject &second)
{
    const QString then = dateText(first[key::Issued].toInteger());
    const QString now = dateText(second[key::Issued].toInteger());
    if (then == now && first[key::Builds] == second[key::Builds])
        return {};
    return recordError(second,
                       (then == now ? QStringLiteral("it was signed in another feed")
                                    : QStringLiteral("it was signed at %1, and others at %2").arg(now, then))
                           + QLatin1String(": somebody has put records together that were not signed "
                                           "together; take it out of releases.json, or bring back the feed"));
}

// Records of the last signing that are neither there nor withdrawn.
ZELError checkWhole(const QJsonArray &records, const QList<qint64> &withdrawn)
{
    QSet<qint64> gone;
    for (const QJsonValue record : records) {
        for (const QJsonValue build : record[key::Builds].toArray())
            gone.insert(build.toInteger());
    }
    for (const QJsonValue record : records) {
        const qint64 build = buildOf(record);
        if (withdrawn.contains(build))
            return recordError(record.toObject(),
                               QStringLiteral("it is to be withdrawn, and is in releases.json; take it out"));
        gone.remove(build);
    }
    for (const qint64 build : withdrawn)
        gone.remove(build);
    return gone.isEmpty()
        ? ZELError()
        : ZELError::withMessage(
            QStringLiteral("build %1 was signed together with the others, and is gone from "
                           "releases.json; bring its record back, or give --withdrawn %1 if "
                           "it is not to be offered any more")
                .arg(*gone.begin()));
}

} // namespace

QStringList fingerprintsOf(const QList<Signer> &signers)
{
    QStringList fingerprints;
    for (const Signer &signer : signers)
        fingerprints += fingerprintOf(signer.certificate());
    return fingerprints;
}

QString missingAmong(const QList<SealSigner> &signers, const QStringList &fingerprints)
{
    QStringList missing;
    for (const SealSigner &signer : signers) {
        if (!fingerprints.contains(signer.fingerprint))
            missing += QStringLiteral("%1 (%2)").arg(signer.subject, signer.fingerprint);
    }
    return missing.join(QLatin1String(", "));
}

bool isSigned(const QJsonArray &feed)
{
    return std::any_of(feed.constBegin(), feed.constEnd(),
                       [](const QJsonValue &record) { return record.toObject().contains(key::Signed); });
}

ZELError openFeed(QJsonArray &records, const FeedSigning &signing,
                  const std::function<void(const QString &line)> &say)
{
    QJsonObject first;
    for (QJsonValueRef listed : records) {
        QJsonObject beside = listed.toObject();
        QJsonObject content;
        if (!beside.contains(key::Signed))
            continue;
        if (const ZELError error = open(beside, signing, content))
            return error;
        if (first.isEmpty())
            first = content;
        if (const ZELError error = compareSignings(first, content))
            return error;
        beside.remove(key::Signed);
        if (beside != content)
            say(QStringLiteral("build %1: what stands beside the signature was changed, and is dropped")
                    .arg(content[key::Build].toInteger()));
        listed = content;
    }
    constexpr qint64 signedAtOnce = 60; // seconds: each signing is dated later than the one before
    const qint64 issued = first[key::Issued].toInteger();
    if (issued > QDateTime::currentSecsSinceEpoch() + signedAtOnce)
        return ZELError::withMessage(QStringLiteral("the feed was signed at %1, which is still to come for "
                                                    "this computer's clock: clients would refuse an "
                                                    "earlier date")
                                         .arg(dateText(issued)));
    return checkWhole(records, signing.withdrawn);
}

ZELError signFeed(QJsonArray &records, const FeedSigning &signing)
{
    qint64 now = QDateTime::currentSecsSinceEpoch();
    QJsonArray builds;
    for (const QJsonValue record : std::as_const(records)) {
        now =
            qMax(now, record[key::Issued].toInteger() + 1); // of one date, the older feed would be no replay
        const qint64 build = buildOf(record);
        // Of two, a server could withhold one, and the list would not show it.
        if (builds.contains(build))
            return recordError(record.toObject(), QStringLiteral("it has two records"));
        builds.append(build);
        const QString identifier = record[key::Identifier].toString();
        if (identifier != records[0][key::Identifier].toString())
            return recordError(record.toObject(),
                               QStringLiteral("it is for another application ('%1') than others ('%2'): each "
                                              "has a folder of its own")
                                   .arg(identifier, records[0][key::Identifier].toString()));
    }
    for (QJsonValueRef listed : records) {
        QJsonObject record = listed.toObject();
        record[key::Builds] = builds;
        record[key::Issued] = now;
        record[key::Expires] = now + signing.validity;
        QByteArray message;
        if (const ZELError error =
                signWith(signing.signers, QJsonDocument(record).toJson(QJsonDocument::Compact),
                         SignatureKind::Attached, message))
            return recordError(record, error.message);
        record[key::Signed] = QString::fromLatin1(message.toBase64());
        if (!SignedRecord::read(record[key::Signed].toString()))
            return recordError(record,
                               QStringLiteral("it is too large for clients: it has too many patches"));
        listed = record;
    }
    return {};
}

} // namespace zel

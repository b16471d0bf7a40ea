// Signing a feed again, week after week, must not launder it. The folder may lie on the web server, or be
// brought back from there, and whoever owns that could write a record of his own between two others, and wait
// for the publisher to sign it. So what is signed again comes from inside the old signature alone:
//
// - All who sign now must have signed it before. Were one enough, the thief of one of two keys would plant
//   what he signed with it, and be given the other signature.
// - All records must be of one signing. An older one that somebody put back, of a build that was withdrawn,
//   would get a new date.
// - All that were signed together must be there. Who took the newest one out would have the publisher vouch
//   that there is none.
// - The files must be those that the signature knows. Clients would refuse others, and the publisher hears of
//   it first.
//
// What nobody has signed is signed only where that is asked for (ReleaseFolder::refresh), by what the files
// are. What no signature can tell is that all of an older folder was put back: keep the folder with the key,
// and give the server a copy.
#include "SignedFeed.h"

#include "common/UpdateRecord.h"
#include "common/WireValues.h"
#include "install/SignedRecord.h"
#include "ReleaseFiles.h"
#include "seal/SignerCertificate.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QUrl>

#include <algorithm>

namespace zel {

namespace {

ZELError problem(const QJsonObject &record, const QString &message)
{
    return ZELError::withMessage(
        QStringLiteral("build %1: %2").arg(integerValue(record[key::Build].toVariant())).arg(message));
}

QString dateText(qint64 seconds)
{
    return QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC).toString(Qt::ISODate);
}

// What is inside of a signature that may be made again.
ZELError open(const QJsonObject &listed, const FeedSigning &signing, QJsonObject &content)
{
    const auto found = SignedRecord::read(listed[key::Signed].toString());
    if (!found)
        return problem(listed,
                       QStringLiteral("what stands under \"signed\" is no signature; take the record "
                                      "out of releases.json"));
    const QStringList known = fingerprintsOf(signing.signers) + signing.former;
    if (const QString others = missingAmong(namedSigners(found->message), known); !others.isEmpty())
        return problem(listed,
                       QStringLiteral("it is signed by %1: give the key, too, or the fingerprint with "
                                      "--signer, if that signer is trusted and signs no more")
                           .arg(others));
    const AcceptedSigners accepted(known, 1);
    const AcceptedSigners all(fingerprintsOf(signing.signers), signing.signers.size());
    if (const ZELError error =
            verifyMessage(found->message, signing.newSigner ? accepted : all, found->record.issued))
        return problem(listed,
                       QStringLiteral("not all who are to sign it have signed it before (%1); give "
                                      "--new-signer if that is meant")
                           .arg(error.message));
    content = QJsonDocument::fromJson(contentOf(found->message)).object();
    return {};
}

bool isAsStated(const QJsonObject &entry, const QJsonObject &found)
{
    const auto agrees = [&](const QLatin1String name) {
        return !entry.contains(name) || entry[name] == found[name];
    };
    return agrees(key::Size) && agrees(key::Hash) && agrees(key::SHA256);
}

// Records of the last signing that are neither there nor withdrawn.
ZELError checkWhole(const QJsonArray &records, const QList<qint64> &withdrawn)
{
    QSet<qint64> gone;
    for (const QJsonValue record : records) {
        for (const QJsonValue build : record[key::Builds].toArray())
            gone.insert(integerValue(build.toVariant()));
    }
    for (const QJsonValue record : records) {
        const qint64 build = integerValue(record[key::Build].toVariant());
        if (withdrawn.contains(build))
            return problem(record.toObject(),
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

// The name of a file right in the folder; null for any other address.
QString nameIn(const QString &folder, const QJsonValue &address)
{
    const QString name = nameOf(address);
    const bool isName = !name.isEmpty() && !name.contains(u'/') && !name.startsWith(u'.');
    return isName && QFileInfo(folder + u'/' + name).isFile() ? name : QString();
}

ZELError isMissing(const QJsonObject &record, const QString &folder, const QJsonValue &address)
{
    return problem(record,
                   QStringLiteral("there is no file \"%1\" in %2; bring it back, or take the build's record "
                                  "out of releases.json")
                       .arg(nameOf(address), folder));
}

ZELError isAnother(const QJsonObject &record, const QString &name)
{
    return problem(record,
                   name
                       + QLatin1String(" is not the file that the record describes; bring that back, or "
                                       "take the record out of releases.json"));
}

ZELError describeFile(const QString &folder, const QJsonObject &record, QJsonObject &entry)
{
    const QString name = nameIn(folder, entry[key::File]);
    if (name.isNull())
        return isMissing(record, folder, entry[key::File]);
    OfferedFile facts;
    facts.file = entry[key::File].toString();
    if (const ZELError error = settleFile(folder + u'/' + name, facts))
        return problem(record, error.message);
    QJsonObject found = entry;
    facts.announceIn(found);
    if (!isAsStated(entry, found))
        return isAnother(record, name);
    entry = found;
    return {};
}

ZELError describeNotes(const QString &folder, QJsonObject &record)
{
    const QString name = nameIn(folder, record[key::History]);
    QByteArray notes;
    if (name.isNull())
        return isMissing(record, folder, record[key::History]);
    if (const ZELError error = readPublished(folder + u'/' + name, notes))
        return problem(record, error.message);
    const QString found =
        QString::fromLatin1(QCryptographicHash::hash(notes, QCryptographicHash::Sha256).toHex());
    if (record.contains(key::HistorySHA256) && record[key::HistorySHA256] != found)
        return isAnother(record, name);
    record[key::HistorySHA256] = found;
    return {};
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
    qint64 issued = 0;
    for (QJsonValueRef listed : records) {
        QJsonObject beside = listed.toObject();
        QJsonObject content;
        if (!beside.contains(key::Signed))
            continue;
        if (const ZELError error = open(beside, signing, content))
            return error;
        const qint64 date = content[key::Issued].toInteger();
        if (issued != 0 && date != issued)
            return problem(content,
                           QStringLiteral("it was signed at %1, and others at %2: somebody has put records "
                                          "together that were not signed together; take it out of "
                                          "releases.json, or bring back the feed")
                               .arg(dateText(date), dateText(issued)));
        issued = date;
        beside.remove(key::Signed);
        if (beside != content)
            say(QStringLiteral("build %1: what stands beside the signature was changed, and is dropped")
                    .arg(content[key::Build].toInteger()));
        listed = content;
    }
    constexpr qint64 signedAtOnce = 60; // seconds: each signing is dated later than the one before
    if (issued > QDateTime::currentSecsSinceEpoch() + signedAtOnce)
        return ZELError::withMessage(QStringLiteral("the feed was signed at %1, which is still to come for "
                                                    "this computer's clock: clients would refuse an "
                                                    "earlier date")
                                         .arg(dateText(issued)));
    return checkWhole(records, signing.withdrawn);
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
    return record.contains(key::History) ? describeNotes(folder, record) : ZELError();
}

ZELError signFeed(QJsonArray &records, const FeedSigning &signing)
{
    qint64 now = QDateTime::currentSecsSinceEpoch();
    QJsonArray builds;
    for (const QJsonValue record : std::as_const(records)) {
        now =
            qMax(now, record[key::Issued].toInteger() + 1); // of one date, the older feed would be no replay
        const qint64 build = integerValue(record[key::Build].toVariant());
        // Of two, a server could withhold one, and the list would not show it.
        if (builds.contains(build))
            return problem(record.toObject(), QStringLiteral("it has two records"));
        builds.append(build);
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
            return problem(record, error.message);
        record[key::Signed] = QString::fromLatin1(message.toBase64());
        listed = record;
    }
    return {};
}

QString addressOf(const QString &name)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(name));
}

QString nameOf(const QJsonValue &address)
{
    return QUrl::fromPercentEncoding(address.toString().toLatin1());
}

} // namespace zel

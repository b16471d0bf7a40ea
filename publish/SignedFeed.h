// The signatures of a feed. Its records are signed all at once, with one date: clients refuse a record that
// is older than the latest they have seen, and each record lists the builds of all, so that none can be
// withheld.
#pragma once

#include "common/ZELError.h"
#include "seal/SealSignature.h"

#include <QJsonArray>
#include <QList>
#include <QStringList>

#include <functional>

namespace zel {

/// Who signs a feed, and for how long.
struct FeedSigning {
    QList<Signer> signers = {}; ///< one to eight; none: the feed stays unsigned
    QStringList former = {}; ///< fingerprints of those who signed it before, and need not sign it any more
    QList<qint64> withdrawn =
        {}; ///< builds that were signed before, and were taken out of the feed on purpose
    bool newSigner = false; ///< some of `signers` did not sign it before
    qint64 validity = qint64(30) * 24 * 60 * 60; ///< in seconds, at most `LongestValidity`
};

/// The fingerprints of signers.
QStringList fingerprintsOf(const QList<Signer> &signers);

/// Of `signed` those who do not sign with `signers`, as "CN = Maker (fingerprint), ..."; empty when all do.
QString missingAmong(const QList<SealSigner> &signers, const QStringList &fingerprints);

/// Whether a record of the feed is signed.
bool isSigned(const QJsonArray &feed);

/// Takes from each signed record what its signature holds, which then can be signed again; what stands beside
/// the signature counts for nothing, and is said where it differs. All of `signing.signers` must have signed
/// it, and nobody else but `signing.former`; those who may be new need not have, but one must. Those that
/// were signed together must all be there, but for the withdrawn ones. Records without a signature are left
/// as they are. An error tells what stands in the way, and what to do.
ZELError openFeed(QJsonArray &records, const FeedSigning &signing,
                  const std::function<void(const QString &line)> &say);

/// Signs records as they stand, one for each build, with one date, and puts the signature beside what it
/// holds.
ZELError signFeed(QJsonArray &records, const FeedSigning &signing);

} // namespace zel

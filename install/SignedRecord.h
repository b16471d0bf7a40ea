// Update records that their publisher has signed: what a host that pins signers goes by.
//
// Such a record bears, under "signed", a CMS structure in base64 that holds the record once more, as JSON,
// with what only a signed one needs: the application's identifier, and from when until when it is good.
// Everything beside the signature counts for nothing here. docs/update-protocol.md describes it, and what
// each key is there against.
#pragma once

#include "common/HostConfig.h"
#include "common/UpdateRecord.h"
#include "common/ZELError.h"
#include "seal/SealSigners.h"

namespace zel {

/// What a host that pins signers demands of records.
struct RecordPolicy {
    AcceptedSigners signers;

    /// Of the installed application, as its Info.plist states it; null: it states none.
    QString identifier = {};

    qint64 seen = 0; ///< the latest "issued" that the host has met: an older record is a replay
    qint64 now = 0; ///< seconds since 1970, UTC
    std::optional<qint64> installedBuild = {}; ///< as the installed bundle states it
};

/// The policy that a configuration stands for at this moment; nothing where no signers are pinned. Reads the
/// installed bundle's Info.plist and, for "installed", its seal. Safe from any thread.
std::optional<RecordPolicy> recordPolicy(const HostConfig &config);

/// Those whose seals such a host accepts; nothing where there is no policy: anyone's.
SignerPins pinsOf(const std::optional<RecordPolicy> &policy);

/// A date of a record, in seconds since 1970, for people: ISO 8601, UTC.
QString dateText(qint64 seconds);

/// The longest time that a record may be good for, in seconds: a year. What was signed with a stolen key, at
/// a time when its certificate was good, ends with it.
inline constexpr qint64 LongestValidity = qint64(366) * 24 * 60 * 60;

/// A record as its signature holds it, and its signature: nobody has vouched for it. Nothing where there is
/// no signature, or one that holds no record. `received` bears the signature, too, so that a result which a
/// host hands back can be verified again.
struct SignedRecord {
    UpdateRecord record;
    QByteArray message; ///< the CMS structure

    /// `text` is what stands under "signed".
    static std::optional<SignedRecord> read(const QString &text);
};

/// Why the record, taken for true, is not for this host at this time: another application's, a replay,
/// expired, from the future, good for too long, or without the hashes that its files are known by. Costs
/// nothing; judged first.
ZELError judgeRecord(const UpdateRecord &record, const RecordPolicy &policy);

/// Why the record is not the publisher's: the signature does not verify, or not by enough pinned signers.
ZELError verifyRecord(const SignedRecord &record, const RecordPolicy &policy);

/// What of a check result can be relied on: its record as signed, and the signed entry of its patch, with
/// only the addresses of the result's own, which were resolved. An error where the policy refuses it. Without
/// a policy it is the result as it stands.
ZELError trustedOffer(const CheckResult &result, const std::optional<RecordPolicy> &policy,
                      CheckResult &trusted);

} // namespace zel

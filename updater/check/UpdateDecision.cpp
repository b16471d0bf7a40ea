// The decision is a pure function of the reply, the configuration, the installed build and the machine's
// facts, so that tests and fuzzing reach all of it without a server. Records are looked at one after the
// other, in the server's order, and only the best so far is kept: a reply of ten thousand records costs no
// more memory than its text.
//
// Keys act by being there: a "beta" of false marks a beta build, as a "patchonly" of null keeps the archive
// from those without a patch. Servers and hosts rely on it.
#include "UpdateDecision.h"

#include "common/DDLog.h"
#include "common/WireValues.h"
#include "install/PatchManifest.h"
#include "platform/BoundedJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <limits>
#include <queue>
#include <set>
#include <vector>

namespace zel {

namespace {

// The records of a reply; nothing when it is none.
std::optional<QJsonArray> recordsIn(const QByteArray &body)
{
    QJsonDocument reply;
    if (const ZELError error = parseJson(body, FeedLimits::Values, reply)) {
        systemLog(QLatin1String("the reply of the check is not read: ") + error.message);
        return std::nullopt;
    }
    if (!reply.isArray() || reply.array().size() > FeedLimits::Records)
        return std::nullopt;
    return reply.array();
}

bool reject(const char *why)
{
    DDLogInfo(QLatin1String(why));
    return false;
}

bool suits(const UpdateRecord &record, const HostConfig &config, const MachineFacts &facts)
{
    if (record.build <= config.buildNumber())
        return reject("version is old");
    if (record.platform) {
        const auto [major, minor, patch] = *record.platform;
        if (!(facts.system >= SystemVersion{major, minor, patch}))
            return reject("platform is not valid");
        DDLogInfo(QStringLiteral("platform is valid"));
    }
    if (record.arch) {
        if (!isArchSupported(*record.arch, facts))
            return reject("arch is not valid");
        DDLogInfo(QStringLiteral("arch is valid"));
    }
    if (record.isBeta && !config.acceptsBeta)
        return reject("beta updates not allowed");
    return true;
}

// Of two equal builds the earlier one stays: the server's order is its ranking.
std::optional<UpdateRecord> bestRecord(const QJsonArray &records, const HostConfig &config,
                                       const MachineFacts &facts)
{
    std::optional<UpdateRecord> best;
    for (const QJsonValue &value : records) {
        UpdateRecord record = UpdateRecord::fromMap(value.toObject().toVariantMap());
        if (suits(record, config, facts) && record.build > (best ? best->build : 0)) {
            best = std::move(record);
            DDLogInfo(QStringLiteral("found new build"));
        }
    }
    return best;
}

// Deliberate: from the bundle's own build, not the configured one, which is only what the host says of
// itself.
std::optional<PatchEntry> patchFrom(std::optional<qint64> installedBuild, const UpdateRecord &record)
{
    std::optional<PatchEntry> newest;
    for (const PatchEntry &patch : record.patches) {
        if (patch.build == installedBuild && PatchManifest::isKnown(patch.format, patch.requirements)
            && (!newest || patch.format > newest->format))
            newest = patch;
    }
    return newest;
}

Decision offer(const UpdateRecord &record, std::optional<qint64> installedBuild)
{
    const std::optional<PatchEntry> patch = patchFrom(installedBuild, record);
    if (!patch && record.isPatchOnly)
        return {ZELStatusNoUpdates};
    return {ZELStatusUpdateAvailable, {record, patch}};
}

// The choice of a host that pins signers. Each record is read and judged by what it says; of those that
// would be taken, the best ones first, signatures are verified until one is good. A few that are not, for
// all: who has many of those has no good one to offer, and could have sent none as well.
//
// What a signature cannot tell is that another record is missing, and records are signed anew every other
// day: a server could leave out the newest one each time, and all that is left would look fresh. So each
// record lists the builds that were signed with it, and those which would have been looked at before it must
// be there.
//
// Reading a hundred records takes longer than verifying one, and most of them change nothing. So they are
// read in the order of the builds that stand beside their signatures, which are claims: none is read that
// claims less than what is taken, nor, unless there is nothing newer and one of them has to show that the
// feed is fresh, one that claims to be no news. Whoever claims too much for a record gains nothing, for it is
// compared by its own build once it is read. Whoever claims too little withholds it by that, which is seen.
class SignedChoice
{
public:
    SignedChoice(const QJsonArray &records, const RecordPolicy &policy, const HostConfig &config,
                 const MachineFacts &facts)
        : m_records(records)
        , m_policy(policy)
        , m_config(config)
        , m_facts(facts)
        , m_installed(config.buildNumber())
    {
        for (qsizetype i = 0; i < records.size(); ++i) {
            const QJsonObject record = records[i].toObject();
            const bool claims = record.contains(key::Signed) && record.contains(key::Build);
            const qint64 build = claims ? integerValue(record[key::Build].toVariant()) : Unclaimed;
            (build > m_installed ? m_newer : m_older).push_back({i, build, 0});
        }
        sort(m_newer, &Candidate::build);
        sort(m_older, &Candidate::build);
    }

    Decision decide(std::optional<qint64> installedBuild, const QUrl &base)
    {
        Decision decision{ZELStatusNoUpdates};
        std::optional<UpdateRecord> record = newest();
        if (record)
            decision = offer(record->resolvedAgainst(base), installedBuild);
        else
            record = latest(); // that there is nothing newer must come from the publisher, too
        if (!record)
            record = firstOlder();
        if (!record) {
            systemLog(QLatin1String("no record of the reply is accepted: ") + m_reason);
            return {ZELStatusUnknownError};
        }
        const qint64 looked = decision.result.update ? record->build : m_installed;
        if (const std::optional<qint64> build = withheld(*record, looked)) {
            systemLog(QStringLiteral("the reply withholds build %1, which was signed together with build %2")
                          .arg(*build)
                          .arg(record->build));
            return {ZELStatusUnknownError};
        }
        decision.result.issued = record->issued;
        return decision;
    }

private:
    struct Candidate {
        qsizetype index;
        qint64 build; // claimed, until the record is read
        qint64 issued;
    };

    struct Suits {
        bool operator()(const Candidate &a, const Candidate &b) const
        {
            return a.build != b.build ? a.build < b.build : a.index > b.index;
        }
    };

    static void sort(std::vector<Candidate> &candidates, qint64 Candidate::*by)
    {
        std::stable_sort(candidates.begin(), candidates.end(),
                         [by](const Candidate &a, const Candidate &b) { return a.*by > b.*by; });
    }

    std::optional<SignedRecord> read(qsizetype index) const
    {
        return SignedRecord::read(m_records[index].toObject()[key::Signed].toString());
    }

    // The record, if it would do once it is verified.
    std::optional<UpdateRecord> judged(qsizetype index)
    {
        const std::optional<SignedRecord> signedRecord = read(index);
        if (!signedRecord) {
            refuse(0, QStringLiteral("a record without a signature"));
            return std::nullopt;
        }
        const UpdateRecord &record = signedRecord->record;
        const ZELError error = judgeRecord(record, m_policy);
        if (error)
            refuse(record.build, QStringLiteral("build %1: %2").arg(record.build).arg(error.message));
        return error ? std::nullopt : std::optional(record);
    }

    // The highest build that suits and whose signature is good. Of those that are left unread by then none
    // claims as much.
    std::optional<UpdateRecord> newest()
    {
        std::priority_queue<Candidate, std::vector<Candidate>, Suits> suitable;
        for (auto next = m_newer.cbegin();;) {
            if (next != m_newer.cend() && (suitable.empty() || next->build >= suitable.top().build)) {
                const std::optional<UpdateRecord> record = judged(next->index);
                if (record) {
                    m_fresh.push_back({next->index, record->build, record->issued});
                    if (suits(*record, m_config, m_facts))
                        suitable.push(m_fresh.back());
                }
                ++next;
            } else if (suitable.empty()) {
                return std::nullopt;
            } else if (std::optional<UpdateRecord> record = verified(suitable.top())) {
                return record;
            } else {
                suitable.pop();
            }
        }
    }

    std::optional<UpdateRecord> latest()
    {
        sort(m_fresh, &Candidate::issued);
        return firstVerified(m_fresh);
    }

    std::optional<UpdateRecord> firstOlder()
    {
        for (const Candidate &candidate : m_older) {
            const std::optional<UpdateRecord> record = judged(candidate.index);
            if (record && record->build > m_installed)
                refuse(record->build,
                       QStringLiteral("build %1: beside its signature stands another").arg(record->build));
            else if (record && verified(candidate))
                return record;
        }
        return std::nullopt;
    }

    std::optional<UpdateRecord> firstVerified(const std::vector<Candidate> &candidates)
    {
        for (const Candidate &candidate : candidates) {
            if (std::optional<UpdateRecord> record = verified(candidate))
                return record;
        }
        return std::nullopt;
    }

    std::optional<UpdateRecord> verified(const Candidate &candidate)
    {
        if (m_failed.size() == MostFailures || m_failed.contains(candidate.index))
            return std::nullopt;
        const std::optional<SignedRecord> record = read(candidate.index);
        const ZELError error = verifyRecord(*record, m_policy);
        if (!error)
            return record->record;
        m_failed.insert(candidate.index);
        refuse(record->record.build,
               QStringLiteral("build %1: %2").arg(record->record.build).arg(error.message));
        return std::nullopt;
    }

    // The first build of a record's list, above one, that is not in the reply.
    std::optional<qint64> withheld(const UpdateRecord &record, qint64 above)
    {
        for (const qint64 build : record.builds) {
            if (build <= above)
                continue;
            std::vector<Candidate> same;
            std::copy_if(m_fresh.begin(), m_fresh.end(), std::back_inserter(same),
                         [&](const Candidate &other) {
                             return other.build == build && other.issued >= record.issued;
                         });
            if (!firstVerified(same))
                return build;
        }
        return std::nullopt;
    }

    // Of all reasons that of the highest build is told.
    void refuse(qint64 build, const QString &reason)
    {
        DDLogInfo(QLatin1String("refused ") + reason);
        if (build < m_refused)
            return;
        m_refused = build;
        m_reason = reason;
    }

    static constexpr size_t MostFailures = 16;
    static constexpr qint64 Unclaimed = std::numeric_limits<qint64>::max();

    const QJsonArray &m_records;
    const RecordPolicy &m_policy;
    const HostConfig &m_config;
    const MachineFacts &m_facts;
    const qint64 m_installed;
    std::vector<Candidate> m_newer; // than the installed one, by their claims, the highest first
    std::vector<Candidate> m_older; // likewise
    std::vector<Candidate> m_fresh; // those that were read and judged, suitable or not
    std::set<qsizetype> m_failed; // to verify
    qint64 m_refused = std::numeric_limits<qint64>::min(); // the highest build
    QString m_reason = QStringLiteral("it is empty");
};

} // namespace

MachineFacts MachineFacts::current()
{
    return {architectureWord(), systemVersion(), modelIdentifier()};
}

bool isArchSupported(const QString &arch, const MachineFacts &facts)
{
    return !arch.isNull() && (arch == facts.architecture || arch == QLatin1String("all"));
}

Decision decideUpdate(const QByteArray &body, const HostConfig &config, std::optional<qint64> installedBuild,
                      const MachineFacts &facts, const std::optional<RecordPolicy> &policy, const QUrl &base)
{
    const std::optional<QJsonArray> records = recordsIn(body);
    if (!records)
        return {ZELStatusUnknownError};
    if (policy)
        return SignedChoice(*records, *policy, config, facts).decide(installedBuild, base);
    const std::optional<UpdateRecord> best = bestRecord(*records, config, facts);
    return best ? offer(*best, installedBuild) : Decision{ZELStatusNoUpdates};
}

} // namespace zel

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
#include "platform/BoundedJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <limits>
#include <vector>

namespace zel {

namespace {

constexpr qsizetype MostRecords = 10'000;

// Records as long as the protocol makes them have fewer in 4 MiB.
constexpr qsizetype MostValues = 200'000;

// The records of a reply; nothing when it is none.
std::optional<QJsonArray> recordsIn(const QByteArray &body)
{
    QJsonDocument reply;
    if (const ZELError error = parseJson(body, MostValues, reply)) {
        systemLog(QLatin1String("the reply of the check is not read: ") + error.message);
        return std::nullopt;
    }
    if (!reply.isArray() || reply.array().size() > MostRecords)
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
    for (const PatchEntry &patch : record.patches) {
        if (patch.build == installedBuild)
            return patch;
    }
    return std::nullopt;
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
// Most records of a feed are of builds that are no news. Those whose build, as it stands beside the
// signature, is not above the installed one are not even read, unless there is nothing newer and one of them
// has to show that the feed is fresh. Whoever writes a low number beside a new record withholds it by that,
// which is seen.
class SignedChoice
{
public:
    SignedChoice(const QJsonArray &records, const RecordPolicy &policy, const HostConfig &config,
                 const MachineFacts &facts)
        : m_records(records)
        , m_policy(policy)
        , m_installed(config.buildNumber())
    {
        for (qsizetype i = 0; i < records.size(); ++i) {
            const QJsonObject record = records[i].toObject();
            const qint64 build = integerValue(record[key::Build].toVariant());
            if (record.contains(key::Signed) && record.contains(key::Build) && build <= m_installed)
                m_older.push_back({i, build, 0});
            else
                judge(i, config, facts);
        }
    }

    Decision decide(std::optional<qint64> installedBuild, const QUrl &base)
    {
        sort(m_suitable, &Candidate::build);
        sort(m_fresh, &Candidate::issued);
        Decision decision{ZELStatusNoUpdates};
        std::optional<UpdateRecord> record = firstVerified(m_suitable);
        if (record)
            decision = offer(record->resolvedAgainst(base), installedBuild);
        else
            record = firstVerified(m_fresh); // that there is nothing newer must come from the publisher, too
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
        qint64 build;
        qint64 issued;
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

    void judge(qsizetype index, const HostConfig &config, const MachineFacts &facts)
    {
        const std::optional<UpdateRecord> record = judged(index);
        if (!record)
            return;
        const Candidate candidate{index, record->build, record->issued};
        m_fresh.push_back(candidate);
        if (suits(*record, config, facts))
            m_suitable.push_back(candidate);
    }

    std::optional<UpdateRecord> firstOlder()
    {
        sort(m_older, &Candidate::build);
        for (const Candidate &candidate : m_older) {
            const std::optional<UpdateRecord> record = judged(candidate.index);
            if (record && record->build > m_installed)
                refuse(record->build,
                       QStringLiteral("build %1: beside its signature stands another").arg(record->build));
            else if (record && firstVerified({candidate}))
                return record;
        }
        return std::nullopt;
    }

    std::optional<UpdateRecord> firstVerified(const std::vector<Candidate> &candidates)
    {
        for (const Candidate &candidate : candidates) {
            if (m_failures == MostFailures)
                return std::nullopt;
            const std::optional<SignedRecord> record = read(candidate.index);
            const ZELError error = verifyRecord(*record, m_policy);
            if (!error)
                return record->record;
            ++m_failures;
            refuse(record->record.build,
                   QStringLiteral("build %1: %2").arg(record->record.build).arg(error.message));
        }
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

    static constexpr int MostFailures = 16;

    const QJsonArray &m_records;
    const RecordPolicy &m_policy;
    std::vector<Candidate> m_suitable;
    std::vector<Candidate> m_fresh; // suitable or not
    std::vector<Candidate> m_older; // by what stands beside their signatures
    const qint64 m_installed;
    int m_failures = 0;
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

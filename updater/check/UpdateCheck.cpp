// Every request has a session of its own, on a thread of its own, and ends there: what costs time, reading a
// reply of megabytes and deciding over it, is done on that thread, and the main queue is given a finished
// result. What a session's thread holds of the host's configuration is copied key by key, and the host's
// completion is moved, never copied: what it holds may be an object of the main thread, which must end there
// (`onMainQueue` sees to it, whatever becomes of the request).
#include "UpdateCheck.h"

#include "common/DDLog.h"
#include "common/WireValues.h"
#include "install/PatchLog.h"
#include "net/URLSession.h"
#include "platform/BundleInfo.h"
#include "platform/Queues.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <array>
#include <new>

namespace zel {

namespace {

// Of a check and of the release notes: decoded, and with all redirections.
constexpr std::chrono::minutes LongestTime(2);

constexpr std::array StatusTexts = {
    "Unknown Error",
    "Update Available",
    "No Updates",
    "Download Attempt Limit Reached",
    "Payload Problem",
    "Installed Successfully",
    "Install Error",
    "Version Skipped",
    "Update Requires Foreground Updater",
};

// "Path" is kept: hosts compare with it.
constexpr std::array DownloadTexts = {"Download Failed", "Download Success", "Extraction Failed",
                                      "Path Failed"};

template <typename Texts> QString textOf(const Texts &texts, qint64 status)
{
    return QLatin1String(texts[status > 0 && status < qint64(texts.size()) ? size_t(status) : 0]);
}

QJsonObject systemObject(const SystemVersion &system)
{
    // Deliberate: "patch" carries the minor version again; the server's records are matched to that.
    return {{key::Major, system.majorVersion},
            {key::Minor, system.minorVersion},
            {key::Patch, system.minorVersion}};
}

void passThrough(QJsonObject &body, const QString &name, const std::optional<QVariant> &value)
{
    if (value)
        body[name] = jsonValue(*value);
}

QByteArray compact(const QJsonObject &body)
{
    return QJsonDocument(body).toJson(QJsonDocument::Compact);
}

URLRequest postRequest(const QUrl &url, const QByteArray &body)
{
    URLRequest request;
    request.url = url;
    request.method = "POST";
    request.body = body;
    request.bodyLimit = FeedLimits::Bytes;
    request.deadline = LongestTime;
    return request;
}

Decision decide(const QByteArray &reply, const HostConfig &config, const MachineFacts &facts,
                const std::optional<RecordPolicy> &policy, const QUrl &base)
{
    try {
        return decideUpdate(reply, config, config.path.isEmpty() ? std::nullopt : bundleBuild(config.path),
                            facts, policy, base);
    } catch (const std::bad_alloc &) {
        systemLog(QStringLiteral("no memory for the reply of the check"));
        return {};
    }
}

// Notes that are known by a hash are those or none.
QByteArray onlyIfWanted(const QByteArray &notes, const std::optional<QString> &sha256)
{
    if (notes.isNull() || !sha256)
        return notes;
    const QByteArray found = QCryptographicHash::hash(notes, QCryptographicHash::Sha256).toHex();
    if (QString::fromLatin1(found) == sha256->toLower())
        return notes;
    systemLog(QStringLiteral("the release notes are others than were signed"));
    return {};
}

QUrl patchLogUrl(const HostConfig &config)
{
    QString server = config.server;
    if (server.isEmpty())
        server = QStringLiteral(ZEL_UPDATE_SERVER);
    if (server.isEmpty())
        server =
            QUrl(config.url).adjusted(QUrl::RemovePath | QUrl::RemoveQuery | QUrl::RemoveFragment).toString();
    while (server.endsWith(u'/'))
        server.chop(1);
    return QUrl(server + QLatin1String("/wexmoor7/updates/patch/"));
}

} // namespace

void checkForUpdates(const HostConfig &config, ZELCheckCompletion completion)
{
    const MachineFacts facts = MachineFacts::current();
    dataTask(postRequest(QUrl(config.url), checkRequestBody(config, facts)),
             [config = config.forDecision(), facts, policy = recordPolicy(config),
              completion = std::move(completion)](const QByteArray &reply, const QUrl &answered,
                                                  const ZELError &error) mutable {
                 if (error)
                     systemLog(error.message);
                 onMainQueue([decision = decide(reply, config, facts, policy, answered),
                              completion = std::move(completion)] {
                     if (completion)
                         completion(decision.status, decision.result.toMap(), QVariant());
                 });
             })
        ->resume();
}

void downloadHistory(const HostConfig &config, const CheckResult &result,
                     std::function<void(const QByteArray &notes)> completion)
{
    CheckResult trusted;
    std::optional<QString> wanted;
    const std::optional<RecordPolicy> policy = recordPolicy(config);
    if (const ZELError error = trustedOffer(result, policy, trusted))
        systemLog(QLatin1String("there are no release notes: ") + error.message);
    if (policy)
        wanted = trusted.update ? trusted.update->historySHA256 : QString();
    const QUrl url = wanted && wanted->isEmpty() ? QUrl() : result.historyUrl();
    URLRequest request = postRequest(url, checkRequestBody(config, MachineFacts::current()));
    request.languages = userLanguages();
    dataTask(request,
             [wanted, completion = std::move(completion)](const QByteArray &notes, const QUrl &,
                                                          const ZELError &) mutable {
                 onMainQueue([notes = onlyIfWanted(notes, wanted), completion = std::move(completion)] {
                     if (completion)
                         completion(notes);
                 });
             })
        ->resume();
}

void uploadPatchLog(const HostConfig &config, const QVariantList &log, std::function<void()> ended)
{
    // Of a large log the body takes a while to make.
    onGlobalQueue([url = patchLogUrl(config), sent = config.forLog(), log,
                   ended = std::move(ended)]() mutable {
        const QByteArray body = logUploadBody(sent, log, MachineFacts::current());
        dataTask(postRequest(url, body),
                 [ended = std::move(ended)](const QByteArray &, const QUrl &, const ZELError &error) mutable {
                     if (error)
                         systemLog(error.message);
                     if (ended)
                         onMainQueue(std::move(ended));
                 })
            ->resume();
    });
}

QByteArray checkRequestBody(const HostConfig &config, const MachineFacts &facts)
{
    QJsonObject body{{key::Arch, facts.architecture}, {key::Os, systemObject(facts.system)}};
    if (!facts.model.isNull())
        body[key::Model] = facts.model;
    passThrough(body, key::Build, config.build);
    return compact(body);
}

QByteArray historyPageBody(const HostConfig &config, const MachineFacts &facts)
{
    QJsonObject body{{key::Arch, facts.architecture}};
    passThrough(body, key::Build, config.build);
    return compact(body);
}

QByteArray logUploadBody(const HostConfig &config, const QVariantList &log, const MachineFacts &facts)
{
    QJsonObject body{{key::Arch, facts.architecture},
                     {key::Os, systemObject(facts.system)},
                     {key::Log, patchLogToUpload(log)}};
    passThrough(body, key::Build, config.build);
    passThrough(body, key::Version, config.version);
    return compact(body);
}

QString descriptionForStatus(qint64 status)
{
    return textOf(StatusTexts, status);
}

QString descriptionForDownloadStatus(qint64 status)
{
    return textOf(DownloadTexts, status);
}

} // namespace zel

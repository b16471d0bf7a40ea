#include "UpdateCheck.h"

#include "common/DDLog.h"
#include "common/WireValues.h"
#include "net/URLSession.h"
#include "platform/BundleInfo.h"
#include "platform/Queues.h"
#include "UpdateDecision.h"
#include "UpdateStatus.h"

#include <new>

namespace zel {

namespace {

std::optional<qint64> installedBuild(const QVariantMap &config)
{
    const QString path = config[QStringLiteral("path")].toString();
    return path.isEmpty() ? std::nullopt : bundleBuild(path);
}

// Of a check and of the release notes: decoded, and with all redirections.
constexpr qint64 LongestReply = 4 * 1024 * 1024;
constexpr std::chrono::minutes LongestTime(2);

URLRequest postRequest(const QUrl &url, const QByteArray &body)
{
    URLRequest request;
    request.url = url;
    request.method = "POST";
    request.body = body;
    request.bodyLimit = LongestReply;
    request.deadline = LongestTime;
    return request;
}

// The rest of a configuration is the host's, and stays on the host's threads.
QVariantMap keysOf(const QVariantMap &config, const QStringList &keys)
{
    QVariantMap read;
    for (const QString &key : keys) {
        if (config.contains(key))
            read[key] = config[key];
    }
    return read;
}

QVariantMap readByDecision(const QVariantMap &config)
{
    QVariantMap read = keysOf(config, {QStringLiteral("build"), QStringLiteral("path")});
    if (config.contains(QStringLiteral("beta")))
        read[QStringLiteral("beta")] = true; // its value does not matter
    return read;
}

Decision decide(const QByteArray &reply, const QVariantMap &config, const MachineFacts &facts)
{
    try {
        return decideUpdate(reply, config, installedBuild(config), facts);
    } catch (const std::bad_alloc &) {
        systemLog(QStringLiteral("no memory for the reply of the check"));
        return {CheckFailed, {}};
    }
}

QUrl patchLogUrl(const QVariantMap &config)
{
    QString server = config[QStringLiteral("server")].toString();
    if (server.isEmpty())
        server = QStringLiteral(ZEL_UPDATE_SERVER);
    if (server.isEmpty())
        server = QUrl(config[QStringLiteral("url")].toString())
                     .adjusted(QUrl::RemovePath | QUrl::RemoveQuery | QUrl::RemoveFragment)
                     .toString();
    while (server.endsWith(u'/'))
        server.chop(1);
    return QUrl(server + QLatin1String("/wexmoor7/updates/patch/"));
}

} // namespace

void checkForUpdates(const QVariantMap &config, ZELCheckCompletion completion)
{
    const MachineFacts facts = MachineFacts::current();
    const QUrl url(config[QStringLiteral("url")].toString());
    dataTask(postRequest(url, checkRequestBody(config, facts)),
             [config = readByDecision(config), facts,
              completion = std::move(completion)](const QByteArray &reply, const ZELError &error) mutable {
                 if (error)
                     systemLog(error.message);
                 onMainQueue([decision = decide(reply, config, facts), completion = std::move(completion)] {
                     if (completion)
                         completion(decision.status, decision.result, QVariant());
                 });
             })
        ->resume();
}

QUrl historyUrl(const QVariantMap &result)
{
    const QVariantMap record = result[QStringLiteral("update")].toMap();
    return QUrl(record[QStringLiteral("history")].toString());
}

void downloadHistory(const QVariantMap &config, const QVariantMap &result,
                     std::function<void(const QByteArray &notes)> completion)
{
    URLRequest request = postRequest(historyUrl(result), checkRequestBody(config, MachineFacts::current()));
    request.languages = userLanguages();
    dataTask(request,
             [completion = std::move(completion)](const QByteArray &notes, const ZELError &) mutable {
                 onMainQueue([notes, completion = std::move(completion)] {
                     if (completion)
                         completion(notes);
                 });
             })
        ->resume();
}

void uploadPatchLog(const QVariantMap &config, const QVariantList &log, std::function<void()> ended)
{
    const QUrl url = patchLogUrl(config);
    const QVariantMap sent = keysOf(config, {QStringLiteral("build"), QStringLiteral("version")});
    // Of a large log the body takes a while to make.
    onGlobalQueue([url, sent, log, ended = std::move(ended)]() mutable {
        const QByteArray body = logUploadBody(sent, log, MachineFacts::current());
        dataTask(postRequest(url, body),
                 [ended = std::move(ended)](const QByteArray &, const ZELError &error) mutable {
                     if (error)
                         systemLog(error.message);
                     if (ended)
                         onMainQueue(std::move(ended));
                 })
            ->resume();
    });
}

} // namespace zel

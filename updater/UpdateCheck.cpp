#include "UpdateCheck.h"

#include "BundleInfo.h"
#include "DDLog.h"
#include "Queues.h"
#include "UpdateDecision.h"
#include "URLSession.h"

namespace zel {

namespace {

std::optional<qint64> installedBuild(const QVariantMap &config)
{
    const QString path = config[QStringLiteral("path")].toString();
    return path.isEmpty() ? std::nullopt : bundleBuild(path);
}

URLRequest postRequest(const QUrl &url, const QByteArray &body)
{
    URLRequest request;
    request.url = url;
    request.method = "POST";
    request.body = body;
    return request;
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
             [=](const QByteArray &body, const ZELError &error) {
                 if (error)
                     systemLog(error.message);
                 onMainQueue([=] {
                     const Decision decision = decideUpdate(body, config, installedBuild(config), facts);
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
    const QByteArray body = checkRequestBody(config, MachineFacts::current());
    dataTask(postRequest(historyUrl(result), body), [completion](const QByteArray &notes, const ZELError &) {
        if (completion)
            onMainQueue([=] { completion(notes); });
    })->resume();
}

void uploadPatchLog(const QVariantMap &config, const QVariantList &log, std::function<void()> ended)
{
    const QByteArray body = logUploadBody(config, log, MachineFacts::current());
    dataTask(postRequest(patchLogUrl(config), body), [ended](const QByteArray &, const ZELError &error) {
        if (error)
            systemLog(error.message);
        if (ended)
            onMainQueue(ended);
    })->resume();
}

} // namespace zel

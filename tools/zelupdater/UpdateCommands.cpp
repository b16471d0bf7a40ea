#include "check/UpdateCheck.h"
#include "Commands.h"
#include "common/WireValues.h"
#include "platform/BundleInfo.h"
#include "ToolLog.h"
#include "UpdateRun.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QUrl>

using namespace zel;

namespace {

// The configuration that the options describe; nothing after wrong usage, which is then reported.
std::optional<HostConfig> configOf(const Arguments &arguments)
{
    HostConfig config{.url = arguments.value(QStringLiteral("url"))};
    if (!isWebAddress(QUrl(config.url))) {
        arguments.misused(QStringLiteral("--url takes an http or https address"));
        return std::nullopt;
    }
    if (arguments.isSet(QStringLiteral("build"))) {
        const auto build = arguments.number(QStringLiteral("build"), 0, std::numeric_limits<qint64>::max());
        if (!build)
            return std::nullopt;
        config.build = *build;
    }
    if (arguments.isSet(QStringLiteral("path")))
        config.path = QFileInfo(arguments.value(QStringLiteral("path"))).absoluteFilePath();
    config.acceptsBeta = arguments.isSet(QStringLiteral("beta"));
    return config;
}

// What is no bundle has no Info.plist, so its build would pass for 0 and everything for new.
QString notABundle(const QString &path)
{
    const std::optional<QVariantMap> info = bundleInfo(path);
    if (!info)
        return path + QLatin1String(" is not a bundle: there is no such folder");
    return info->isEmpty() ? path + QLatin1String(" is not a bundle: it has no Info.plist that can be read")
                           : QString();
}

int runCheck(const Arguments &arguments)
{
    const std::optional<HostConfig> config = configOf(arguments);
    if (!config)
        return WrongUsage;
    if (arguments.isSet(QStringLiteral("path"))) {
        if (const QString problem = notABundle(config->path); !problem.isNull())
            return arguments.failed(problem);
    }
    Decision decision;
    checkForUpdates(*config, [&decision](qint64 status, const QVariantMap &result, const QVariant &) {
        decision = {ZELStatus(status), CheckResult::fromMap(result)};
        QCoreApplication::quit();
    });
    QCoreApplication::exec();
    const QString text = descriptionForStatus(decision.status);
    const QJsonObject json{{QLatin1String("status"), qint64(decision.status)},
                           {QLatin1String("text"), text},
                           {QLatin1String("result"), QJsonObject::fromVariantMap(decision.result.toMap())}};
    if (decision.status == ZELStatusUnknownError)
        return arguments.failed(noAnswerText(text, arguments), json);
    if (const QString diagnostic = lastDiagnostic(); !diagnostic.isEmpty())
        arguments.say(diagnostic);
    return arguments.done(decision.status == ZELStatusUpdateAvailable
                              ? text + QLatin1String(": ") + offerText(decision.result)
                              : text,
                          json);
}

int runUpdate(const Arguments &arguments)
{
    std::optional<HostConfig> config = configOf(arguments);
    if (!config)
        return WrongUsage;
    if (const QString problem = notABundle(config->path); !problem.isNull())
        return arguments.failed(problem);
    if (!config->build)
        config->build = bundleBuild(config->path).value_or(0);
    if (arguments.isSet(QStringLiteral("signer")))
        config->signers = arguments.values(QStringLiteral("signer"));
    UpdateRun run(*config, arguments);
    return run.exec();
}

} // namespace

std::vector<Command> updateCommands()
{
    const auto word = [](const char *text) { return QString::fromLatin1(text); };
    const QCommandLineOption url(word("url"), word("The update server's check address."), word("URL"));
    const QCommandLineOption build(word("build"), word("The installed build."), word("N"));
    const QCommandLineOption path(word("path"), word("The installed bundle."), word("BUNDLE"));
    const QCommandLineOption beta(word("beta"), word("Accept beta builds."));
    const QCommandLineOption staging(word("staging"), word("Build the new bundle below this folder."),
                                     word("DIR"));
    return {
        {word("check"),
         {},
         word("Ask an update server what is new."),
         {url, build, path, beta},
         {word("url"), word("build")},
         runCheck},
        {word("update"),
         {},
         word("Check, download, and build the new bundle beside the installed one."),
         {url, build, path, beta, staging, signerOption()},
         {word("url"), word("path")},
         runUpdate},
    };
}

// A check and an update as a host does them, told in lines instead of pages.
//
// Everything comes on the main queue, so a command starts its request and runs the event loop until one of
// the callbacks has set the exit status. Two things may still be under way then: the upload of a patch's log,
// which is waited for, as the publisher would otherwise never hear of the patch that failed; and, after ^C, a
// staging folder half built, which `Leftover` removes. What the machine last said against a step
// (`lastDiagnostic`) is the reason that is shown: statuses tell what did not work, and never why.
#include "check/UpdateCheck.h"
#include "Commands.h"
#include "common/HostConfig.h"
#include "common/UpdateRecord.h"
#include "common/WireValues.h"
#include "CommonOptions.h"
#include "install/PartialDownload.h"
#include "install/StagingFolder.h"
#include "install/UpdateInstaller.h"
#include "platform/BundleInfo.h"
#include "platform/Queues.h"
#include "publish/Interrupt.h"
#include "ToolLog.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QString>
#include <QUrl>

namespace zel::tool {

namespace {

const QLatin1String InstalledSigners("installed");

QJsonObject outcome(qint64 status, const QString &text, const QString &path)
{
    return {{QLatin1String("status"), status},
            {QLatin1String("text"), text},
            {key::Path, path.isNull() ? QJsonValue() : QJsonValue(path)}};
}

// What nobody uses is swept from the root, so in the user's folder it is one of our own.
QString stagingRootIn(const QString &folder)
{
    return folder.isEmpty()
        ? stagingRoot()
        : QFileInfo(folder).absoluteFilePath() + QLatin1String("/update-") + newUUID().left(8);
}

// Of this folder, too, nothing goes but what bears the name of a download.
QString downloadRootIn(const QString &folder)
{
    return folder.isEmpty() ? downloadRoot()
                            : QFileInfo(folder).absoluteFilePath() + QLatin1String("/partial-downloads");
}

// As short as it can be in the folder where the user is; scripts get the whole path.
QString shownHere(const QString &path)
{
    const QString relative = QDir().relativeFilePath(path);
    return relative.startsWith(QLatin1String("../")) ? path : relative;
}

// What a check result offers, in words: "build 101 (version 1.1), as a patch from build 100".
QString offerText(const CheckResult &result)
{
    const UpdateRecord update = result.update.value_or(UpdateRecord());
    QString text = QLatin1String("build ") + QString::number(update.build);
    if (!update.version.isEmpty())
        text += QLatin1String(" (version ") + update.version + u')';
    if (result.patch)
        text += QLatin1String(", as a patch from build ") + QString::number(result.patch->build);
    return text;
}

QString withReason(const QString &text, const QString &otherwise, const Arguments &arguments)
{
    if (const QString reason = lastDiagnostic(); !reason.isEmpty())
        return text + QLatin1String(": ") + reason;
    const bool isShown = arguments.isSet(QStringLiteral("verbose"));
    return text + otherwise + (isShown ? QString() : QStringLiteral(" (--verbose shows why)"));
}

// That a check had no answer, with the reason or the way to it; `text` is the status's.
QString noAnswerText(const QString &text, const Arguments &arguments)
{
    return withReason(
        text, QLatin1String(": no usable answer from ") + arguments.value(QStringLiteral("url")), arguments);
}

// A whole update without a window: check, download, install, each step told in a line.
class UpdateRun
{
public:
    // `config` is what a host would have said. Of the arguments, "staging" is read.
    UpdateRun(const HostConfig &config, const Arguments &arguments);

    // Runs the update in an event loop and returns the exit status.
    int exec();

private:
    void checked(qint64 status, const QVariantMap &result);
    void progressed(qint64 received, qint64 expected);
    void uploadLog(const QVariantList &log);
    void installed(qint64 status, const QString &path);
    void end(int exitStatus);

    const HostConfig m_config;
    const Arguments &m_arguments;
    // A staging folder of the run's own, until the bundle in it is ready.
    std::optional<Leftover> m_unfinished;
    std::shared_ptr<UpdateInstaller> m_installer;
    bool m_startedWithPatch = false;
    bool m_toldFullArchive = false;
    int m_uploads = 0; // running log uploads; the tool waits for them
    std::optional<int> m_exitStatus;
};

UpdateRun::UpdateRun(const HostConfig &config, const Arguments &arguments)
    : m_config(config)
    , m_arguments(arguments)
{
    UpdateInstaller::Hooks hooks;
    hooks.handleLog = [this](const QVariantList &log) { uploadLog(log); };
    hooks.preparing = [this] {
        onMainQueue([this] {
            Arguments::showProgress({});
            m_arguments.say(QStringLiteral(
                "Applying the patch to a copy of the bundle, checking every hash and the seal"));
        });
    };
    hooks.progress = [this](qint64 received, qint64 expected) { progressed(received, expected); };
    const QString root = stagingRootIn(arguments.value(QStringLiteral("staging")));
    if (arguments.isSet(QStringLiteral("staging")))
        m_unfinished.emplace(root);
    m_installer = UpdateInstaller::create(hooks);
    m_installer->setSettings({m_config.path, root, recordPolicy(m_config),
                              downloadRootIn(arguments.value(QStringLiteral("staging")))});
}

int UpdateRun::exec()
{
    m_arguments.say(QLatin1String("Checking ") + m_config.url);
    checkForUpdates(m_config, [this](qint64 status, const QVariantMap &result, const QVariant &) {
        checked(status, result);
    });
    return QCoreApplication::exec();
}

void UpdateRun::checked(qint64 status, const QVariantMap &result)
{
    const QString text = descriptionForStatus(status);
    if (status == ZELStatusUnknownError)
        return end(m_arguments.failed(noAnswerText(text, m_arguments), outcome(status, text, {})));
    if (const QString diagnostic = lastDiagnostic(); !diagnostic.isEmpty())
        m_arguments.say(diagnostic);
    if (status == ZELStatusNoUpdates)
        return end(m_arguments.done(text, outcome(status, text, {})));
    const CheckResult offer = CheckResult::fromMap(result);
    m_arguments.say(QLatin1String("Found ") + offerText(offer));
    m_startedWithPatch = offer.patch.has_value();
    if (m_startedWithPatch)
        m_arguments.say(QStringLiteral("Downloading the bundle patch"));
    m_installer->setUpdate(result);
    // A failed transfer is reported off the main queue.
    m_installer->downloadUpdate([this](qint64 downloadStatus, const QString &path) {
        onMainQueue([this, downloadStatus, path] { installed(downloadStatus, path); });
    });
}

void UpdateRun::progressed(qint64 received, qint64 expected)
{
    if (!m_toldFullArchive && !CheckResult::fromMap(m_installer->update()).patch) {
        m_toldFullArchive = true;
        Arguments::showProgress({});
        m_arguments.say(m_startedWithPatch
                            ? QStringLiteral("The patch cannot be used: downloading the full archive instead")
                            : QStringLiteral("Downloading the full archive"));
    }
    if (expected > 0)
        Arguments::showProgress(
            QStringLiteral("%1 %").arg(downloadFraction(received, expected) * 100, 0, 'f', 0));
}

void UpdateRun::uploadLog(const QVariantList &log)
{
    ++m_uploads;
    const QString last =
        log.isEmpty() ? QString() : log.last().toMap()[QStringLiteral("description")].toString();
    m_arguments.say(QLatin1String("Sending the patch log to the update server; it ends in: ") + last);
    uploadPatchLog(m_config, log, [this] {
        --m_uploads;
        if (m_exitStatus)
            end(*m_exitStatus);
    });
}

void UpdateRun::installed(qint64 status, const QString &path)
{
    m_unfinished.reset();
    const QString text = descriptionForDownloadStatus(status);
    const QJsonObject json = outcome(status, text, path);
    if (path.isNull())
        end(m_arguments.failed(withReason(text, {}, m_arguments), json));
    else
        end(m_arguments.done(text + QLatin1String(": ") + shownHere(path), json));
}

void UpdateRun::end(int exitStatus)
{
    m_exitStatus = exitStatus;
    if (m_uploads == 0)
        QCoreApplication::exit(exitStatus);
}

// What the host would pin; false after wrong usage, which is then reported.
bool addTrust(const Arguments &arguments, HostConfig &config)
{
    const std::optional<QStringList> signers = acceptedSigners(arguments, InstalledSigners);
    if (!signers)
        return false;
    if (!signers->isEmpty())
        config.signers = *signers;
    constexpr qint64 any = std::numeric_limits<qint64>::max();
    const std::pair<QString, std::optional<QVariant> *> numbers[] = {
        {QStringLiteral("threshold"), &config.threshold}, {QStringLiteral("issued"), &config.issued}};
    for (const auto &[name, value] : numbers) {
        if (!arguments.isSet(name))
            continue;
        const auto number = arguments.number(name, 1, any);
        if (!number)
            return false;
        *value = *number;
    }
    if (!config.isPinned() && config.issued) {
        arguments.misused(
            QStringLiteral("--issued needs --signer: only signed records tell when they were issued"));
        return false;
    }
    return true;
}

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
    return addTrust(arguments, config) ? std::optional(config) : std::nullopt;
}

int runCheck(const Arguments &arguments)
{
    const std::optional<HostConfig> config = configOf(arguments);
    if (!config)
        return WrongUsage;
    if (arguments.isSet(QStringLiteral("path"))) {
        if (const QString problem = bundleProblem(config->path); !problem.isNull())
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
    if (const QString problem = bundleProblem(config->path); !problem.isNull())
        return arguments.failed(problem);
    if (!config->build)
        config->build = bundleBuild(config->path).value_or(0);
    const QFileInfo staging(arguments.value(QStringLiteral("staging")));
    if (arguments.isSet(QStringLiteral("staging")) && staging.exists() && !staging.isDir())
        return arguments.failed(staging.filePath()
                                + QLatin1String(" is not a folder, so no bundle can be built below it"));
    UpdateRun run(*config, arguments);
    return run.exec();
}

} // namespace

std::vector<ToolCommand> updateCommands()
{
    const auto word = [](const char *text) { return QString::fromLatin1(text); };
    const QCommandLineOption url(word("url"), word("The update server's check address."), word("URL"));
    const QCommandLineOption build(word("build"), word("The installed build."), word("N"));
    const QCommandLineOption path(word("path"), word("The installed bundle."), word("BUNDLE"));
    const QCommandLineOption beta(word("beta"), word("Accept beta builds."));
    const QCommandLineOption threshold(
        word("threshold"), word("How many of the signers must have signed; 1 unless given."), word("N"));
    const QCommandLineOption issued(word("issued"),
                                    word("Refuse records that were issued before (seconds since 1970, as "
                                         "'check --json' tells them)."),
                                    word("SECONDS"));
    const QCommandLineOption staging(
        word("staging"),
        word("Build the new bundle below this folder, and keep downloads there that break off."),
        word("DIR"));
    return {
        {word("check"),
         {},
         word("Ask an update server what is new."),
         {url, build, path, beta, signerOption(InstalledSigners), threshold, issued},
         {word("url"), word("build")},
         runCheck},
        {word("update"),
         {},
         word("Check, download, and build the new bundle beside the installed one."),
         {url, build, path, beta, staging, signerOption(InstalledSigners), threshold, issued},
         {word("url"), word("path")},
         runUpdate},
    };
}

} // namespace zel::tool

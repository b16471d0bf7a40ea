#include "UpdateRun.h"

#include "Arguments.h"
#include "check/UpdateCheck.h"
#include "install/DownloadFraction.h"
#include "install/StagingFolder.h"
#include "platform/Queues.h"
#include "seal/SealSigners.h"
#include "ToolLog.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>

using namespace zel;

namespace {

QJsonObject outcome(qint64 status, const QString &text, const QString &path)
{
    return {{QLatin1String("status"), status},
            {QLatin1String("text"), text},
            {QLatin1String("path"), path.isNull() ? QJsonValue() : QJsonValue(path)}};
}

// What nobody uses is swept from the root, so in the user's folder it is one of our own.
QString stagingRootIn(const QString &folder)
{
    return folder.isEmpty()
        ? stagingRoot()
        : QFileInfo(folder).absoluteFilePath() + QLatin1String("/update-") + newUUID().left(8);
}

// As short as it can be in the folder where the user is; scripts get the whole path.
QString shownHere(const QString &path)
{
    const QString relative = QDir().relativeFilePath(path);
    return relative.startsWith(QLatin1String("../")) ? path : relative;
}

} // namespace

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

QString noAnswerText(const QString &text, const Arguments &arguments)
{
    return withReason(
        text, QLatin1String(": no usable answer from ") + arguments.value(QStringLiteral("url")), arguments);
}

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
    m_installer->setSettings({m_config.path, root, pinnedSigners(m_config)});
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

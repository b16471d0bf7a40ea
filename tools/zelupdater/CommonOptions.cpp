#include "CommonOptions.h"

#include "platform/BundleInfo.h"
#include "publish/PatchMaker.h"
#include "seal/SealSigners.h"

#include <QDir>
#include <QFileInfo>

namespace zel::tool {

QString absolute(const QString &path)
{
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

QString unreadable(const QString &path)
{
    const QFileInfo file(path);
    if (!file.exists())
        return QLatin1String("there is no file ") + path;
    if (!file.isFile())
        return path + QLatin1String(" is not a file");
    return file.isReadable() ? QString() : QLatin1String("cannot read ") + path;
}

QString bundleProblem(const QString &path)
{
    const std::optional<QVariantMap> info = bundleInfo(path);
    if (!info)
        return path + QLatin1String(" is not a bundle: there is no such folder");
    return info->isEmpty() ? path + QLatin1String(" is not a bundle: it has no Info.plist that can be read")
                           : QString();
}

QCommandLineOption memoryOption()
{
    return {
        QStringLiteral("memory"),
        QStringLiteral("Memory for files worked on at the same time; half of the machine's unless given."),
        QStringLiteral("MIB")};
}

std::optional<qint64> memoryBudget(const Arguments &arguments)
{
    if (!arguments.isSet(QStringLiteral("memory")))
        return PatchMakerOptions().memory;
    const auto mebibytes = arguments.number(QStringLiteral("memory"), 1, qint64(1) << 30);
    return mebibytes ? std::optional(*mebibytes << 20) : std::nullopt;
}

void showPatchProgress(const QString &step, qint64 done, qint64 total)
{
    const QString share = total > 0 ? QStringLiteral("%1 % ").arg(100 * done / total) : QString();
    Arguments::showProgress(share + step);
}

QCommandLineOption signerOption(const QString &also)
{
    return {QStringLiteral("signer"),
            QStringLiteral(
                "Accept only this signer: the SHA-256 fingerprint of a certificate%1. May be repeated.")
                .arg(also.isEmpty() ? QString() : QStringLiteral(", or '%1'").arg(also)),
            QStringLiteral("FINGERPRINT")};
}

// Pins that cannot be read accept nobody, which is right for a host; of a person it is a slip, to be told at
// once.
std::optional<QStringList> acceptedSigners(const Arguments &arguments, const QString &also)
{
    const QStringList signers = arguments.values(QStringLiteral("signer"));
    for (const QString &signer : signers) {
        if (normalFingerprint(signer) || (!also.isEmpty() && signer == also))
            continue;
        arguments.misused(
            QStringLiteral("--signer takes a SHA-256 fingerprint of 64 hexadecimal digits, not '%1'")
                .arg(signer));
        return std::nullopt;
    }
    return signers;
}

QList<QCommandLineOption> keyOptions()
{
    return {
        {QStringLiteral("key"),
         QStringLiteral("The signer's private key, a PEM file. May be repeated, with --cert: several sign."),
         QStringLiteral("PEM")},
        {QStringLiteral("cert"), QStringLiteral("The signer's certificate, a PEM file."),
         QStringLiteral("PEM")}};
}

bool readSigners(const Arguments &arguments, QList<Signer> &signers, int &status)
{
    const QStringList keys = arguments.values(QStringLiteral("key"));
    const QStringList certificates = arguments.values(QStringLiteral("cert"));
    if (keys.size() != certificates.size()) {
        status = arguments.misused(QStringLiteral("each --key needs its --cert: %1 and %2 are given")
                                       .arg(keys.size())
                                       .arg(certificates.size()));
        return false;
    }
    for (qsizetype i = 0; i < keys.size(); ++i) {
        Signer signer;
        if (const ZELError error = signer.load(keys[i], certificates[i])) {
            status = arguments.failed(error.message);
            return false;
        }
        signers.append(signer);
    }
    return true;
}

bool readBuilds(const Arguments &arguments, const QString &option, QList<qint64> &builds)
{
    for (const QString &list : arguments.values(option)) {
        for (const QString &build : list.split(u',')) {
            builds += build.toLongLong();
            if (builds.last() > 0)
                continue;
            arguments.misused(QStringLiteral("--%1 takes builds, such as 24,25, not '%2'").arg(option, list));
            return false;
        }
    }
    return true;
}

QList<QCommandLineOption> feedOptions()
{
    return {{QStringLiteral("valid"),
             QStringLiteral("For how many days clients take the records; 30 unless given."),
             QStringLiteral("DAYS")},
            {QStringLiteral("signer"),
             QStringLiteral("Also sign again what this former signer signed: the SHA-256 fingerprint of a "
                            "certificate. May be repeated."),
             QStringLiteral("FINGERPRINT")},
            {QStringLiteral("withdrawn"),
             QStringLiteral("These builds' records were taken out of the feed on purpose."),
             QStringLiteral("BUILD,...")},
            {QStringLiteral("new-signer"),
             QStringLiteral("The signers are others than those of the last release.")}};
}

bool readSigning(const Arguments &arguments, FeedSigning &signing, int &status)
{
    const std::optional<QStringList> former = acceptedSigners(arguments);
    const bool isDated = arguments.isSet(QStringLiteral("valid"));
    const auto days = isDated ? arguments.number(QStringLiteral("valid"), 1, 365) : 30;
    if (!former || !days || !readBuilds(arguments, QStringLiteral("withdrawn"), signing.withdrawn)) {
        status = WrongUsage;
        return false;
    }
    for (const QString &signer : *former)
        signing.former += *normalFingerprint(signer);
    signing.newSigner = arguments.isSet(QStringLiteral("new-signer"));
    signing.validity = *days * 24 * 60 * 60;
    if (!readSigners(arguments, signing.signers, status))
        return false;
    if (signing.signers.isEmpty() && (isDated || !former->isEmpty())) {
        status = arguments.misused(
            QStringLiteral("--valid and --signer are for signed records: give --key and --cert"));
        return false;
    }
    return true;
}

} // namespace zel::tool

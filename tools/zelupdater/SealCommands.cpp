#include "Commands.h"
#include "platform/BundleInfo.h"
#include "publish/Interrupt.h"
#include "seal/BundleSeal.h"
#include "seal/SealSigners.h"

#include <QJsonArray>
#include <QJsonObject>

using namespace zel;

namespace {

int runSign(const Arguments &arguments)
{
    const QString bundle = arguments.positional(0);
    const std::optional<QVariantMap> info = bundleInfo(bundle);
    if (!info)
        return arguments.failed(bundle + QLatin1String(" is not a bundle: there is no such folder"));
    if (info->isEmpty())
        return arguments.failed(
            bundle
            + QLatin1String(
                " has no Info.plist that can be read: updaters find the build there, as CFBundleVersion"));
    const Uninterrupted sealing;
    const ZELError error =
        sealBundle(bundle, arguments.value(QStringLiteral("key")), arguments.value(QStringLiteral("cert")));
    if (error)
        return arguments.failed(error.message);
    return arguments.done(bundle + QLatin1String(" is sealed"), QJsonObject{{QLatin1String("sealed"), true}});
}

int runVerify(const Arguments &arguments)
{
    const QString bundle = arguments.positional(0);
    const QStringList accepted = arguments.values(QStringLiteral("signer"));
    const ZELError error = verifySeal(bundle, accepted.isEmpty() ? SignerPins() : accepted);
    if (error)
        return arguments.failed(
            error.message,
            QJsonObject{{QLatin1String("valid"), false}, {QLatin1String("error"), error.message}});
    QStringList names;
    QJsonArray signers;
    for (const SealSigner &signer : sealSigners(bundle)) {
        names.append(QStringLiteral("%1 (%2)").arg(signer.subject, signer.fingerprint));
        signers.append(QJsonObject{{QLatin1String("subject"), signer.subject},
                                   {QLatin1String("fingerprint"), signer.fingerprint}});
    }
    return arguments.done(bundle + QLatin1String(" is valid, sealed by ") + names.join(QLatin1String(", ")),
                          QJsonObject{{QLatin1String("valid"), true}, {QLatin1String("signers"), signers}});
}

} // namespace

std::vector<Command> sealCommands()
{
    const auto word = [](const char *text) { return QString::fromLatin1(text); };
    return {
        {word("sign"),
         {word("BUNDLE")},
         word("Seal a bundle."),
         {{word("key"), word("The signer's private key, a PEM file."), word("PEM")},
          {word("cert"), word("The signer's certificate, a PEM file."), word("PEM")}},
         {word("key"), word("cert")},
         runSign},
        {word("verify"), {word("BUNDLE")}, word("Check a bundle's seal."), {signerOption()}, {}, runVerify},
    };
}

QCommandLineOption signerOption()
{
    return {
        QStringLiteral("signer"),
        QStringLiteral("Accept only this signer: the SHA-256 fingerprint of a certificate. May be repeated."),
        QStringLiteral("FINGERPRINT")};
}

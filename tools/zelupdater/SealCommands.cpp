#include "BundleSeal.h"
#include "Commands.h"

#include <QJsonObject>

using namespace zel;

namespace {

int runSign(const Arguments &arguments)
{
    const QString bundle = arguments.positional(0);
    const ZELError error =
        sealBundle(bundle, arguments.value(QStringLiteral("key")), arguments.value(QStringLiteral("cert")));
    if (error)
        return arguments.failed(error.message);
    return arguments.done(bundle + QLatin1String(" is sealed"), QJsonObject{{QLatin1String("sealed"), true}});
}

int runVerify(const Arguments &arguments)
{
    const QString bundle = arguments.positional(0);
    const QStringList signers = arguments.values(QStringLiteral("signer"));
    const ZELError error = verifySeal(bundle, signers.isEmpty() ? SignerPins() : signers);
    if (error)
        return arguments.failed(
            error.message,
            QJsonObject{{QLatin1String("valid"), false}, {QLatin1String("error"), error.message}});
    return arguments.done(bundle + QLatin1String(" is valid"), QJsonObject{{QLatin1String("valid"), true}});
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

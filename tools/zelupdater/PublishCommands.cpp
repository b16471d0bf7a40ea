// The publisher's way: seal, prove, release, try out. The work is that of publish/ and seal/; what stands
// here is how a person asks for it and what she is told. Between the first change to a bundle or a folder and
// the last, ^C waits (`Uninterrupted`): a seal half written would leave neither the old bundle nor the new
// one.
#include "Commands.h"
#include "common/UpdateRecord.h"
#include "CommonOptions.h"
#include "platform/BundleInfo.h"
#include "publish/Interrupt.h"
#include "publish/ReleaseFolder.h"
#include "publish/UpdateServer.h"
#include "seal/BundleSeal.h"
#include "seal/SealSigners.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QUrl>

#include <cerrno>
#include <cstring>

namespace zel::tool {

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
    QList<Signer> signers;
    int status = Done;
    if (!readSigners(arguments, signers, status))
        return status;
    const Uninterrupted sealing;
    const ZELError error = sealBundle(bundle, signers);
    if (error)
        return arguments.failed(error.message);
    return arguments.done(bundle + QLatin1String(" is sealed"), QJsonObject{{QLatin1String("sealed"), true}});
}

int runVerify(const Arguments &arguments)
{
    const QString bundle = arguments.positional(0);
    const std::optional<QStringList> accepted = acceptedSigners(arguments);
    if (!accepted)
        return WrongUsage;
    const ZELError error = verifySeal(bundle, accepted->isEmpty() ? SignerPins() : *accepted);
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

int runRelease(const Arguments &arguments)
{
    const QString bundle = absolute(arguments.positional(0));
    const QString folder = absolute(arguments.positional(1));
    const std::optional<qint64> memory = memoryBudget(arguments);
    if (!memory)
        return WrongUsage;
    const QString arch = arguments.value(QStringLiteral("arch"));
    if (!QStringList{QString(), QStringLiteral("x86"), QStringLiteral("arm"), QStringLiteral("all")}.contains(
            arch))
        return arguments.misused(
            QStringLiteral("--arch takes x86 (Intel processors), arm or all, not '%1'").arg(arch));
    ReleaseFolder::Options options;
    options.memory = *memory;
    options.notes = arguments.value(QStringLiteral("notes"));
    options.arch = arch;
    options.beta = arguments.isSet(QStringLiteral("beta"));
    options.patchOnly = arguments.isSet(QStringLiteral("patch-only"));
    options.noPatches = arguments.isSet(QStringLiteral("no-patches"));
    if (arguments.isSet(QStringLiteral("patch-format"))) {
        const auto format = arguments.number(QStringLiteral("patch-format"), 1, 2);
        if (!format)
            return WrongUsage;
        options.patchFormats = {int(*format)};
    }
    int status = Done;
    if (!readSigning(arguments, options.signing, status))
        return status;
    options.newSigner = options.signing.newSigner;
    options.startAnew = arguments.isSet(QStringLiteral("start-anew"));
    options.say = [&arguments](const QString &line) {
        Arguments::showProgress({});
        arguments.say(line);
    };
    options.progress = showPatchProgress;
    ReleaseFolder::Added added;
    if (const ZELError error = ReleaseFolder(folder).add(bundle, options, added))
        return arguments.failed(error.message);
    QJsonObject json = added.record;
    json[QLatin1String("leftOut")] = added.leftOut;
    return arguments.done(QStringLiteral("build %1 is released in %2")
                              .arg(added.record[zel::key::Build].toInteger())
                              .arg(arguments.positional(1)),
                          json);
}

int runRefresh(const Arguments &arguments)
{
    ReleaseFolder::RefreshOptions options;
    int status = Done;
    if (!readSigning(arguments, options.signing, status))
        return status;
    if (!readBuilds(arguments, QStringLiteral("sign-unsigned"), options.signUnsigned))
        return WrongUsage;
    options.say = [&arguments](const QString &line) { arguments.say(line); };
    ReleaseFolder::Refreshed refreshed;
    if (const ZELError error = ReleaseFolder(absolute(arguments.positional(0))).refresh(options, refreshed))
        return arguments.failed(error.message);
    QStringList names;
    QJsonArray json;
    for (const qint64 build : std::as_const(refreshed.builds)) {
        names += QString::number(build);
        json.append(build);
    }
    return arguments.done(
        QStringLiteral("signed for %1 days: builds %2")
            .arg(options.signing.validity / (24 * 60 * 60))
            .arg(names.join(QLatin1String(", "))),
        QJsonObject{{zel::key::Builds, json}, {QLatin1String("leftOut"), refreshed.leftOut}});
}

// A name that is not found leaves a number that has nothing to do with it.
QString whyNotBound(int number)
{
    const bool isReason = number == EADDRINUSE || number == EADDRNOTAVAIL || number == EACCES;
    return isReason ? QLatin1String(": ") + QString::fromLocal8Bit(std::strerror(number)) : QString();
}

int runServe(const Arguments &arguments)
{
    const QString folder = arguments.positional(0);
    if (!QFileInfo(folder).isDir())
        return arguments.failed(folder + QLatin1String(" is not a folder"));
    const QString host = arguments.value(QStringLiteral("host"));
    const auto port = arguments.number(QStringLiteral("port"), 0, 65535);
    if (!port)
        return WrongUsage;
    UpdateServer server(QFileInfo(folder).absoluteFilePath(),
                        [&arguments](const QString &line) { arguments.say(line); });
    errno = 0;
    const int bound = server.bind(host, int(*port));
    if (bound < 0)
        return arguments.failed(
            QStringLiteral("cannot listen on %1 port %2%3; choose others with --host and --port")
                .arg(host)
                .arg(*port)
                .arg(whyNotBound(errno)));
    QUrl address;
    address.setScheme(QStringLiteral("http"));
    address.setHost(host);
    address.setPort(bound);
    address.setPath(QStringLiteral("/"));
    const int told = arguments.done(
        QStringLiteral("Serving %1 on %2").arg(folder, address.toString()),
        QJsonObject{{QLatin1String("url"), address.toString()}, {QLatin1String("port"), bound}});
    if (told == Done)
        server.run();
    return told;
}

} // namespace

std::vector<ToolCommand> publishCommands()
{
    const auto word = [](const char *text) { return QString::fromLatin1(text); };
    return {
        {word("sign"),
         {word("BUNDLE")},
         word("Seal a bundle."),
         keyOptions(),
         {word("key"), word("cert")},
         runSign},
        {word("verify"), {word("BUNDLE")}, word("Check a bundle's seal."), {signerOption()}, {}, runVerify},
        {word("release"),
         {word("BUNDLE"), word("DIR")},
         word("Add a sealed bundle to a release folder: archive, patches, record."),
         QList<QCommandLineOption>{
             {word("notes"), word("The release notes, an HTML file."), word("FILE")},
             {word("beta"), word("Offer the build to beta testers only.")},
             {word("patch-only"),
              word("Offer the build only to installations that a patch can bring there.")},
             {word("no-patches"), word("Make no patches: the full archive alone.")},
             {word("patch-format"),
              word(
                  "Make patches of one format alone: 1, which every version reads, or 2. Both unless given."),
              word("N")},
             {word("arch"), word("The processor that the build is for: x86, arm or all."), word("WORD")},
             {word("start-anew"),
              word("Sign the first record of a folder in which files of earlier releases lie.")},
             memoryOption()}
             + keyOptions() + feedOptions(),
         {},
         runRelease},
        {word("refresh"),
         {word("DIR")},
         word("Sign the records of a release folder again."),
         QList<QCommandLineOption>{
             {word("sign-unsigned"),
              word(
                  "Sign a feed that nobody has signed: all its builds, if their records, notes and files are "
                  "yours."),
              word("BUILD,...")}}
             + keyOptions() + feedOptions(),
         {word("key"), word("cert")},
         runRefresh},
        {word("serve"),
         {word("DIR")},
         word("Serve a release folder over HTTP."),
         {{word("host"), word("The address to listen on; 127.0.0.1 unless given."), word("H"),
           word("127.0.0.1")},
          {word("port"), word("The port to listen on; 8080 unless given, 0 for a free one."), word("P"),
           word("8080")}},
         {},
         runServe},
    };
}

} // namespace zel::tool

#include "Commands.h"
#include "publish/ReleaseFolder.h"
#include "publish/UpdateServer.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QUrl>

#include <cerrno>
#include <cstring>

using namespace zel;

namespace {

int runRelease(const Arguments &arguments)
{
    const QString bundle = QDir::cleanPath(QFileInfo(arguments.positional(0)).absoluteFilePath());
    const QString folder = QDir::cleanPath(QFileInfo(arguments.positional(1)).absoluteFilePath());
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
    options.newSigner = arguments.isSet(QStringLiteral("new-signer"));
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
                              .arg(added.record[QLatin1String("build")].toInteger())
                              .arg(arguments.positional(1)),
                          json);
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

std::vector<Command> publishCommands()
{
    const auto word = [](const char *text) { return QString::fromLatin1(text); };
    return {
        {word("release"),
         {word("BUNDLE"), word("DIR")},
         word("Add a sealed bundle to a release folder: archive, patches, record."),
         {{word("notes"), word("The release notes, an HTML file."), word("FILE")},
          {word("beta"), word("Offer the build to beta testers only.")},
          {word("patch-only"), word("Offer the build only to installations that a patch can bring there.")},
          {word("no-patches"), word("Make no patches: the full archive alone.")},
          {word("new-signer"), word("The bundle is sealed by another signer than the last release's.")},
          {word("arch"), word("The processor that the build is for: x86, arm or all."), word("WORD")},
          memoryOption()},
         {},
         runRelease},
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

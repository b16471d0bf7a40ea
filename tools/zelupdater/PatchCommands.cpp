// Bundle patches by hand. A patch replaces whatever stands at the new bundle's place before its first byte is
// read, so these commands look at the paths first (`misplaced`): a patch, an old bundle or a reference that
// lies within the new bundle would be gone before it was used. Paths are made absolute up front; the engine
// below takes them as they are. A bundle half built is removed, be it for a failure or for ^C, but never what
// was there before this run touched anything.
#include "Commands.h"
#include "common/UpdateRecord.h"
#include "CommonOptions.h"
#include "install/PatchFile.h"
#include "install/PatchLog.h"
#include "install/ZELUpdaterApplyPatch.h"
#include "platform/Containment.h"
#include "platform/FileTree.h"
#include "publish/Interrupt.h"
#include "publish/PatchMaker.h"
#include "publish/PatchWriter.h"
#include "publish/ReleaseFiles.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

namespace zel::tool {

namespace {

// A folder that a patch can be made from, or applied to.
QString folderProblem(const QString &path)
{
    if (!QFileInfo::exists(path))
        return QLatin1String("there is no bundle ") + path;
    return QFileInfo(path).isDir() ? QString() : path + QLatin1String(" is not a folder");
}

QString summaryText(const PatchSummary &summary)
{
    return QStringLiteral("%1: %2 patched, %3 copied, %4 added, %5 removed, %6 folders, %7 links, %8 modes")
        .arg(sizeText(summary.size))
        .arg(summary.patched)
        .arg(summary.copied)
        .arg(summary.added)
        .arg(summary.removed)
        .arg(summary.folders)
        .arg(summary.links)
        .arg(summary.modes);
}

QJsonObject summaryJson(const PatchSummary &summary)
{
    return {{QLatin1String("size"), summary.size},
            {QLatin1String("patched"), summary.patched},
            {QLatin1String("copied"), summary.copied},
            {QLatin1String("modes"), summary.modes},
            {QLatin1String("added"), summary.added},
            {QLatin1String("removed"), summary.removed},
            {QLatin1String("folders"), summary.folders},
            {QLatin1String("links"), summary.links},
            {QLatin1String("lostModes"), QJsonArray::fromStringList(summary.lostModes)}};
}

int runMakePatch(const Arguments &arguments)
{
    const QString oldBundle = absolute(arguments.positional(0));
    const QString newBundle = absolute(arguments.positional(1));
    const QString patch = absolute(arguments.positional(2));
    for (const QString &bundle : {oldBundle, newBundle}) {
        if (const QString problem = folderProblem(bundle); !problem.isNull())
            return arguments.failed(problem);
    }
    // A bundle that states no build is none that an updater would accept.
    if (const QString problem = bundleProblem(newBundle); !problem.isNull())
        return arguments.failed(problem);
    const std::optional<qint64> memory = memoryBudget(arguments);
    if (!memory)
        return WrongUsage;
    const auto format = arguments.number(QStringLiteral("format"), 1, 2);
    if (!format)
        return WrongUsage;
    PatchMakerOptions options;
    options.format = int(*format);
    options.memory = *memory;
    options.allowLostModes = arguments.isSet(QStringLiteral("allow-lost-modes"));
    options.progress = showPatchProgress;
    PatchSummary summary;
    if (const ZELError error = makePatch(oldBundle, newBundle, patch, options, summary))
        return arguments.failed(error.message);
    if (!summary.lostModes.isEmpty())
        arguments.say(QLatin1String("without their executable bit: ")
                      + summary.lostModes.join(QLatin1String(", ")));
    return arguments.done(arguments.positional(2) + QLatin1String(": ") + summaryText(summary),
                          summaryJson(summary));
}

// What keeps a patch from being applied; a null string when nothing is seen. What stands at the new bundle's
// place is removed before the patch is read.
QString misplaced(const QString &oldBundle, const QString &newBundle, const QString &patch)
{
    if (const QString problem = folderProblem(oldBundle); !problem.isNull())
        return problem;
    if (const QString problem = unreadable(patch); !problem.isNull())
        return problem;
    if (liesWithin(newBundle, oldBundle))
        return newBundle + QLatin1String(" lies in ") + oldBundle
            + QLatin1String("; give another place for the new bundle");
    for (const QString &needed : {patch, oldBundle}) {
        if (liesWithin(needed, newBundle))
            return needed + QLatin1String(" lies in ") + newBundle
                + QLatin1String(", which is replaced; give another place for the new bundle");
    }
    return {};
}

int runApplyPatch(const Arguments &arguments)
{
    const QString oldBundle = absolute(arguments.positional(0));
    const QString newBundle = absolute(arguments.positional(1));
    const QString patch = absolute(arguments.positional(2));
    if (const QString problem = misplaced(oldBundle, newBundle, patch); !problem.isNull())
        return arguments.failed(problem);
    const Leftover unfinished(newBundle);
    QVariantList log;
    const bool applied = ZELUpdaterApplyPatch(oldBundle, newBundle, patch, log);
    const QJsonArray json = patchLogJson(log);
    if (applied)
        return arguments.done(arguments.positional(1) + QLatin1String(" is ready"), json);
    const QString why = whyNotApplied(log, oldBundle, patch);
    if (!QFileInfo(newBundle).isSymLink()) // half built, then, and not what stood there before
        removeTree(newBundle);
    return arguments.failed(QStringLiteral("%1 could not be applied: %2").arg(patch, why), json);
}

int runTestPatch(const Arguments &arguments)
{
    const QString oldBundle = absolute(arguments.positional(0));
    const QString newBundle = absolute(arguments.positional(1));
    const QString patch = absolute(arguments.positional(2));
    const QString expected = absolute(arguments.positional(3));
    for (const QString &problem : {misplaced(oldBundle, newBundle, patch), folderProblem(expected)}) {
        if (!problem.isNull())
            return arguments.failed(problem);
    }
    if (liesWithin(expected, newBundle) || liesWithin(newBundle, expected))
        return arguments.failed(
            QStringLiteral("%1 is replaced by the patched bundle, so it cannot hold, or lie in, "
                           "the reference %2; give another place for the new bundle")
                .arg(newBundle, expected));
    const Leftover unfinished(newBundle);
    const bool matches = ZELUpdaterTestPatch(oldBundle, newBundle, patch, expected);
    const QJsonObject json{{QLatin1String("matches"), matches}};
    if (matches)
        return arguments.done(QStringLiteral("Successfully patched"), json);
    return arguments.failed(
        QStringLiteral(
            "Patching failed: the patch does not apply (apply-patch tells why) or the result differs from %1")
            .arg(expected),
        json);
}

bool isSliced(PatchAction action)
{
    return action == PatchAction::Add || action == PatchAction::Patch;
}

QString nameOf(PatchAction action)
{
    return action == PatchAction::None ? QStringLiteral("(none)") : wordOf(action);
}

QString rowOf(const QString &action, const QString &length, const QString &position, const QString &mode,
              const QString &path)
{
    return QStringLiteral("%1 %2 %3 %4  %5")
        .arg(action.leftJustified(14), length.rightJustified(12), position.rightJustified(12),
             mode.rightJustified(4), path);
}

QString rowOf(const PatchCommand &command)
{
    const bool sliced = isSliced(command.action);
    qint64 size = 0;
    for (const PatchSlice &slice : command.slices)
        size += slice.length;
    const QString length = sliced ? QString::number(size) : QString();
    const QString position =
        command.slices.empty() ? QString() : QString::number(command.slices.front().position);
    const QString mode = command.mode ? QString::number(*command.mode, 8) : QString();
    QString path = command.path;
    if (command.action == PatchAction::CreateSymlink)
        path += QLatin1String(" -> ") + command.symlink;
    if (command.size && command.from != command.path)
        path += QLatin1String(" <- ") + command.from;
    return rowOf(nameOf(command.action), length, position, mode, path);
}

QString totalOf(PatchAction action, int count, qint64 bytes)
{
    const QString size = isSliced(action) ? QStringLiteral(" (%1)").arg(sizeText(bytes)) : QString();
    return QStringLiteral("%1 %2%3").arg(QString::number(count), nameOf(action), size);
}

int runInspectPatch(const Arguments &arguments)
{
    const QString path = arguments.positional(0);
    if (const QString problem = unreadable(path); !problem.isNull())
        return arguments.failed(problem);
    PatchFile patch;
    if (const ZELError error = PatchFile::read(path, {}, patch))
        return arguments.failed(error.message);
    const auto word = [](const char *text) { return QString::fromLatin1(text); };
    arguments.say(rowOf(word("action"), word("length"), word("position"), word("mode"), word("path")));
    QJsonArray commands;
    std::map<PatchAction, std::pair<int, qint64>> totals;
    for (const PatchCommand &command : patch.manifest.commands) {
        arguments.say(rowOf(command));
        commands.append(manifestEntry(command));
        auto &[count, bytes] = totals[command.action];
        ++count;
        bytes += patch.sizeOfContent(command).value_or(0); // no sum for what is not there
    }
    arguments.say(QString());
    for (const auto &[action, total] : totals)
        arguments.say(totalOf(action, total.first, total.second));
    arguments.say(
        QStringLiteral("format %1; manifest %2 compressed; payload %3 compressed, %4 in all")
            .arg(patch.manifest.format)
            .arg(sizeText(patch.manifestSize), sizeText(patch.payloadSize), sizeText(patch.payload.size())));
    return arguments.done(
        {},
        QJsonObject{{key::Format, patch.manifest.format},
                    {key::Requires, QJsonArray::fromStringList(patch.manifest.requirements)},
                    {QLatin1String("commands"), commands},
                    {QLatin1String("manifestSize"), patch.manifestSize},
                    {QLatin1String("payloadSize"), patch.payloadSize},
                    {QLatin1String("payloadLength"), qint64(patch.payload.size())}});
}

} // namespace

std::vector<ToolCommand> patchCommands()
{
    const auto word = [](const char *text) { return QString::fromLatin1(text); };
    return {
        {word("make-patch"),
         {word("OLD"), word("NEW"), word("PATCH")},
         word("Make the bundle patch that turns one bundle into another, and prove it."),
         {{word("format"),
           word("The format: 2 is smaller and keeps modes, 1 is read by every version. 2 unless given; "
                "'release' makes both."),
           word("N"), word("2")},
          {word("allow-lost-modes"),
           word("Make it in format 1 although new executables lose their executable bit.")},
          memoryOption()},
         {},
         runMakePatch},
        {word("apply-patch"),
         {word("OLD"), word("NEW"), word("PATCH")},
         word("Build a bundle from an old one and a patch; what stands at NEW is replaced."),
         {},
         {},
         runApplyPatch},
        {word("test-patch"),
         {word("OLD"), word("NEW"), word("PATCH"), word("EXPECTED")},
         word("Apply a patch and compare the result's files with those of a reference bundle."),
         {},
         {},
         runTestPatch},
        {word("inspect-patch"),
         {word("PATCH")},
         word("Show a patch's commands, with sizes and totals."),
         {},
         {},
         runInspectPatch},
    };
}

} // namespace zel::tool

// The delta engine by hand: one file, no bundle. A result is written aside and moved into place, or removed
// when this run made it and did not finish it.
#include "Commands.h"
#include "CommonOptions.h"
#include "delta/bspatch2.h"
#include "generate/makedelta.h"
#include "install/MD5Digest.h"
#include "platform/FileContents.h"
#include "publish/Interrupt.h"
#include "publish/ReleaseFiles.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>

#include <filesystem>

namespace zel::tool {

namespace {

std::filesystem::path fsPath(const QString &path)
{
    return QFile::encodeName(path).toStdString();
}

int runDiff(const Arguments &arguments)
{
    const QString oldFile = arguments.positional(0);
    const QString newFile = arguments.positional(1);
    const QString deltaFile = arguments.positional(2);
    for (const QString &file : {oldFile, newFile}) {
        if (const QString problem = unreadable(file); !problem.isNull())
            return arguments.failed(problem);
    }
    const auto delta = makeDelta(fsPath(oldFile), fsPath(newFile),
                                 [&](qint64 done, qint64 total) { showPatchProgress(newFile, done, total); });
    if (!delta)
        return arguments.failed(QStringLiteral("no delta could be made of %1 and %2").arg(oldFile, newFile));
    const QByteArrayView bytes(delta->data(), qsizetype(delta->size()));
    const Uninterrupted writing;
    if (const ZELError error = writeFileAtomically(deltaFile, bytes))
        return arguments.failed(error.message);
    return arguments.done(deltaFile + QLatin1String(": ") + sizeText(bytes.size()),
                          QJsonObject{{QLatin1String("size"), qint64(bytes.size())}});
}

int runPatch(const Arguments &arguments)
{
    const QString oldFile = arguments.positional(0);
    const QString newFile = arguments.positional(1);
    const QString deltaFile = arguments.positional(2);
    for (const QString &file : {oldFile, deltaFile}) {
        if (const QString problem = unreadable(file); !problem.isNull())
            return arguments.failed(problem);
    }
    constexpr qsizetype headerSize = 32;
    const std::optional<QByteArray> delta = readFile(deltaFile);
    if (!delta || delta->size() < headerSize)
        return arguments.failed(deltaFile
                                + QLatin1String(" is not a delta: it is shorter than a delta's header"));
    std::optional<Leftover> unfinished; // what stands there already is not ours to remove
    if (!QFileInfo::exists(newFile))
        unfinished.emplace(newFile);
    if (bspatch2(fsPath(oldFile), fsPath(newFile),
                 std::as_bytes(std::span(delta->data(), size_t(delta->size()))))
        != 0) {
        if (unfinished)
            QFile::remove(newFile);
        return arguments.failed(QStringLiteral("%1 could not be applied to %2").arg(deltaFile, oldFile));
    }
    const qint64 size = QFileInfo(newFile).size();
    return arguments.done(newFile + QLatin1String(": ") + sizeText(size),
                          QJsonObject{{QLatin1String("size"), size}});
}

int runMd5(const Arguments &arguments)
{
    const QString file = arguments.positional(0);
    if (const QString problem = unreadable(file); !problem.isNull())
        return arguments.failed(problem);
    const std::optional<QString> hash = MD5FromFile(file);
    if (!hash)
        return arguments.failed(QLatin1String("cannot read ") + file);
    arguments.say(*hash);
    return arguments.done({}, QJsonObject{{QLatin1String("md5"), *hash}});
}

} // namespace

std::vector<ToolCommand> deltaCommands()
{
    const auto word = [](const char *text) { return QString::fromLatin1(text); };
    return {
        {word("diff"),
         {word("OLD"), word("NEW"), word("DELTA")},
         word("Write the delta that turns one file into another."),
         {},
         {},
         runDiff},
        {word("patch"),
         {word("OLD"), word("NEW"), word("DELTA")},
         word("Build a file from an old one and a delta."),
         {},
         {},
         runPatch},
        {word("md5"),
         {word("FILE")},
         word("Print a file's hash as feeds and manifests have it (empty when its size is a multiple of "
              "32768)."),
         {},
         {},
         runMd5},
    };
}

} // namespace zel::tool

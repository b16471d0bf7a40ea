#include "PatchMaker.h"

#include "BundleTree.h"
#include "FileSlices.h"
#include "install/PatchFile.h"
#include "install/ZELUpdaterApplyPatch.h"
#include "Interrupt.h"
#include "MovedFiles.h"
#include "PatchPayload.h"
#include "PatchWriter.h"
#include "platform/BundleInfo.h"
#include "platform/Containment.h"
#include "platform/FileContents.h"
#include "platform/FileTree.h"

#include <QFile>
#include <QFileInfo>

#include <new>
#include <utility>

// The path of a patch, from two bundles to a file:
//
//   1. Both trees are read and compared, and the comparison decides the commands (BundleTree.h): what is
//      removed, first, to make room; then folders; then files, each whole or as a delta; links last, so that
//      nothing is written through one. All refusals that need no long work come here.
//   2. Each new or changed file becomes a slice of the payload (FileSlices.h), several of them side by side
//      as memory allows, since deltas of large files take most of the time. A delta has to be smaller than
//      the file, but in format 1 for programs, whose mode only a patched file keeps.
//   3. The slices are laid out, in format 1 in the order of the commands, in format 2 as they compress best
//      (PatchPayload.h), and the whole is compressed (PatchWriter.h). The same two bundles always give the
//      same bytes.
//   4. The file is applied to the old bundle as an updater would, and the outcome compared with the new one.
//      What gets the patch's name has been proved: no fault of the steps before reaches anybody.
//
// Until then everything lies in a hidden folder beside the patch, which is gone when the work ends in
// whatever way.

namespace zel {

namespace {

class PatchAssembly
{
public:
    PatchAssembly(const QString &oldPath, const QString &newPath, const PatchMakerOptions &options,
                  PatchSummary &summary)
        : m_old(oldPath)
        , m_new(newPath)
        , m_options(options)
        , m_summary(summary)
    {
    }

    ZELError plan()
    {
        BundleTree before;
        BundleTree after;
        if (const ZELError error = readBundleTree(m_old, before))
            return error;
        if (const ZELError error = readBundleTree(m_new, after))
            return error;
        m_plan = planPatch(before, after, changedFiles(before, after), programPath(m_new));
        if (m_options.format > 1)
            return planMovedFiles(m_old, before, m_new, after, m_plan);
        for (const QString &path : m_plan.lostModes)
            m_summary.lostModes.append(path);
        if (m_options.allowLostModes || m_plan.lostModes.empty())
            return {};
        return ZELError::withMessage(
            QLatin1String("a patch of format 1 cannot add executables, and these are new: ")
            + m_summary.lostModes.join(QLatin1String(", "))
            + QLatin1String(
                "; make it in format 2, publish the full archive only, or give --allow-lost-modes to "
                "let them arrive without their executable bit"));
    }

    ZELError addFiles()
    {
        m_commands = m_plan.removals;
        m_commands.insert(m_commands.end(), m_plan.folders.begin(), m_plan.folders.end());
        std::vector<FileSlice> slices;
        const auto progress = [this](const QString &path, qint64 done) { report(path, done); };
        if (const ZELError error = makeFileSlices(m_old, m_new, m_plan.files, m_options.format,
                                                  m_options.memory, progress, slices))
            return error;
        if (const ZELError error = judgePayload(slices))
            return error;
        try {
            m_options.format > 1 ? arrange(slices) : append(slices);
        } catch (const std::bad_alloc &) {
            return ZELError::withMessage(QStringLiteral("memory is exhausted by the patch's payload"));
        }
        m_commands.insert(m_commands.end(), m_plan.modes.begin(), m_plan.modes.end());
        m_commands.insert(m_commands.end(), m_plan.links.begin(), m_plan.links.end());
        m_summary.removed = int(m_plan.removals.size());
        m_summary.folders = int(m_plan.folders.size());
        m_summary.modes = int(m_plan.modes.size());
        m_summary.links = int(m_plan.links.size());
        return {};
    }

    // To be called once: releases the payload.
    ZELError encode(QByteArray &bytes)
    {
        const PatchPayload payload = std::exchange(m_payload, {});
        PatchManifest manifest;
        manifest.format = m_options.format;
        manifest.commands = m_commands;
        if (manifest.format > 1)
            manifest.requirements = m_summary.requirements = requirementsOf(m_commands);
        const ZELError error = encodePatchFile(manifest, payload.blocks, m_options.memory, bytes);
        return error ? ZELError::withMessage(QLatin1String("no patch can be made: ") + error.message
                                             + QLatin1String("; publish the full archive only"))
                     : ZELError();
    }

private:
    std::set<QString> changedFiles(const BundleTree &before, const BundleTree &after)
    {
        std::set<QString> changed;
        for (const auto &[path, item] : after) {
            const auto old = before.find(path);
            if (item.kind == TreeItem::File && old != before.end() && old->second.kind == TreeItem::File
                && (item.size != old->second.size
                    || !haveSameContent(m_old + u'/' + path, m_new + u'/' + path)))
                changed.insert(path);
        }
        for (const auto &[path, item] : after) {
            if (item.kind == TreeItem::File && (changed.contains(path) || !before.contains(path)))
                m_total += item.size;
        }
        return changed;
    }

    static ZELError judgePayload(const std::vector<FileSlice> &slices)
    {
        qint64 size = 0;
        for (const FileSlice &slice : slices)
            size += slice.bytes.size();
        return size <= PatchFile::PayloadLimit
            ? ZELError()
            : ZELError::withMessage(QStringLiteral("the changed files take more than the 4 GiB that a "
                                                   "patch may hold; publish the full archive only"));
    }

    PatchCommand &addCommand(const PlannedFile &file, const FileSlice &slice)
    {
        PatchCommand command;
        command.action = slice.action;
        command.path = file.path;
        m_commands.push_back(command);
        ++(slice.action == PatchAction::Add         ? m_summary.added
               : slice.action == PatchAction::Patch ? m_summary.patched
                                                    : m_summary.copied);
        return m_commands.back();
    }

    // Slices one after the other.
    void append(std::vector<FileSlice> &slices)
    {
        qsizetype size = 0;
        for (const FileSlice &slice : slices)
            size += slice.bytes.size();
        m_payload.bytes.reserve(size);
        for (size_t i = 0; i < slices.size(); ++i) {
            PatchCommand &command = addCommand(m_plan.files[i], slices[i]);
            command.slices = {{m_payload.bytes.size(), slices[i].bytes.size()}};
            command.hash = slices[i].hash;
            m_payload.bytes += slices[i].bytes;
            slices[i] = {};
        }
        m_payload.blocks = payloadBlocks(m_commands, m_payload.bytes);
    }

    // Slices wherever they compress best.
    void arrange(std::vector<FileSlice> &slices)
    {
        std::vector<PayloadItem> items;
        for (size_t i = 0; i < slices.size(); ++i)
            items.push_back({m_plan.files[i].path, std::exchange(slices[i].bytes, {}),
                             slices[i].action == PatchAction::Patch});
        m_payload = layOut(items);
        for (size_t i = 0; i < slices.size(); ++i) {
            const PlannedFile &file = m_plan.files[i];
            PatchCommand &command = addCommand(file, slices[i]);
            command.mode = file.mode;
            command.sha256 = file.sha256;
            if (slices[i].action == PatchAction::Add) {
                command.slices = m_payload.slices[i];
                continue;
            }
            if (slices[i].action == PatchAction::Patch)
                command.slices = m_payload.slices[i];
            command.from = file.from;
            command.size = QFileInfo(m_new + u'/' + file.path).size();
        }
    }

    void report(const QString &step, qint64 done) const
    {
        if (m_options.progress)
            m_options.progress(step, done, m_total);
    }

    const QString m_old;
    const QString m_new;
    const PatchMakerOptions &m_options;
    PatchSummary &m_summary;
    PatchPlan m_plan;
    std::vector<PatchCommand> m_commands;
    PatchPayload m_payload;
    qint64 m_total = 0;
};

// The first entry that tells of a fault, with the file that it names.
QString faultOf(const QVariantList &log)
{
    for (const QVariant &entry : log) {
        const QVariantMap keys = entry.toMap();
        const QString description = keys[QStringLiteral("description")].toString();
        if (!description.contains(QLatin1String("rror")))
            continue;
        const QString file = keys[QStringLiteral("file")].toString();
        return file.isEmpty() ? description : description + QLatin1String(": ") + file;
    }
    return {};
}

} // namespace

QString whyNotApplied(const QVariantList &log, const QString &oldPath, const QString &patchPath)
{
    if (const QString fault = faultOf(log); !fault.isEmpty())
        return fault;
    PatchFile file;
    const ZELError error = PatchFile::read(patchPath, {.oldBundle = treeSize(oldPath)}, file);
    return error ? error.message : QStringLiteral("memory is exhausted");
}

ZELError provePatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                    const QString &built, Modes modes)
{
    QVariantList log;
    if (!ZELUpdaterApplyPatch(oldPath, built, patchPath, log)) {
        const QString why = whyNotApplied(log, oldPath, patchPath);
        return ZELError::withMessage(QLatin1String("the patch does not apply to ") + oldPath
                                     + QLatin1String(": ") + why);
    }
    std::vector<QString> differences;
    if (const ZELError error = compareBundles(built, newPath, modes, differences))
        return error;
    if (!differences.empty())
        return ZELError::withMessage(QLatin1String("the patch does not give the new bundle: ")
                                     + differences.front() + QLatin1String(" differs"));
    return {};
}

ZELError makePatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                   const PatchMakerOptions &options, PatchSummary &summary)
{
    if (liesWithin(patchPath, oldPath) || liesWithin(patchPath, newPath))
        return ZELError::withMessage(patchPath + QLatin1String(" lies in a bundle; put the patch elsewhere"));
    PatchAssembly assembly(oldPath, newPath, options, summary);
    if (const ZELError error = assembly.plan())
        return error;
    // Beside the patch, so that its new name is a rename and the proof has the space that the patch's folder
    // has. Made before the long work, which would be lost if nothing can be written there.
    const ScratchFolder folder(QFileInfo(patchPath).absolutePath() + QLatin1String("/.make-patch-XXXXXX"));
    if (!folder.isValid())
        return ZELError::withMessage(QLatin1String("cannot write ") + patchPath + QLatin1String(": ")
                                     + folder.errorString());
    if (const ZELError error = assembly.addFiles())
        return error;
    if (options.progress)
        options.progress(QStringLiteral("compressing"), 0, 0);
    QByteArray bytes;
    if (const ZELError error = assembly.encode(bytes))
        return error;
    const QString aside = folder.filePath(QStringLiteral("patch"));
    if (const ZELError error = writeFileAtomically(aside, bytes))
        return error;
    if (options.progress)
        options.progress(QStringLiteral("proving"), 0, 0);
    const Modes modes = options.format > 1 ? Modes::Compared : Modes::Ignored;
    const QString built = folder.filePath(QStringLiteral("built"));
    if (const ZELError error = provePatch(oldPath, newPath, aside, built, modes))
        return error;
    if (const ZELError error = replaceFile(aside, patchPath))
        return error;
    summary.size = bytes.size();
    return {};
}

} // namespace zel

#include "PatchMaker.h"

#include "BundleTree.h"
#include "FileSlices.h"
#include "install/PatchFile.h"
#include "install/ZELUpdaterApplyPatch.h"
#include "Interrupt.h"
#include "PatchPlan.h"
#include "PatchWriter.h"
#include "platform/BundleInfo.h"
#include "platform/Containment.h"
#include "platform/FileContents.h"
#include "platform/FileTree.h"

#include <QFile>
#include <QFileInfo>

#include <new>
#include <unistd.h>
#include <utility>

namespace zel {

namespace {

class Maker
{
public:
    Maker(const QString &oldPath, const QString &newPath, const PatchMakerOptions &options,
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
        for (const QString &path : m_plan.lostModes)
            m_summary.lostModes.append(path);
        if (m_options.allowLostModes || m_plan.lostModes.empty())
            return {};
        return ZELError::withMessage(
            QLatin1String("a patch cannot add executables, and these are new: ")
            + m_summary.lostModes.join(QLatin1String(", "))
            + QLatin1String("; publish the full archive only, or give --allow-lost-modes to let them arrive "
                            "without their executable bit"));
    }

    ZELError addFiles()
    {
        m_commands = m_plan.removals;
        m_commands.insert(m_commands.end(), m_plan.folders.begin(), m_plan.folders.end());
        std::vector<FileSlice> slices;
        const auto progress = [this](const QString &path, qint64 done) { report(path, done); };
        if (const ZELError error =
                makeFileSlices(m_old, m_new, m_plan.files, m_options.memory, progress, slices))
            return error;
        if (const ZELError error = makeRoom(slices))
            return error;
        for (size_t i = 0; i < slices.size(); ++i) {
            append(m_plan.files[i].path, slices[i]);
            slices[i] = {};
        }
        m_commands.insert(m_commands.end(), m_plan.links.begin(), m_plan.links.end());
        m_summary.removed = int(m_plan.removals.size());
        m_summary.folders = int(m_plan.folders.size());
        m_summary.links = int(m_plan.links.size());
        return {};
    }

    /// To be called once: releases the payload.
    ZELError encode(QByteArray &bytes)
    {
        const QByteArray payload = std::exchange(m_payload, {});
        const ZELError error = encodePatchFile(m_commands, payload, m_options.memory, bytes);
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
            if (item.kind == BundleItem::File && old != before.end() && old->second.kind == BundleItem::File
                && (item.size != old->second.size
                    || !haveSameContent(m_old + u'/' + path, m_new + u'/' + path)))
                changed.insert(path);
        }
        for (const auto &[path, item] : after) {
            if (item.kind == BundleItem::File && (changed.contains(path) || !before.contains(path)))
                m_total += item.size;
        }
        return changed;
    }

    ZELError makeRoom(const std::vector<FileSlice> &slices)
    {
        qint64 size = 0;
        for (const FileSlice &slice : slices)
            size += slice.bytes.size();
        if (size > PatchFile::PayloadLimit)
            return ZELError::withMessage(QStringLiteral("the changed files take more than the 4 GiB that a "
                                                        "patch may hold; publish the full archive only"));
        try {
            m_payload.reserve(size);
        } catch (const std::bad_alloc &) {
            return ZELError::withMessage(QStringLiteral("memory is exhausted by the patch's payload"));
        }
        return {};
    }

    void append(const QString &path, const FileSlice &slice)
    {
        PatchCommand command;
        command.action = slice.action;
        command.path = path;
        command.position = m_payload.size();
        command.length = slice.bytes.size();
        command.hash = slice.hash;
        m_commands.push_back(command);
        m_payload += slice.bytes;
        ++(slice.action == PatchAction::Add ? m_summary.added : m_summary.patched);
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
    QByteArray m_payload;
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

qint64 halfOfMemory()
{
    return qint64(::sysconf(_SC_PHYS_PAGES)) * ::sysconf(_SC_PAGESIZE) / 2;
}

namespace {

ZELError prove(const QString &oldPath, const QString &newPath, const QString &patchPath,
               const QString &folder)
{
    const QString built = folder + QLatin1String("/built");
    QVariantList log;
    if (!ZELUpdaterApplyPatch(oldPath, built, patchPath, log)) {
        const QString why = whyNotApplied(log, oldPath, patchPath);
        return ZELError::withMessage(QLatin1String("the patch does not apply to ") + oldPath
                                     + QLatin1String(": ") + why);
    }
    std::vector<QString> differences;
    if (const ZELError error = compareBundles(built, newPath, differences))
        return error;
    if (!differences.empty())
        return ZELError::withMessage(QLatin1String("the patch does not give the new bundle: ")
                                     + differences.front() + QLatin1String(" differs"));
    return {};
}

} // namespace

ZELError makePatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                   const PatchMakerOptions &options, PatchSummary &summary)
{
    if (liesWithin(patchPath, oldPath) || liesWithin(patchPath, newPath))
        return ZELError::withMessage(patchPath + QLatin1String(" lies in a bundle; put the patch elsewhere"));
    Maker maker(oldPath, newPath, options, summary);
    if (const ZELError error = maker.plan())
        return error;
    // Beside the patch, so that its new name is a rename and the proof has the space that the patch's folder
    // has. Made before the long work, which would be lost if nothing can be written there.
    const ScratchFolder folder(QFileInfo(patchPath).absolutePath() + QLatin1String("/.make-patch-XXXXXX"));
    if (!folder.isValid())
        return ZELError::withMessage(QLatin1String("cannot write ") + patchPath + QLatin1String(": ")
                                     + folder.errorString());
    if (const ZELError error = maker.addFiles())
        return error;
    if (options.progress)
        options.progress(QStringLiteral("compressing"), 0, 0);
    QByteArray bytes;
    if (const ZELError error = maker.encode(bytes))
        return error;
    const QString aside = folder.filePath(QStringLiteral("patch"));
    if (const ZELError error = writeFileAtomically(aside, bytes))
        return error;
    if (options.progress)
        options.progress(QStringLiteral("proving"), 0, 0);
    if (const ZELError error = prove(oldPath, newPath, aside, folder.path()))
        return error;
    if (const ZELError error = replaceFile(aside, patchPath))
        return error;
    summary.size = bytes.size();
    return {};
}

} // namespace zel

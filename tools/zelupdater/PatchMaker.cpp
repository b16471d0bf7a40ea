#include "PatchMaker.h"

#include "bsdiff2.h"
#include "BundleTree.h"
#include "FileTree.h"
#include "MD5FromData.h"
#include "PatchFile.h"
#include "PatchPlan.h"
#include "XZ.h"
#include "ZELUpdaterApplyPatch.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <filesystem>
#include <limits>

namespace zel {

namespace {

constexpr qint64 DeltaLimit = std::numeric_limits<qint32>::max(); // a suffix array's length is an int

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
        m_plan = planPatch(before, after, changedFiles(before, after));
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
        qint64 done = 0;
        for (const PlannedFile &file : m_plan.files) {
            report(file.path, done);
            if (const ZELError error = addFile(file))
                return error;
            done += QFileInfo(m_new + u'/' + file.path).size();
        }
        m_commands.insert(m_commands.end(), m_plan.links.begin(), m_plan.links.end());
        m_summary.removed = int(m_plan.removals.size());
        m_summary.folders = int(m_plan.folders.size());
        m_summary.links = int(m_plan.links.size());
        return {};
    }

    std::optional<QByteArray> encode() const { return PatchFile::encode(m_commands, m_payload); }

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

    ZELError addFile(const PlannedFile &file)
    {
        const QString newFile = m_new + u'/' + file.path;
        const std::optional<QByteArray> whole = readFile(newFile);
        if (!whole)
            return ZELError::withMessage(QLatin1String("cannot read ") + newFile);
        if (file.transport == Transport::Whole) {
            append(PatchAction::Add, file.path, *whole);
            return {};
        }
        const auto delta = deltaOf(m_old + u'/' + file.path, newFile);
        if (!delta && file.transport == Transport::Delta)
            return ZELError::withMessage(QLatin1String("cannot make a delta of ") + newFile
                                         + QLatin1String("; an executable cannot travel in another way"));
        const bool asDelta = delta && (file.transport == Transport::Delta || isSmaller(*delta, *whole));
        append(asDelta ? PatchAction::Patch : PatchAction::Add, file.path, asDelta ? *delta : *whole);
        if (asDelta)
            m_commands.back().hash = MD5FromData(*whole);
        return {};
    }

    static std::optional<QByteArray> deltaOf(const QString &oldFile, const QString &newFile)
    {
        if (QFileInfo(oldFile).size() >= DeltaLimit || QFileInfo(newFile).size() >= DeltaLimit)
            return std::nullopt;
        const auto delta =
            bsdiff2(QFile::encodeName(oldFile).toStdString(), QFile::encodeName(newFile).toStdString());
        if (!delta)
            return std::nullopt;
        return QByteArray(reinterpret_cast<const char *>(delta->data()), qsizetype(delta->size()));
    }

    // What counts is the size after compression; a quick one is enough to compare.
    static bool isSmaller(const QByteArray &delta, const QByteArray &whole)
    {
        const auto first = compressXZ(delta, XZEffort::Quick);
        const auto second = compressXZ(whole, XZEffort::Quick);
        return first && second && first->size() <= second->size();
    }

    void append(PatchAction action, const QString &path, const QByteArray &bytes)
    {
        PatchCommand command;
        command.action = action;
        command.path = path;
        command.position = m_payload.size();
        command.length = bytes.size();
        m_commands.push_back(command);
        m_payload += bytes;
        ++(action == PatchAction::Add ? m_summary.added : m_summary.patched);
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

ZELError prove(const QString &oldPath, const QString &newPath, const QString &patchPath,
               const QString &folder)
{
    const QString built = folder + QLatin1String("/built");
    QVariantList log;
    if (!ZELUpdaterApplyPatch(oldPath, built, patchPath, log))
        return ZELError::withMessage(QLatin1String("the patch does not apply to ") + oldPath);
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
    // Beside the patch, so that its new name is a rename and the proof has the space that the patch's folder has. Made
    // before the long work, which would be lost if nothing can be written there.
    const QTemporaryDir folder(QFileInfo(patchPath).absolutePath() + QLatin1String("/.make-patch-XXXXXX"));
    if (!folder.isValid())
        return ZELError::withMessage(QLatin1String("cannot write ") + patchPath + QLatin1String(": ")
                                     + folder.errorString());
    if (const ZELError error = maker.addFiles())
        return error;
    if (options.progress)
        options.progress(QStringLiteral("compressing"), 0, 0);
    const std::optional<QByteArray> bytes = maker.encode();
    if (!bytes)
        return ZELError::withMessage(QStringLiteral("the patch cannot be compressed: memory is exhausted"));
    const QString aside = folder.filePath(QStringLiteral("patch"));
    if (const ZELError error = writeFileAtomically(aside, *bytes))
        return error;
    if (options.progress)
        options.progress(QStringLiteral("proving"), 0, 0);
    if (const ZELError error = prove(oldPath, newPath, aside, folder.path()))
        return error;
    std::error_code error;
    std::filesystem::rename(QFile::encodeName(aside).toStdString(),
                            QFile::encodeName(patchPath).toStdString(), error);
    if (error)
        return ZELError::fromErrno(QLatin1String("cannot write ") + patchPath, error.value());
    summary.size = bytes->size();
    return {};
}

} // namespace zel

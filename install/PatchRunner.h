// The inside of `ZELUpdaterApplyPatch`: what a patch may write, and the commands of its manifest.
#pragma once

#include "BundleWalk.h"
#include "PatchFile.h"
#include "platform/FileContents.h"

#include <QString>
#include <QVariantList>

#include <stop_token>

namespace zel {

/// What slices and files may take beyond their bounds, so that small patches may use theirs as they like.
inline constexpr qint64 SmallChange = qint64(1) << 20;

/// An error when the commands would use more than they may, be it by reading their slices or by writing what
/// comes of them, or when that does not fit into the file system of `folder`; how much is missing is told
/// then. `oldSize`: the bytes of the old bundle.
///
/// In format 1 that is twice the payload. A delta gives no more bytes than it has there, as each of them is a
/// difference or an extra byte: only one whose blocks run into each other can give up to twice as many. Used
/// once each, the slices of a payload therefore give at most that payload. Twice as much leaves room for a
/// slice that serves two files.
///
/// In format 2 a byte that is copied costs nothing, and a slice may serve many files: what the commands build
/// is bounded by `PatchFile::changeLimit`. They say how much that is.
ZELError judgeWrites(const PatchFile &patch, const QString &folder, qint64 oldSize);

class PatchRunner
{
public:
    /// All four must outlive the runner, and nobody else may change the bundles meanwhile. `log` receives the
    /// entries of commands that fail. `oldSize`: the bytes of the old bundle; deltas of format 1 may read
    /// each of them once, commands of format 2 as much as they may write.
    PatchRunner(const QString &oldBundle, const QString &newBundle, qint64 oldSize, const PatchFile &patch,
                QVariantList &log)
        : m_oldPath(oldBundle)
        , m_newPath(newBundle)
        , m_old(oldBundle, m_namesLeft)
        , m_new(newBundle, m_namesLeft)
        , m_patch(patch)
        , m_log(log)
        , m_readable(patch.manifest.format == 1 ? oldSize + SmallChange : patch.changeLimit(oldSize))
    {
    }

    /// Performs one command; false when it failed in a way that must end the patch. A path that leaves the
    /// bundle does, before anything is touched.
    bool perform(const PatchCommand &command);

private:
    bool perform(const PatchCommand &command, WalkedItem &target);
    void deleteSymlink(const PatchCommand &command, const WalkedItem &target);
    void createSymlink(const PatchCommand &command, const WalkedItem &target);
    void symlinkFailed(int number, const char *description, const PatchCommand &command);
    bool add(const PatchCommand &command, WalkedItem &target);
    bool patch(const PatchCommand &command, const QString &target);
    bool applyDelta(const PatchCommand &command, const QString &original, const QString &target);
    bool build(const PatchCommand &command, WalkedItem &target);
    bool fill(const PatchCommand &command, const FileAside &file, const QString &path);
    std::optional<FileDescriptor> openOld(const PatchCommand &command, const WalkedItem &item);
    bool setMode(const PatchCommand &command, const WalkedItem &target);
    bool failed(const char *description, const PatchCommand &command);
    bool patchFailed(const char *description, const PatchCommand &command, const QString &path);
    void appendContents(const char *description, const PatchCommand &command, const QString &original,
                        const QString &target);

    const QString &m_oldPath;
    const QString &m_newPath;
    qint64 m_namesLeft = MaxNamesWalked;
    BundleWalk m_old;
    BundleWalk m_new;
    const PatchFile &m_patch;
    QVariantList &m_log;
    qint64 m_readable; // bytes of old files that commands may still read
};

/// As `ZELUpdaterApplyPatch`. A stop ends it before the next command, as a failure.
bool applyBundlePatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                      QVariantList &log, const std::stop_token &stop);

} // namespace zel

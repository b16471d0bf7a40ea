// Performing the commands of a manifest on the bundle that is being built.
#pragma once

#include "BundleWalk.h"
#include "PatchBudget.h"

#include <QString>
#include <QVariantList>

namespace zel {

class PatchRunner
{
public:
    /// All four must outlive the runner, and nobody else may change the bundles meanwhile. `log` receives the entries of
    /// commands that fail. `oldSize`: the bytes of the old bundle; deltas may read each of them once.
    PatchRunner(const QString &oldBundle, const QString &newBundle, qint64 oldSize, const PatchFile &patch,
                QVariantList &log)
        : m_oldPath(oldBundle)
        , m_newPath(newBundle)
        , m_old(oldBundle, m_namesLeft)
        , m_new(newBundle, m_namesLeft)
        , m_patch(patch)
        , m_log(log)
        , m_readable(oldSize + SmallChange)
    {
    }

    /// Performs one command; false when it failed in a way that must end the patch. A path that leaves the bundle
    /// does, before anything is touched.
    bool perform(const PatchCommand &command);

private:
    bool perform(const PatchCommand &command, BundleItem &target);
    void deleteSymlink(const PatchCommand &command, const BundleItem &target);
    void createSymlink(const PatchCommand &command, const BundleItem &target);
    void symlinkFailed(int number, const char *description, const PatchCommand &command);
    bool add(const PatchCommand &command, BundleItem &target);
    bool patch(const PatchCommand &command, const QString &target);
    bool applyDelta(const PatchCommand &command, const QString &original, const QString &target);
    void appendContents(const char *description, const PatchCommand &command, const QString &original,
                        const QString &target);

    const QString &m_oldPath;
    const QString &m_newPath;
    qint64 m_namesLeft = MaxNamesWalked;
    BundleWalk m_old;
    BundleWalk m_new;
    const PatchFile &m_patch;
    QVariantList &m_log;
    qint64 m_readable; // bytes of old files that deltas may still read
};

} // namespace zel

// Where downloads and new bundles are put until the host has used them.
//
// All processes of a user share one root, so a folder there may be another process's ready bundle or its
// running download. Each folder is therefore locked by the process that uses it (flock on the folder itself,
// which ends with the process, however that ends), and only what can be locked is ever removed. A file system
// that cannot lock folders (some network ones) keeps what a killed process left; everything else works there.
#pragma once

#include "base/FileDescriptor.h"
#include "common/ZELError.h"

#include <QString>

#include <memory>

namespace zel {

/// The folder that holds the staging folders: "~/Library/Application Support/Wexmoor 7/Patch" of the user. A
/// null string where HOME is not set or is no absolute path.
QString stagingRoot();

/// A new UUID as the file names of the updater bear it: upper case, without braces.
QString newUUID();

/// One update's private folder (0700), named by a new UUID. No process removes it while this object lives.
class StagingFolder
{
public:
    /// Makes a folder below `root`. The root is made, privately, when it is missing; one that is a link,
    /// belongs to another user or is writable by others is an error, as is a null root. Safe from any thread.
    static ZELError make(const QString &root, std::shared_ptr<StagingFolder> &folder);

    QString path() const { return m_path; } ///< ends in "/"

    /// Removes the folder with all that it holds, as well as that goes.
    void remove();

private:
    StagingFolder(const QString &path, FileDescriptor lock)
        : m_path(path)
        , m_lock(std::move(lock))
    {
    }

    const QString m_path;
    const FileDescriptor m_lock;
};

/// Removes everything below `root` that no `StagingFolder` of any process holds, and the root itself when
/// that leaves it empty. A root that `StagingFolder::make` would refuse is not touched. Errors are ignored.
/// Safe from any thread.
void sweepStaging(const QString &root);

} // namespace zel

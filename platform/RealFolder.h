// Folders opened and read as they are, never by way of a link.
#pragma once

#include "base/FileDescriptor.h"

#include <QByteArray>
#include <QString>

#include <dirent.h>
#include <fcntl.h>
#include <memory>

namespace zel {

constexpr int RealFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/// How deeply folders may be nested in a bundle. Walks hold a descriptor open for each level.
constexpr int MaxFolderDepth = 128;

/// A path for the system to take, naming an item itself: without the slashes and dots behind the last name, for which
/// the system would follow a link. Empty for a path with a NUL, of which the system would see the beginning alone.
QByteArray itemPath(const QString &path);

/// Opens a folder, but not a link to one, whatever ends its path. Folders above it may be links. None, with errno,
/// where there is no such folder.
FileDescriptor openRealFolder(const QString &path);

/// An open folder and the names in it.
class FolderListing
{
public:
    /// Lists the folder `name` of an open one; "." stands for that one itself.
    FolderListing(int folder, const char *name);

    /// Takes an open folder over, to list it from where its descriptor stands.
    explicit FolderListing(FileDescriptor folder);

    /// False, with errno, when the folder could not be opened.
    explicit operator bool() const { return bool(m_entries); }

    int folder() const { return ::dirfd(m_entries.get()); }

    /// The next name but "." and "..", good until the next call. At the end null, with errno: 0 unless the folder could
    /// not be read on.
    const char *next();

private:
    struct Close {
        void operator()(DIR *entries) const { ::closedir(entries); }
    };
    std::unique_ptr<DIR, Close> m_entries;
};

} // namespace zel

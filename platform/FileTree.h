// Folders and all that is in them: opened, listed, copied and removed, never by way of a link below the top.
#pragma once

#include "base/FileDescriptor.h"
#include "common/ZELError.h"

#include <QByteArray>
#include <QString>

#include <dirent.h>
#include <memory>

namespace zel {

/// How deeply folders may be nested in a bundle. Walks hold a descriptor open for each level.
constexpr int MaxFolderDepth = 128;

/// A path for the system to take, naming an item itself: without the slashes and dots behind the last name,
/// for which the system would follow a link. Empty for a path with a NUL, of which the system would see the
/// beginning alone.
QByteArray itemPath(const QString &path);

/// Opens a folder, but not a link to one, whatever ends its path. Folders above it may be links. None, with
/// errno, where there is no such folder.
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

    /// The next name but "." and "..", good until the next call. At the end null, with errno: 0 unless the
    /// folder could not be read on.
    const char *next();

private:
    struct Close {
        void operator()(DIR *entries) const { ::closedir(entries); }
    };
    std::unique_ptr<DIR, Close> m_entries;
};

/// Copies a file or a whole folder to `to`, which must not exist (its parent must). Modes, times, symbolic
/// links and extended attributes are kept, data is shared with the source where the file system can clone.
/// When `from` itself is a link, what it points at is copied. Anything but files, folders and links is an
/// error, as are folders nested deeper than `MaxFolderDepth`. What was copied before an error stays for the
/// caller to remove.
ZELError copyTree(const QString &from, const QString &to);

/// Removes a file, a link (never what it points at, whatever ends the path) or a folder with all it holds, at
/// any depth. A missing item is no error. Linear in time; memory is what the names of folders take that are
/// still to be removed.
ZELError removeTree(const QString &path);

/// `removeTree` of an item in an open folder. False, with errno, on failure.
bool removeItem(int folder, const char *name);

/// The bytes of all regular files in a folder, or of one file. Links are followed at the top only; what
/// cannot be read counts as nothing.
qint64 treeSize(const QString &path);

/// Makes a folder and those above it that are missing, all of them private (0700).
ZELError makePrivateFolder(const QString &path);

} // namespace zel

// Files and folders: copying, removing, reading and writing whole items. Links are never followed below the top.
#pragma once

#include "common/ZELError.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace zel {

/// Copies a file or a whole folder to `to`, which must not exist (its parent must). Modes, times, symbolic links and
/// extended attributes are kept, data is shared with the source where the file system can clone. When `from` itself
/// is a link, what it points at is copied. Anything but files, folders and links is an error, as are folders nested
/// deeper than 128. What was copied before an error stays for the caller to remove.
ZELError copyTree(const QString &from, const QString &to);

/// Removes a file, a link (never what it points at, whatever ends the path) or a folder with all it holds, at any depth.
/// A missing item is no error. Linear in time; memory is what the names of folders take that are still to be removed.
ZELError removeTree(const QString &path);

/// `removeTree` of an item in an open folder. False, with errno, on failure.
bool removeItem(int folder, const char *name);

/// The bytes of all regular files in a folder, or of one file. Links are followed at the top only; what cannot be read
/// counts as nothing.
qint64 treeSize(const QString &path);

/// Whether `path` is `folder` or lies below it, with all links resolved. Neither needs to exist. What cannot be
/// resolved holds everything.
bool liesWithin(const QString &path, const QString &folder);

/// The whole content of a regular file, links followed; nothing where it cannot be read.
std::optional<QByteArray> readFile(const QString &path);

/// Moves a finished file to its place, where it replaces a file or a link. A device, a pipe or a socket there, or at the
/// link's end, is not for a file to replace: an error.
ZELError replaceFile(const QString &aside, const QString &path);

/// Writes a file aside and moves it into place like `replaceFile`, so that there is never half a file. The file gets the
/// default mode (0666 less the umask), whatever stood there before.
ZELError writeFileAtomically(const QString &path, QByteArrayView bytes);

/// The same in an open folder. False, with errno, on failure.
bool writeFileAtomically(int folder, const QByteArray &name, QByteArrayView bytes);

/// Makes a folder and those above it that are missing, all of them private (0700).
ZELError makePrivateFolder(const QString &path);

} // namespace zel

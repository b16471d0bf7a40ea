// Files that clients are sent: on the disk before they are announced, and known by their hashes.
#pragma once

#include "common/UpdateRecord.h"
#include "common/ZELError.h"

#include <QByteArray>
#include <QString>

namespace zel {

/// The whole content of a file in a release folder. Whoever else writes there may have put anything in its
/// place: a link, a pipe, a device or more than `most` bytes are errors, and nothing is waited for.
ZELError readPublished(const QString &path, qint64 most, QByteArray &bytes);

/// The whole content of a file that the user names, be it a pipe; more than `most` bytes are an error.
ZELError readInput(const QString &path, qint64 most, QByteArray &bytes);

/// Copies a file of a release folder, by the same rules, to where nobody can exchange it any more: to a path
/// at which nothing is yet.
ZELError copyPublished(const QString &path, const QString &copy);

/// Replaces a file at once, or leaves what is there. After a power cut, too, it is the old one or the new
/// one, whole. `path` is not a link.
ZELError writeDurably(const QString &path, const QByteArray &bytes);

/// Brings a file, none that `readPublished` would refuse, to the disk and tells what it is, as "size", "hash"
/// (MD5) and "sha256": the keys of a record. An error when one of them cannot be told.
ZELError settleFile(const QString &path, OfferedFile &facts);

/// Brings the names in a folder to the disk.
ZELError settleFolder(const QString &path);

/// Makes a folder with those above it that are missing, all of them on the disk, too.
ZELError makeDurableFolder(const QString &folder);

/// Whether something is at a path, if only a link to nothing. What cannot be looked at is not taken for
/// missing.
ZELError lookAt(const QString &path, bool &isThere);

/// A size for people, such as "12.3 MB".
QString sizeText(qint64 bytes);

/// Writes a zip archive of a bundle: the bundle's folder is the archive's one item at the top. Times and
/// symbolic links are kept; the modes are 0755 for folders and programs and 0644 for other files, whatever
/// they were. The size is never a multiple of `MD5Digest::ChunkSize`, which would leave the archive without a
/// hash (MD5FromData.h). The same bundle always gives the same bytes. What stood at `zipPath` is replaced
/// once the archive is whole.
ZELError writeBundleZip(const QString &bundle, const QString &zipPath);

} // namespace zel

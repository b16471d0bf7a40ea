// Files that clients are sent: on the disk before they are announced, and known by their hashes.
#pragma once

#include "common/UpdateRecord.h"
#include "common/ZELError.h"

#include <QByteArray>
#include <QString>

namespace zel {

/// The whole content of a file; an error with the system's reason where it cannot be read.
ZELError readPublished(const QString &path, QByteArray &bytes);

/// Replaces a file at once, or leaves what is there. After a power cut, too, it is the old one or the new
/// one, whole. `path` is not a link.
ZELError writeDurably(const QString &path, const QByteArray &bytes);

/// Brings a file to the disk and tells what it is, as "size", "hash" (MD5) and "sha256": the keys of a
/// record. An error when one of them cannot be told.
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

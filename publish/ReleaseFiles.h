// Files that clients are sent: on the disk before they are announced, and known by their hashes.
#pragma once

#include "common/ZELError.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>

namespace zel {

/// The whole content of a file; an error with the system's reason where it cannot be read.
ZELError readPublished(const QString &path, QByteArray &bytes);

/// Replaces a file at once, or leaves what is there. After a power cut, too, it is the old one or the new
/// one, whole. `path` is not a link.
ZELError writeDurably(const QString &path, const QByteArray &bytes);

/// Brings a file to the disk and tells what it is, as "size", "hash" (MD5) and "sha256": the keys of a
/// record. An error when one of them cannot be told.
ZELError settleFile(const QString &path, QJsonObject &facts);

/// Brings the names in a folder to the disk.
ZELError settleFolder(const QString &path);

} // namespace zel

// What is in files: read whole, replaced at once, copied with all that belongs to it; and whether there is
// room for it.
#pragma once

#include "common/ZELError.h"

#include <QByteArray>
#include <QString>

#include <optional>

struct stat;

namespace zel {

/// The whole content of a regular file, links followed; nothing where it cannot be read.
std::optional<QByteArray> readFile(const QString &path);

/// Moves a finished file to its place, where it replaces a file or a link. A device, a pipe or a socket
/// there, or at the link's end, is not for a file to replace: an error.
ZELError replaceFile(const QString &aside, const QString &path);

/// Writes a file aside and moves it into place like `replaceFile`, so that there is never half a file. The
/// file gets the default mode (0666 less the umask), whatever stood there before.
ZELError writeFileAtomically(const QString &path, QByteArrayView bytes);

/// The same in an open folder. False, with errno, on failure.
bool writeFileAtomically(int folder, const QByteArray &name, QByteArrayView bytes);

/// Copies all data of one open file to another, empty one: cloned where the file system can, else copied
/// inside the kernel, else through memory. False, with errno, on failure.
bool copyData(int from, int to);

/// Gives `to` the extended attributes of `from`, then the mode and times in `status`. Attributes that the
/// destination's file system or the user's rights do not allow are left out. False, with errno, on failure.
bool copyAttributes(int from, int to, const struct stat &status);

/// An error that says how many bytes are missing when `bytes` more would not fit into the file system of a
/// folder, less the reserve of `writableBytes`. None where the system does not say.
ZELError requireSpace(const QString &folder, qint64 bytes);

} // namespace zel

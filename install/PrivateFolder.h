// Folders of this user's own that all of the user's processes share, and the locks that keep them apart.
#pragma once

#include "base/FileDescriptor.h"
#include "common/ZELError.h"

#include <QByteArray>
#include <QString>

namespace zel {

/// Opens a folder in which no other user can have put anything. One that is a link, belongs to another user
/// or is writable by others is an error, which calls it by `purpose`: "staging folder".
ZELError openPrivateFolder(const QString &path, const QString &purpose, FileDescriptor &folder);

enum class Lock { Ours, Others, Unsupported };

/// Locks an open file or folder until its last descriptor closes, which a process that is killed does, too.
Lock lock(const FileDescriptor &item);

/// Whether the name still stands for the open file or folder, which another process may have removed or moved
/// between its opening and its locking.
bool isStillThere(const FileDescriptor &folder, const QByteArray &name, const FileDescriptor &item);

/// "~/Library/Application Support/Wexmoor 7/NAME" of the user; a null string where HOME is not set or is no
/// absolute path.
QString folderOfUpdater(const QString &name);

} // namespace zel

// Folders opened as they are, never by way of a link.
#pragma once

#include "FileDescriptor.h"

#include <QString>

#include <fcntl.h>

namespace zel {

constexpr int RealFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/// Opens a folder, but not a link to one: slashes and dots behind the last name, for which the system would follow it,
/// do not count. Folders above it may be links. None, with errno, where there is no such folder.
FileDescriptor openRealFolder(const QString &path);

} // namespace zel

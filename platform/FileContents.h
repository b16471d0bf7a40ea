// What is in files: read whole, replaced at once, copied with all that belongs to it; and whether there is
// room for it.
#pragma once

#include "base/FileDescriptor.h"
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

/// A new file in an open folder under a name that nobody else has, for what is not finished yet. Removed when
/// it goes out of scope, unless it was moved into its place.
class FileAside
{
public:
    /// Beside an item of the folder: `name` may have folders in it. The file has the default mode.
    FileAside(int folder, const QByteArray &name);
    FileAside(const FileAside &) = delete;
    FileAside &operator=(const FileAside &) = delete;
    ~FileAside();

    /// False, with errno, when it could not be made.
    explicit operator bool() const { return bool(m_file); }

    int descriptor() const { return m_file.get(); }
    const QByteArray &name() const { return m_aside; }

    /// Gives the file the name that it was made for, like `replaceFile`. False, with errno, on failure.
    bool moveIntoPlace();

private:
    const int m_folder;
    const QByteArray m_name;
    QByteArray m_aside; // null once it is in its place
    FileDescriptor m_file;
};

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

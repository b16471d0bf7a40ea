#include "RealFolder.h"

#include <QFile>

#include <cerrno>

namespace zel {

FileDescriptor openRealFolder(const QString &path)
{
    QByteArray name = QFile::encodeName(path);
    while (name.size() > 1 && (name.endsWith('/') || name.endsWith("/.")))
        name.chop(1);
    if (name.contains('\0')) { // the system would open what the path begins with
        errno = ENOENT;
        return FileDescriptor();
    }
    return FileDescriptor(::open(name.constData(), RealFolderFlags));
}

} // namespace zel

#include "RealFolder.h"

#include <QFile>

#include <cerrno>
#include <cstring>

namespace zel {

QByteArray itemPath(const QString &path)
{
    QByteArray name = QFile::encodeName(path);
    while (name.size() > 1 && (name.endsWith('/') || name.endsWith("/.")))
        name.chop(1);
    return name.contains('\0') ? QByteArray() : name;
}

FileDescriptor openRealFolder(const QString &path)
{
    return FileDescriptor(::open(itemPath(path).constData(), RealFolderFlags));
}

FolderListing::FolderListing(int folder, const char *name)
    : FolderListing(FileDescriptor(::openat(folder, name, RealFolderFlags)))
{
}

FolderListing::FolderListing(FileDescriptor folder)
    : m_entries(folder ? ::fdopendir(folder.get()) : nullptr)
{
    if (m_entries)
        folder.release();
}

const char *FolderListing::next()
{
    for (;;) {
        errno = 0;
        const dirent *entry = ::readdir(m_entries.get());
        if (!entry)
            return nullptr;
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            return entry->d_name;
    }
}

} // namespace zel

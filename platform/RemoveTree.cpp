// Removal of whole trees: by descriptors, so that no link is followed and no path grows too long for the system; without
// recursion, so that the depth is bounded by what can exist alone; and with one folder open at a time. The way back up is
// "..", which must be the folder that the walk came from: whoever moves folders about meanwhile ends it. What is kept for
// a level is its name and the names of the folders in it that are still to be removed.
#include "FileTree.h"
#include "RealFolder.h"

#include <cerrno>
#include <sys/stat.h>
#include <vector>

namespace zel {

namespace {

bool isMissing(int number)
{
    return number == ENOENT || number == ENOTDIR;
}

bool isFolder(int folder, const char *name)
{
    struct stat status;
    return ::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
}

// Each step gives false, with errno, when it failed.
class Remover
{
public:
    Remover(int folder, const char *name)
        : m_top(folder)
        , m_name(name)
    {
    }

    bool run()
    {
        if (::unlinkat(m_top, m_name, 0) == 0 || isMissing(errno))
            return true;
        const int number = errno;
        if (!isFolder(m_top, m_name)) {
            errno = number;
            return false;
        }
        if (!enter(m_name))
            return false;
        while (!m_levels.empty()) {
            std::vector<QByteArray> &folders = m_levels.back().folders;
            if (folders.empty() ? !leave() : !enterOneOf(folders))
                return false;
        }
        return true;
    }

private:
    struct Level {
        QByteArray name;
        dev_t device;
        ino_t number;
        std::vector<QByteArray> folders; // those still to be removed
    };

    bool enterOneOf(std::vector<QByteArray> &folders)
    {
        const QByteArray name = std::move(folders.back());
        folders.pop_back();
        return enter(name);
    }

    bool enter(const QByteArray &name)
    {
        const int parent = m_levels.empty() ? m_top : m_folder.get();
        FileDescriptor folder(::openat(parent, name.constData(), RealFolderFlags));
        if (!folder && errno == EACCES
            && ::fchmodat(parent, name.constData(), 0700, AT_SYMLINK_NOFOLLOW) == 0)
            folder = FileDescriptor(::openat(parent, name.constData(), RealFolderFlags));
        struct stat status;
        if (!folder || ::fstat(folder.get(), &status) != 0)
            return false;
        // A copied or unpacked folder may forbid its owner to change it; it must still go when its time has come.
        if ((status.st_mode & S_IRWXU) != S_IRWXU)
            ::fchmod(folder.get(), S_IRWXU);
        m_folder = std::move(folder);
        m_levels.push_back({name, status.st_dev, status.st_ino, {}});
        return removeFiles();
    }

    // Everything but folders, which are only noted.
    bool removeFiles()
    {
        FolderListing listing(m_folder.get(), ".");
        if (!listing)
            return false;
        while (const char *name = listing.next()) {
            if (::unlinkat(m_folder.get(), name, 0) == 0 || isMissing(errno))
                continue;
            const int number = errno;
            if (!isFolder(m_folder.get(), name)) {
                errno = number;
                return false;
            }
            m_levels.back().folders.emplace_back(name);
        }
        return errno == 0;
    }

    bool leave()
    {
        const QByteArray name = m_levels.back().name;
        m_levels.pop_back();
        if (m_levels.empty()) {
            m_folder = FileDescriptor();
            return removeFolder(m_top, name);
        }
        m_folder = FileDescriptor(::openat(m_folder.get(), "..", RealFolderFlags));
        return isWhereItWas() && removeFolder(m_folder.get(), name);
    }

    bool isWhereItWas() const
    {
        struct stat status;
        if (!m_folder || ::fstat(m_folder.get(), &status) != 0)
            return false;
        errno = ESTALE;
        return status.st_dev == m_levels.back().device && status.st_ino == m_levels.back().number;
    }

    static bool removeFolder(int parent, const QByteArray &name)
    {
        return ::unlinkat(parent, name.constData(), AT_REMOVEDIR) == 0 || errno == ENOENT;
    }

    int m_top;
    const char *m_name;
    FileDescriptor m_folder; // the innermost of the levels
    std::vector<Level> m_levels;
};

} // namespace

bool removeItem(int folder, const char *name)
{
    return Remover(folder, name).run();
}

ZELError removeTree(const QString &path)
{
    const bool removed = removeItem(AT_FDCWD, itemPath(path).constData());
    return removed ? ZELError() : ZELError::fromErrno(QLatin1String("cannot remove ") + path, errno);
}

} // namespace zel

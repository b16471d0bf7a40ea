#include "TreeWriter.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace zel {

namespace {

// An archive has no say in modes beyond the one bit: what it brings is for all to read and for its owner to change.
constexpr mode_t programMode = 0755;
constexpr mode_t plainMode = 0644;
constexpr mode_t folderMode = 0755;

FileDescriptor enterOne(int above, const char *name)
{
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const int found = ::openat(above, name, flags);
    if (found >= 0 || errno != ENOENT)
        return FileDescriptor(found);
    // Another thread may have made it meanwhile.
    const bool made = ::mkdirat(above, name, folderMode) == 0;
    if (!made && errno != EEXIST)
        return FileDescriptor();
    FileDescriptor folder(::openat(above, name, flags));
    if (made && folder && ::fchmod(folder.get(), folderMode) != 0) // whatever the umask
        return FileDescriptor();
    return folder;
}

// Runs `make` until nothing stands in its way: what is there is removed once.
template <typename Make> int replacing(int folder, const std::string &leaf, const Make &make)
{
    const int made = make();
    if (made >= 0 || errno != EEXIST || ::unlinkat(folder, leaf.c_str(), 0) != 0)
        return made;
    return make();
}

struct Times {
    explicit Times(int64_t modified)
        : values{{0, UTIME_NOW}, {time_t(modified), 0}}
    {
    }
    timespec values[2]; // of the last access and the last change
};

} // namespace

Problem TreeWriter::enter(std::string_view folder, std::string_view entryName)
{
    if (m_folder && folder == m_folderName)
        return {};
    FileDescriptor current(::fcntl(m_root, F_DUPFD_CLOEXEC, 0));
    for (size_t start = 0; current && start < folder.size();) {
        const size_t end = std::min(folder.find('/', start), folder.size());
        current = enterOne(current.get(), std::string(folder.substr(start, end - start)).c_str());
        start = end + 1;
    }
    if (!current)
        return entrySystemProblem(entryName, "cannot be made, for the folder cannot be entered");
    m_folder = std::move(current);
    m_folderName = folder;
    return {};
}

Problem TreeWriter::enterAbove(const ZipEntry &entry, std::string &leaf)
{
    const size_t slash = entry.name.rfind('/');
    leaf = entry.name.substr(slash + 1); // of the whole name when there is no slash
    return enter(slash == entry.name.npos ? std::string_view() : entry.name.substr(0, slash), entry.name);
}

Problem TreeWriter::makeFile(const ZipEntry &entry, FileDescriptor &file)
{
    std::string leaf;
    if (Problem problem = enterAbove(entry, leaf))
        return problem;
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    file = FileDescriptor(
        replacing(m_folder.get(), leaf, [&] { return ::openat(m_folder.get(), leaf.c_str(), flags, 0600); }));
    return file ? Problem() : entrySystemProblem(entry.name, "cannot be made");
}

Problem TreeWriter::finishFile(const ZipEntry &entry, FileDescriptor &file)
{
    const Times times(entry.modified);
    if (::fchmod(file.get(), entry.executable ? programMode : plainMode) != 0
        || ::futimens(file.get(), times.values) != 0 || !file.close())
        return entrySystemProblem(entry.name, "cannot be completed");
    return {};
}

Problem TreeWriter::makeLink(const ZipEntry &entry, const std::string &target)
{
    std::string leaf;
    if (Problem problem = enterAbove(entry, leaf))
        return problem;
    const int made = replacing(m_folder.get(), leaf,
                               [&] { return ::symlinkat(target.c_str(), m_folder.get(), leaf.c_str()); });
    const Times times(entry.modified);
    if (made != 0 || ::utimensat(m_folder.get(), leaf.c_str(), times.values, AT_SYMLINK_NOFOLLOW) != 0)
        return entrySystemProblem(entry.name, "cannot be made");
    return {};
}

Problem TreeWriter::finishFolder(const ZipEntry &entry)
{
    const Times times(entry.modified);
    if (Problem problem = enter(entry.name, entry.name))
        return problem;
    if (::fchmod(m_folder.get(), folderMode) != 0 || ::futimens(m_folder.get(), times.values) != 0)
        return entrySystemProblem(entry.name, "cannot be completed");
    return {};
}

} // namespace zel

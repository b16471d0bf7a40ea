#include "Extraction.h"

#include "EntryReader.h"
#include "SafetyCheck.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <system_error>
#include <thread>

namespace zel {

namespace {

using Kind = ZipEntry::Kind;

// An archive has no say in modes beyond the one bit: what it brings is for all to read and for its owner to
// change.
constexpr mode_t ProgramMode = 0755;
constexpr mode_t PlainMode = 0644;
constexpr mode_t FolderMode = 0755;

FileDescriptor enterOne(int above, const char *name)
{
    const int found = ::openat(above, name, RealFolderFlags);
    if (found >= 0 || errno != ENOENT)
        return FileDescriptor(found);
    // Another thread may have made it meanwhile.
    const bool made = ::mkdirat(above, name, FolderMode) == 0;
    if (!made && errno != EEXIST)
        return FileDescriptor();
    FileDescriptor folder(::openat(above, name, RealFolderFlags));
    if (made && folder && ::fchmod(folder.get(), FolderMode) != 0) // whatever the umask
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

// Makes items below `root`, with the folders above them. Every folder on the way is opened by itself and
// without following links, so that a link which is there already leads nowhere either. What is in the place
// of a new file or link is replaced, unless it is a folder. Each thread needs a writer of its own.
class TreeWriter
{
public:
    explicit TreeWriter(int root)
        : m_root(root)
    {
    }

    // A new empty file, open for writing.
    Problem makeFile(const ZipEntry &entry, FileDescriptor &file);
    // Gives a file that is complete its mode and time, and closes it.
    static Problem finishFile(const ZipEntry &entry, FileDescriptor &file);

    Problem makeLink(const ZipEntry &entry, const std::string &target);

    // Makes a folder unless it is there, and gives it its mode and time; nothing may be made in it
    // afterwards.
    Problem finishFolder(const ZipEntry &entry);

private:
    Problem enter(std::string_view folder, std::string_view entryName);
    Problem enterAbove(const ZipEntry &entry, std::string &leaf);

    int m_root;
    std::string m_folderName; // the folder entered last: most entries lie beside the one before
    FileDescriptor m_folder;
};

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
    if (::fchmod(file.get(), entry.executable ? ProgramMode : PlainMode) != 0
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
    if (::fchmod(m_folder.get(), FolderMode) != 0 || ::futimens(m_folder.get(), times.values) != 0)
        return entrySystemProblem(entry.name, "cannot be completed");
    return {};
}

Problem extractFile(const ZipEntry &entry, EntryReader &reader, TreeWriter &tree, const Progress &progress)
{
    progress();
    FileDescriptor file;
    if (Problem problem = tree.makeFile(entry, file))
        return problem;
    auto write = [&](const char *data, size_t length) -> Problem {
        progress();
        return writeAll(file.get(), data, length) ? Problem()
                                                  : entrySystemProblem(entry.name, "cannot be written");
    };
    if (Problem problem = reader.read(entry, write))
        return problem;
    return TreeWriter::finishFile(entry, file);
}

// The files of an archive, shared out between threads.
class FileWork
{
public:
    FileWork(const ZipDirectory &directory, int archive, int root, const Progress &progress)
        : m_directory(directory)
        , m_archive(archive)
        , m_root(root)
        , m_progress(progress)
    {
    }

    Problem run()
    {
        Problem own, other;
        {
            const std::jthread second = startSecond(other);
            own = extractShare();
        }
        return own ? own : other;
    }

private:
    // Unpacking keeps a processor busy, and so a second one nearly halves the time. Where no thread is to be
    // had, the first one does it all.
    std::jthread startSecond(Problem &problem)
    {
        try {
            return std::jthread([this, &problem] { problem = extractShare(); });
        } catch (const std::system_error &) {
            return {};
        }
    }

    // Nothing is thrown out of a thread's work: it would end the process without a word.
    Problem extractShare()
    {
        try {
            return extractNext();
        } catch (const std::bad_alloc &) {
            m_failed = true;
            return tooLittleMemory();
        }
    }

    Problem extractNext()
    {
        EntryReader reader(m_archive, m_directory.dataEnd());
        TreeWriter tree(m_root);
        const std::vector<ZipEntry> &entries = m_directory.entries();
        for (size_t i = m_next++; i < entries.size() && !m_failed; i = m_next++) {
            if (entries[i].kind != Kind::File)
                continue;
            if (Problem problem = extractFile(entries[i], reader, tree, m_progress)) {
                m_failed = true;
                return problem;
            }
        }
        return {};
    }

    const ZipDirectory &m_directory;
    int m_archive;
    int m_root;
    const Progress &m_progress;
    std::atomic<size_t> m_next = 0;
    std::atomic<bool> m_failed = false;
};

Problem makeLinks(const ZipDirectory &directory, int archive, TreeWriter &tree, const Progress &progress)
{
    EntryReader reader(archive, directory.dataEnd());
    std::string target;
    for (const ZipEntry &entry : directory.entries()) {
        if (entry.kind != Kind::Link)
            continue;
        progress();
        if (Problem problem = readTarget(entry, reader, target))
            return problem;
        if (Problem problem = tree.makeLink(entry, target))
            return problem;
    }
    return {};
}

// Makes those that are empty, too. Inner folders first: what is made in a folder changes its time.
Problem finishFolders(const ZipDirectory &directory, TreeWriter &tree, const Progress &progress)
{
    std::vector<const ZipEntry *> folders;
    for (const ZipEntry &entry : directory.entries()) {
        if (entry.kind == Kind::Folder)
            folders.push_back(&entry);
    }
    std::sort(folders.begin(), folders.end(),
              [](const ZipEntry *a, const ZipEntry *b) { return a->name > b->name; });
    for (const ZipEntry *folder : folders) {
        progress();
        if (Problem problem = tree.finishFolder(*folder))
            return problem;
    }
    return {};
}

} // namespace

Problem extractAll(const ZipDirectory &directory, int archive, int root, const Progress &progress)
{
    TreeWriter tree(root);
    if (Problem problem = FileWork(directory, archive, root, progress).run())
        return problem;
    if (Problem problem = makeLinks(directory, archive, tree, progress))
        return problem;
    return finishFolders(directory, tree, progress);
}

} // namespace zel

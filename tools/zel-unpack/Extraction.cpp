#include "Extraction.h"

#include "EntryReader.h"
#include "SafetyCheck.h"
#include "TreeWriter.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <system_error>
#include <thread>

namespace zel {

namespace {

using Kind = ZipEntry::Kind;

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
    // Unpacking keeps a processor busy, and so a second one nearly halves the time. Where no thread is to be had, the
    // first one does it all.
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

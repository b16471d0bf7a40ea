#include "Extraction.h"

#include "EntryReader.h"
#include "Survey.h"
#include "TreeWriter.h"

#include <algorithm>
#include <atomic>
#include <thread>

namespace zel {

namespace {

using Kind = ZipEntry::Kind;

Problem extractFile(const ZipEntry &entry, EntryReader &reader, TreeWriter &tree)
{
    FileDescriptor file;
    if (Problem problem = tree.makeFile(entry, file))
        return problem;
    auto write = [&](const char *data, size_t length) -> Problem {
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
    FileWork(const ZipDirectory &directory, int archive, int root)
        : m_directory(directory)
        , m_archive(archive)
        , m_root(root)
    {
    }

    Problem run()
    {
        // Unpacking keeps a processor busy, and so a second one nearly halves the time.
        Problem other;
        std::thread second([&] { other = extractShare(); });
        Problem own = extractShare();
        second.join();
        return own ? own : other;
    }

private:
    Problem extractShare()
    {
        EntryReader reader(m_archive, m_directory.dataEnd());
        TreeWriter tree(m_root);
        const std::vector<ZipEntry> &entries = m_directory.entries();
        for (size_t i = m_next++; i < entries.size() && !m_failed; i = m_next++) {
            if (entries[i].kind != Kind::File)
                continue;
            if (Problem problem = extractFile(entries[i], reader, tree)) {
                m_failed = true;
                return problem;
            }
        }
        return {};
    }

    const ZipDirectory &m_directory;
    int m_archive;
    int m_root;
    std::atomic<size_t> m_next = 0;
    std::atomic<bool> m_failed = false;
};

Problem makeLinks(const ZipDirectory &directory, int archive, TreeWriter &tree)
{
    EntryReader reader(archive, directory.dataEnd());
    std::string target;
    for (const ZipEntry &entry : directory.entries()) {
        if (entry.kind != Kind::Link)
            continue;
        if (Problem problem = readTarget(entry, reader, target))
            return problem;
        if (Problem problem = tree.makeLink(entry, target))
            return problem;
    }
    return {};
}

// Makes those that are empty, too. Inner folders first: an outer one may be closed to its owner by its new mode.
Problem finishFolders(const ZipDirectory &directory, TreeWriter &tree)
{
    std::vector<const ZipEntry *> folders;
    for (const ZipEntry &entry : directory.entries()) {
        if (entry.kind == Kind::Folder)
            folders.push_back(&entry);
    }
    std::sort(folders.begin(), folders.end(),
              [](const ZipEntry *a, const ZipEntry *b) { return a->name > b->name; });
    for (const ZipEntry *folder : folders) {
        if (Problem problem = tree.finishFolder(*folder))
            return problem;
    }
    return {};
}

} // namespace

Problem extractAll(const ZipDirectory &directory, int archive, int root)
{
    TreeWriter tree(root);
    if (Problem problem = FileWork(directory, archive, root).run())
        return problem;
    if (Problem problem = makeLinks(directory, archive, tree))
        return problem;
    return finishFolders(directory, tree);
}

} // namespace zel

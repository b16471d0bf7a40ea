#include "SafetyCheck.h"

#include "SeenNames.h"

#include <algorithm>
#include <climits>

namespace zel {

static Problem judgeName(std::string_view name)
{
    if (name.empty())
        return "the archive holds an entry without a name";
    if (name.front() == '/')
        return entryProblem(name, "has an absolute name");
    if (name.find('\0') != name.npos)
        return entryProblem(name.substr(0, name.find('\0')), "has a NUL byte in its name");
    if (name.size() > maximumNameLength)
        return entryProblem(name, "has a name of more than " + std::to_string(maximumNameLength) + " bytes");
    size_t depth = 0;
    for (size_t start = 0; start <= name.size();) {
        const size_t end = std::min(name.find('/', start), name.size());
        const std::string_view component = name.substr(start, end - start);
        if (component.empty() || component == "." || component == "..")
            return entryProblem(name, "has an empty, \".\" or \"..\" component in its name");
        if (component.size() > maximumComponentLength)
            return entryProblem(name,
                                "has a component of more than " + std::to_string(maximumComponentLength)
                                    + " bytes in its name");
        if (++depth > maximumDepth)
            return entryProblem(name, "lies more than " + std::to_string(maximumDepth) + " levels deep");
        start = end + 1;
    }
    return {};
}

// Leading ".." are counted against the folders above the link, which are real folders of the archive. After them
// the way only goes down, and each link on it has been judged by itself, so no chain of links leaves either.
// Stricter than what the library allows the links of a bundle, whose way is walked link by link: an archive is judged
// before any of it is on the disk, and with the C++ library alone.
static bool staysInside(std::string_view name, std::string_view target)
{
    auto above = std::count(name.begin(), name.end(), '/');
    bool named = false;
    while (!target.empty()) {
        const size_t end = std::min(target.find('/'), target.size());
        const std::string_view component = target.substr(0, end);
        target.remove_prefix(std::min(end + 1, target.size()));
        if (component == ".." && (named || --above < 0))
            return false;
        named = named || (component != ".." && component != "." && !component.empty());
    }
    return true;
}

Problem readTarget(const ZipEntry &link, EntryReader &reader, std::string &target)
{
    target.clear();
    if (link.size == 0 || link.size >= PATH_MAX)
        return entryProblem(link.name, "is a link without a usable target");
    auto append = [&](const char *data, size_t length) -> Problem {
        target.append(data, length);
        return {};
    };
    if (Problem problem = reader.read(link, append))
        return problem;
    if (target.find('\0') != target.npos)
        return entryProblem(link.name, "is a link without a usable target");
    if (target.front() == '/' || !staysInside(link.name, target))
        return entryProblem(link.name, "is a link that may leave the folder");
    return {};
}

static Problem judgeSizes(const ZipDirectory &directory)
{
    constexpr uint64_t headerSize = 30;
    uint64_t total = 0;
    uint64_t end = 0; // of the entry before
    for (const ZipEntry &entry : directory.entries()) {
        total += std::min(entry.size, maximumTotalSize + 1);
        if (total > maximumTotalSize)
            return "the archive unpacks to more than " + std::to_string(maximumTotalSize) + " bytes";
        if (entry.headerOffset < end)
            return entryProblem(entry.name, "shares its data with another entry");
        if (entry.headerOffset > directory.dataEnd()
            || entry.packedSize > directory.dataEnd() - entry.headerOffset)
            return entryProblem(entry.name, "has its data outside the archive");
        end = entry.headerOffset + headerSize + entry.packedSize;
    }
    return {};
}

Problem judgeRoom(const ZipDirectory &directory, uint64_t writable)
{
    constexpr uint64_t block = 4096;
    uint64_t needed = 0;
    for (const ZipEntry &entry : directory.entries())
        needed += (std::max<uint64_t>(entry.size, 1) + block - 1) / block * block;
    if (needed <= writable)
        return {};
    return "the disk has too little room: the archive unpacks to " + std::to_string(needed) + " bytes, "
        + std::to_string(needed - writable) + " more than may be written";
}

Problem survey(const ZipDirectory &directory, EntryReader &reader)
{
    SeenNames seen;
    for (const ZipEntry &entry : directory.entries()) {
        if (Problem problem = judgeName(entry.name))
            return problem;
        if (entry.kind == ZipEntry::Kind::Folder && entry.size != 0)
            return entryProblem(entry.name, "is a folder with data");
        if (Problem problem = seen.add(entry.name, entry.kind == ZipEntry::Kind::Folder))
            return problem;
    }
    if (Problem problem = judgeSizes(directory))
        return problem;
    std::string target;
    for (const ZipEntry &entry : directory.entries()) {
        if (entry.kind != ZipEntry::Kind::Link)
            continue;
        if (Problem problem = readTarget(entry, reader, target))
            return problem;
    }
    return {};
}

} // namespace zel

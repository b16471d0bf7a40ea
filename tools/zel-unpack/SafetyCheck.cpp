#include "SafetyCheck.h"

#include <algorithm>
#include <climits>
#include <cwchar>
#include <cwctype>
#include <unordered_map>

// Nothing in an archive is trusted. Its maker may be anyone: the tool runs before any seal is looked at, with
// the rights of the user. So all that an archive says is judged here, before the first of it is written, and
// what is refused leaves the folder as it was.
//
// The rule that the rest follows from: below the folder nothing leads out. A name only goes down. A link's
// target may go up, but only over folders that are the archive's own, and only at its begin: "a/../b" says
// nothing that can be judged, for "a" may be a link. Since nothing lies below a link, and each link is judged
// by itself, chains of them stay inside, too.
//
// Two more guards stand behind it. Links are made after all files (Extraction.h), and each folder on the way
// to a file is opened without following one, which also holds against what lay in the folder before. Names
// that differ only by case are refused although this system tells them apart: a seal or an application that
// was made where they are one would find another file than was judged.

namespace zel {

namespace {

class Hash // FNV-1a
{
public:
    void add(uint32_t unit) { m_value = (m_value ^ unit) * 0x100000001b3; }
    uint64_t value() const { return m_value; }

private:
    uint64_t m_value = 0xcbf29ce484222325;
};

// Takes the first character off `rest` and returns it in lower case.
uint32_t takeFolded(std::string_view &rest)
{
    wchar_t character = 0;
    std::mbstate_t state{};
    const size_t length = std::mbrtowc(&character, rest.data(), rest.size(), &state);
    if (length == 0 || length > rest.size()) { // not UTF-8
        const auto byte = static_cast<unsigned char>(rest.front());
        rest.remove_prefix(1);
        return 0x80000000U | byte;
    }
    rest.remove_prefix(length);
    return uint32_t(std::towlower(std::towupper(wint_t(character))));
}

// Names are kept as 64-bit hashes, to hold 100'000 of them in little memory: names that collide are taken for
// equal, and so a collision can refuse an archive but never let one through. Case is folded as the process's
// locale does it, which must be a UTF-8 one; bytes that are no UTF-8 stand for themselves.
class SeenNames
{
public:
    // Adds a name and the folders above it. A problem: the name is there already, in any case; a folder above
    // it is written in other case elsewhere; a folder above it is no folder; there are too many names.
    Problem add(std::string_view name, bool folder);

private:
    struct Place {
        uint64_t exact; // hash of the name as it is written
        bool folder;
        bool listed; // not only implied by a name below it
    };

    Problem addPlace(std::string_view name, uint64_t folded, const Place &place);

    std::unordered_map<uint64_t, Place> m_places; // by the hash of the folded name
};

Problem SeenNames::add(std::string_view name, bool folder)
{
    Hash exact, folded;
    for (std::string_view rest = name; !rest.empty();) {
        if (rest.front() == '/') {
            const std::string_view above = name.substr(0, name.size() - rest.size());
            if (Problem problem = addPlace(above, folded.value(), {exact.value(), true, false}))
                return problem;
        }
        const std::string_view before = rest;
        folded.add(takeFolded(rest));
        for (char byte : before.substr(0, before.size() - rest.size()))
            exact.add(static_cast<unsigned char>(byte));
    }
    return addPlace(name, folded.value(), {exact.value(), folder, true});
}

Problem SeenNames::addPlace(std::string_view name, uint64_t folded, const Place &place)
{
    const auto [found, added] = m_places.try_emplace(folded, place);
    Place &there = found->second;
    if (added && m_places.size() > MaximumEntries)
        return "the archive holds more than " + std::to_string(MaximumEntries) + " entries";
    if (added)
        return {};
    if (there.exact != place.exact)
        return entryProblem(name, "differs from another only by case");
    if (place.listed && there.listed)
        return entryProblem(name, "is there twice");
    if (!place.folder || !there.folder)
        return entryProblem(name, "is a folder to some entries and something else to others");
    there.listed = there.listed || place.listed;
    return {};
}

// No entry's path leaves the folder: there is no way up in it, and it does not begin at the root.
Problem judgeEntryPath(std::string_view name)
{
    if (name.empty())
        return "the archive holds an entry without a name";
    if (name.front() == '/')
        return entryProblem(name, "has an absolute name");
    if (name.find('\0') != name.npos)
        return entryProblem(name.substr(0, name.find('\0')), "has a NUL byte in its name");
    if (name.size() > MaximumNameLength)
        return entryProblem(name, "has a name of more than " + std::to_string(MaximumNameLength) + " bytes");
    size_t depth = 0;
    for (size_t start = 0; start <= name.size();) {
        const size_t end = std::min(name.find('/', start), name.size());
        const std::string_view component = name.substr(start, end - start);
        if (component.empty() || component == "." || component == "..")
            return entryProblem(name, "has an empty, \".\" or \"..\" component in its name");
        if (component.size() > MaximumComponentLength)
            return entryProblem(name,
                                "has a component of more than " + std::to_string(MaximumComponentLength)
                                    + " bytes in its name");
        if (++depth > MaximumDepth)
            return entryProblem(name, "lies more than " + std::to_string(MaximumDepth) + " levels deep");
        start = end + 1;
    }
    return {};
}

// Leading ".." are counted against the folders above the link, which are real folders of the archive. After
// them the way only goes down, and each link on it has been judged by itself, so no chain of links leaves
// either. Stricter than what the library allows the links of a bundle, whose way is walked link by link: an
// archive is judged before any of it is on the disk, and with the C++ library alone.
bool linkStaysInside(std::string_view name, std::string_view target)
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

Problem judgeSizes(const ZipDirectory &directory)
{
    constexpr uint64_t headerSize = 30;
    const uint64_t likely = FreeExpansion + MostExpansion * directory.dataEnd();
    uint64_t total = 0;
    uint64_t end = 0; // of the entry before
    for (const ZipEntry &entry : directory.entries()) {
        total += std::min(entry.size, MaximumTotalSize + 1);
        if (total > MaximumTotalSize)
            return "the archive unpacks to more than " + std::to_string(MaximumTotalSize) + " bytes";
        if (entry.headerOffset < end)
            return entryProblem(entry.name, "shares its data with another entry");
        if (entry.headerOffset > directory.dataEnd()
            || entry.packedSize > directory.dataEnd() - entry.headerOffset)
            return entryProblem(entry.name, "has its data outside the archive");
        end = entry.headerOffset + headerSize + entry.packedSize;
    }
    if (total > likely)
        return "the archive unpacks to " + std::to_string(total) + " bytes, more than the "
            + std::to_string(likely) + " that an archive of its size may";
    return {};
}

} // namespace

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
    if (target.front() == '/' || !linkStaysInside(link.name, target))
        return entryProblem(link.name, "is a link that may leave the folder");
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

Problem checkSafety(const ZipDirectory &directory, EntryReader &reader)
{
    SeenNames seen;
    for (const ZipEntry &entry : directory.entries()) {
        if (Problem problem = judgeEntryPath(entry.name))
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

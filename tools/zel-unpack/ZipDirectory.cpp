#include "ZipDirectory.h"

#include "base/SystemCalls.h"

#include <algorithm>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

// A zip archive says what it holds more than once: in a header before each entry's data, and in the directory
// at its end. Tools that read one and check the other can be shown two different archives. Here the directory
// alone counts; of the headers nothing is taken but their length. The directory has to end where the archive
// does, and to begin where its records say: an archive that was cut, or put behind another one, is refused.

namespace zel {

namespace {

// Numbers as zip archives write them, least byte first. The caller knows the bytes at `offset` to be there.
template <typename T> T littleEndian(std::string_view bytes, size_t offset)
{
    T value = 0;
    for (size_t i = 0; i < sizeof(T); ++i)
        value |= T(T(static_cast<unsigned char>(bytes[offset + i])) << (8 * i));
    return value;
}

uint16_t le16(std::string_view bytes, size_t offset)
{
    return littleEndian<uint16_t>(bytes, offset);
}
uint32_t le32(std::string_view bytes, size_t offset)
{
    return littleEndian<uint32_t>(bytes, offset);
}
uint64_t le64(std::string_view bytes, size_t offset)
{
    return littleEndian<uint64_t>(bytes, offset);
}

// Where the directory lies, from the record at the archive's very end.
struct EndRecord {
    uint64_t position = 0;
    uint64_t count = 0;
    uint64_t size = 0;
    uint64_t offset = 0;
};

constexpr size_t EndRecordSize = 22;
constexpr size_t WideEndRecordSize = 56;
constexpr size_t WideLocatorSize = 20;
constexpr size_t EntryRecordSize = 46;

constexpr uint32_t EndSignature = 0x06054b50;
constexpr uint32_t WideEndSignature = 0x06064b50;
constexpr uint32_t WideLocatorSignature = 0x07064b50;
constexpr uint32_t EntrySignature = 0x02014b50;

const char *const NotAnArchive = "the input is not a complete zip archive";

// Archives of more than 4 GiB or 65535 entries have a second, wide record, found through a locator before the
// first one.
Problem widen(const Spool &archive, std::string_view locator, EndRecord &end)
{
    char bytes[WideEndRecordSize];
    const uint64_t position = le64(locator, 8);
    if (position > archive.size || archive.size - position < sizeof bytes)
        return NotAnArchive;
    if (Problem problem = readAt(archive.file.get(), bytes, sizeof bytes, position))
        return problem;
    const std::string_view record(bytes, sizeof bytes);
    if (le32(record, 0) != WideEndSignature || le32(record, 16) != le32(record, 20))
        return NotAnArchive;
    end = {position, le64(record, 32), le64(record, 40), le64(record, 48)};
    return {};
}

Problem findEnd(const Spool &archive, EndRecord &end)
{
    if (archive.size == 0)
        return "the input is empty";
    const size_t longest = EndRecordSize + UINT16_MAX + WideLocatorSize;
    std::string tail(size_t(std::min<uint64_t>(archive.size, longest)), '\0');
    const uint64_t tailOffset = archive.size - tail.size();
    if (Problem problem = readAt(archive.file.get(), tail.data(), tail.size(), tailOffset))
        return problem;
    for (size_t at = tail.size() - std::min(tail.size(), EndRecordSize) + 1; at-- > 0;) {
        if (at + EndRecordSize > tail.size() || le32(tail, at) != EndSignature
            || at + EndRecordSize + le16(tail, at + 20) != tail.size())
            continue;
        if (le16(tail, at + 4) != le16(tail, at + 6))
            return "the archive is one of several parts";
        end = {tailOffset + at, le16(tail, at + 10), le32(tail, at + 12), le32(tail, at + 16)};
        if (at >= WideLocatorSize && le32(tail, at - WideLocatorSize) == WideLocatorSignature)
            return widen(archive, std::string_view(tail).substr(at - WideLocatorSize), end);
        return {};
    }
    return NotAnArchive;
}

// One record of the directory: the fixed part, and views of the parts of variable length.
struct EntryRecord {
    std::string_view fixed;
    std::string_view name;
    std::string_view extra;
    size_t length = 0;
};

bool cutRecord(std::string_view bytes, EntryRecord &record)
{
    if (bytes.size() < EntryRecordSize || le32(bytes, 0) != EntrySignature)
        return false;
    const size_t name = le16(bytes, 28), extra = le16(bytes, 30), comment = le16(bytes, 32);
    record.length = EntryRecordSize + name + extra + comment;
    if (bytes.size() < record.length)
        return false;
    record.fixed = bytes.substr(0, EntryRecordSize);
    record.name = bytes.substr(EntryRecordSize, name);
    record.extra = bytes.substr(EntryRecordSize + name, extra);
    return true;
}

// The data of the extra field with this id; empty where there is none.
std::string_view extraField(std::string_view extra, uint16_t id)
{
    while (extra.size() >= 4) {
        const size_t length = std::min<size_t>(le16(extra, 2), extra.size() - 4);
        if (le16(extra, 0) == id)
            return extra.substr(4, length);
        extra.remove_prefix(4 + length);
    }
    return {};
}

// Numbers that do not fit into 32 bits stand in a field of their own, in this order, each only when needed.
bool readSizes(const EntryRecord &record, ZipEntry &entry)
{
    entry.packedSize = le32(record.fixed, 20);
    entry.size = le32(record.fixed, 24);
    entry.headerOffset = le32(record.fixed, 42);
    std::string_view wide = extraField(record.extra, 0x0001);
    for (uint64_t *number : {&entry.size, &entry.packedSize, &entry.headerOffset}) {
        if (*number != UINT32_MAX)
            continue;
        if (wide.size() < 8)
            return false;
        *number = le64(wide, 0);
        wide.remove_prefix(8);
    }
    return true;
}

int64_t localTime(uint16_t date, uint16_t time)
{
    std::tm parts{};
    parts.tm_year = (date >> 9) + 80;
    parts.tm_mon = ((date >> 5) & 15) - 1;
    parts.tm_mday = date & 31;
    parts.tm_hour = time >> 11;
    parts.tm_min = (time >> 5) & 63;
    parts.tm_sec = (time & 31) * 2;
    parts.tm_isdst = -1;
    return std::mktime(&parts);
}

// Two fields are in use that carry the time in seconds and without a time zone; else it is the maker's local
// time.
int64_t modificationTime(const EntryRecord &record)
{
    const std::string_view stamp = extraField(record.extra, 0x5455);
    if (stamp.size() >= 5 && (stamp[0] & 1))
        return int32_t(le32(stamp, 1));
    const std::string_view older = extraField(record.extra, 0x5855);
    if (older.size() >= 8)
        return int32_t(le32(older, 4));
    return localTime(le16(record.fixed, 14), le16(record.fixed, 12));
}

Problem readName(const EntryRecord &record, bool folder, bool unixMade, ZipEntry &entry)
{
    entry.name = record.name;
    if (entry.name.empty())
        return "the archive holds an entry without a name";
    if (!unixMade && entry.name.find('\\') != entry.name.npos)
        return entryProblem(entry.name, "has backslashes for slashes in its name");
    while (entry.name.starts_with("./"))
        entry.name.remove_prefix(2);
    if (folder && entry.name.size() > 1 && entry.name.ends_with('/'))
        entry.name.remove_suffix(1);
    return {};
}

Problem readKind(const EntryRecord &record, ZipEntry &entry)
{
    const uint8_t host = uint8_t(record.fixed[5]);
    const bool unixMade = host == 3 || host == 19; // Unix, macOS
    const uint32_t attributes = le32(record.fixed, 38);
    const mode_t mode = unixMade ? attributes >> 16 : 0;
    const bool slash = record.name.ends_with('/');
    const bool folder = (mode & S_IFMT) == S_IFDIR || ((mode & S_IFMT) == 0 && slash);
    if (Problem problem = readName(record, folder, unixMade, entry))
        return problem;
    if (folder)
        entry.kind = ZipEntry::Kind::Folder;
    else if ((mode & S_IFMT) == S_IFLNK)
        entry.kind = ZipEntry::Kind::Link;
    else if ((mode & S_IFMT) != S_IFREG && (mode & S_IFMT) != 0)
        return entryProblem(entry.name, "is neither a file nor a folder nor a symbolic link");
    if (mode & (S_ISUID | S_ISGID))
        return entryProblem(entry.name, "would run with another user's or group's rights (set-id bits)");
    entry.executable = (mode & S_IXUSR) != 0;
    return {};
}

Problem readEntry(const EntryRecord &record, ZipEntry &entry)
{
    constexpr uint16_t encrypted = 0x0001 | 0x0040 | 0x2000, patched = 0x0020;
    const uint16_t flags = le16(record.fixed, 8), method = le16(record.fixed, 10);
    if (Problem problem = readKind(record, entry))
        return problem;
    if (flags & encrypted)
        return entryProblem(entry.name, "is encrypted");
    // Nothing else is in use for bundles, and other methods may claim gigabytes for their dictionaries.
    if ((method != 0 && method != 8) || (flags & patched))
        return entryProblem(entry.name, "is packed by a method other than \"deflate\"");
    if (!readSizes(record, entry) || (method == 0 && entry.packedSize != entry.size))
        return entryProblem(entry.name, "has sizes that contradict each other");
    entry.packed = method == 8;
    entry.checksum = le32(record.fixed, 16);
    entry.modified = modificationTime(record);
    return {};
}

} // namespace

Problem spoolInput(int input, const char *folder, Spool &spool)
{
    spool.file = unnamedFile(folder);
    if (!spool.file)
        return systemProblem("cannot make a file for the input");
    const std::optional<int64_t> writable = writableBytes(spool.file.get());
    widenPipe(input);
    std::vector<char> buffer(256 * 1024);
    while (true) {
        const ssize_t length = readSome(input, buffer.data(), buffer.size());
        if (length == 0)
            return {};
        if (length < 0)
            return systemProblem("cannot read the input");
        spool.size += uint64_t(length);
        if (spool.size > MaximumInputSize)
            return "the input is larger than " + std::to_string(MaximumInputSize) + " bytes";
        if (writable && spool.size > uint64_t(*writable))
            return "the disk has too little room: of the input, " + std::to_string(*writable)
                + " bytes may be written";
        if (!writeAll(spool.file.get(), buffer.data(), size_t(length)))
            return systemProblem("cannot store the input");
    }
}

Problem readAt(int file, void *buffer, size_t length, uint64_t offset)
{
    auto *to = static_cast<char *>(buffer);
    while (length > 0) {
        const ssize_t got = uninterrupted([=] { return ::pread(file, to, length, off_t(offset)); });
        if (got < 0)
            return systemProblem("cannot read the stored input");
        if (got == 0)
            return "the archive ends too early";
        to += got;
        length -= size_t(got);
        offset += uint64_t(got);
    }
    return {};
}

Problem ZipDirectory::read(const Spool &archive)
{
    EndRecord end;
    if (Problem problem = findEnd(archive, end))
        return problem;
    // Whatever stands between would move every offset: a cut, prefixed or patched archive.
    if (end.offset > end.position || end.position - end.offset != end.size)
        return NotAnArchive;
    if (end.size > MaximumDirectorySize)
        return "the archive's directory is larger than " + std::to_string(MaximumDirectorySize) + " bytes";
    m_bytes.resize(end.size);
    if (Problem problem = readAt(archive.file.get(), m_bytes.data(), m_bytes.size(), end.offset))
        return problem;
    m_dataEnd = end.offset;
    return readEntries(end.count);
}

Problem ZipDirectory::readEntries(uint64_t count)
{
    std::string_view rest(m_bytes.data(), m_bytes.size());
    m_entries.reserve(std::min(rest.size() / EntryRecordSize, MaximumEntries));
    uint64_t seen = 0;
    for (EntryRecord record; !rest.empty(); rest.remove_prefix(record.length), ++seen) {
        if (seen == MaximumEntries)
            return "the archive holds more than " + std::to_string(MaximumEntries) + " entries";
        if (!cutRecord(rest, record))
            return "the archive's directory is damaged";
        ZipEntry entry;
        if (Problem problem = readEntry(record, entry))
            return problem;
        // "./" is the destination itself, which is not the archive's to change.
        if (!entry.name.empty() || entry.kind != ZipEntry::Kind::Folder)
            m_entries.push_back(entry);
    }
    // Deliberately only the low bits: archive tools in use write no wide record when only the count
    // overflows.
    if ((seen & UINT16_MAX) != (count & UINT16_MAX))
        return "the archive's directory is damaged";
    std::sort(m_entries.begin(), m_entries.end(),
              [](const ZipEntry &a, const ZipEntry &b) { return a.headerOffset < b.headerOffset; });
    return {};
}

Problem findData(int archive, const ZipEntry &entry, uint64_t dataEnd, uint64_t &offset)
{
    char bytes[30];
    if (Problem problem = readAt(archive, bytes, sizeof bytes, entry.headerOffset))
        return problem;
    const std::string_view header(bytes, sizeof bytes);
    offset = entry.headerOffset + sizeof bytes + le16(header, 26) + le16(header, 28);
    if (le32(header, 0) != 0x04034b50 || offset > dataEnd || dataEnd - offset < entry.packedSize)
        return entryProblem(entry.name, "is damaged: its data is not where the directory says");
    return {};
}

} // namespace zel

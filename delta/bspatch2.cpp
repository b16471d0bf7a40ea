#include "bspatch2.h"

#include "base/StandardFiles.h"
#include "base/Warnings.h"
#include "deltaformat.h"
#include "owned.h"
#include "readfile.h"

#include <algorithm>
#include <cstring>
#include <optional>

// A delta says what to copy, add and insert; anybody may have written it. The whole new file is therefore
// built in memory first, and the file to write is opened only when that is complete: what was refused
// half-way leaves nothing behind, and a new file may be the old one.
//
// What keeps a hostile delta harmless:
// - A length is compared with what is left of the new file and of its block before it is used, and sums are
//   checked, so that no position leaves its file. Old positions may: outside the old file nothing is added.
// - Each pass reads control bytes or moves on in the new file; one that does neither is refused, as it would
//   never end.
// - A size that is merely claimed costs address space, no memory: pages come with the bytes that are written
//   to them.
//
// The blocks have no ends of their own: what one has too little of is read on from the next, on purpose.

namespace zel {
namespace {

using Index = std::int64_t;

struct DeltaHeader {
    Index controlLength;
    Index diffLength;
    Index newSize;
};

struct OldFile {
    Bytes bytes;
    Index size = 0;
};

struct ControlTriple {
    Index add;
    Index insert;
    Index seek;
};

// A read position in the delta. DeltaBlocks have no end of their own: reading runs on to the end of the
// delta.
class Cursor
{
public:
    explicit Cursor(std::span<const std::byte> patch)
        : m_patch(patch)
    {
    }

    bool seek(std::uint64_t offset)
    {
        if (offset > m_patch.size()) {
            errno = EINVAL;
            warn("fseeko(%s, %lld)", "patch", static_cast<long long>(offset));
            return false;
        }
        m_rest = m_patch.subspan(offset);
        return true;
    }

    // Up to `count` bytes where they lie.
    std::span<const unsigned char> read(std::size_t count)
    {
        count = std::min(count, m_rest.size());
        const auto *const bytes = reinterpret_cast<const unsigned char *>(m_rest.data());
        m_rest = m_rest.subspan(count);
        return {bytes, count};
    }

private:
    std::span<const std::byte> m_patch;
    std::span<const std::byte> m_rest;
};

struct DeltaBlocks {
    explicit DeltaBlocks(std::span<const std::byte> patch)
        : control(patch)
        , diff(patch)
        , extra(patch)
    {
    }

    // The sums are unsigned and cannot wrap: no length is negative, and the second is added only to an
    // offset within the delta.
    bool seek(const DeltaHeader &header)
    {
        const std::uint64_t diffStart = DeltaHeaderSize + static_cast<std::uint64_t>(header.controlLength);
        return control.seek(DeltaHeaderSize) && diff.seek(diffStart)
            && extra.seek(diffStart + static_cast<std::uint64_t>(header.diffLength));
    }

    Cursor control;
    Cursor diff;
    Cursor extra;
};

// The new file's bytes while they are built from the old ones and the blocks.
class Application
{
public:
    Application(const OldFile &old, const DeltaBlocks &blocks, unsigned char *newBytes, Index newSize)
        : m_old(old)
        , m_blocks(blocks)
        , m_new(newBytes)
        , m_newSize(newSize)
    {
    }

    // False when the delta is corrupt.
    bool run()
    {
        while (m_newPosition < m_newSize) {
            if (!pass())
                return false;
        }
        return true;
    }

private:
    bool pass()
    {
        ControlTriple triple;
        const bool fresh = readTriple(triple);
        if (!fresh && triple.add == 0 && triple.insert == 0)
            return false; // no later pass would differ from this one
        if (!add(triple.add) || !insert(triple.insert))
            return false;
        return !__builtin_add_overflow(m_oldPosition, triple.add, &m_oldPosition)
            && !__builtin_add_overflow(m_oldPosition, triple.seek, &m_oldPosition);
    }

    // Returns whether any new control byte was read. At the end of the data a value keeps the bytes of the
    // one before it: deliberate, so that a delta whose control data ends early gives the same file
    // everywhere.
    bool readTriple(ControlTriple &triple)
    {
        std::size_t count = 0;
        for (Index *value : {&triple.add, &triple.insert, &triple.seek}) {
            const auto bytes = m_blocks.control.read(m_control.size());
            std::ranges::copy(bytes, m_control.begin());
            *value = decodeDeltaInteger(m_control);
            count += bytes.size();
        }
        return count > 0;
    }

    // The next `length` bytes of a block; nothing when there are not as many, or no room for them.
    std::optional<std::span<const unsigned char>> take(Cursor &block, Index length) const
    {
        if (length < 0 || length > m_newSize - m_newPosition)
            return std::nullopt;
        const auto bytes = block.read(static_cast<std::size_t>(length));
        return bytes.size() == static_cast<std::size_t>(length) ? std::optional(bytes) : std::nullopt;
    }

    // Diff bytes added to the old ones; outside the old file the diff bytes stand.
    bool add(Index length)
    {
        const auto diff = take(m_blocks.diff, length);
        if (!diff)
            return false;
        Index begin = length;
        Index end = length;
        if (m_oldPosition < m_old.size && m_oldPosition > -length) {
            begin = std::max<Index>(0, -m_oldPosition);
            end = std::min(length, m_old.size - m_oldPosition);
        }
        unsigned char *const to = m_new + m_newPosition;
        std::copy_n(diff->data(), begin, to);
        if (begin < end)
            addBytes(diff->data() + begin, m_old.bytes.get() + (m_oldPosition + begin), to + begin,
                     end - begin);
        std::copy_n(diff->data() + end, length - end, to + end);
        m_newPosition += length;
        return true;
    }

    // The three do not overlap, which lets the compiler add many bytes at once.
    static void addBytes(const unsigned char *__restrict diff, const unsigned char *__restrict old,
                         unsigned char *__restrict to, Index count)
    {
        for (Index i = 0; i < count; ++i)
            to[i] = static_cast<unsigned char>(diff[i] + old[i]);
    }

    bool insert(Index length)
    {
        const auto extra = take(m_blocks.extra, length);
        if (!extra)
            return false;
        std::ranges::copy(*extra, m_new + m_newPosition);
        m_newPosition += length;
        return true;
    }

    const OldFile &m_old;
    DeltaBlocks m_blocks;
    unsigned char *m_new;
    Index m_newSize;
    Index m_oldPosition = 0;
    Index m_newPosition = 0;
    std::array<unsigned char, DeltaIntegerSize> m_control = {};
};

void reportCorrupt()
{
    // Deliberate: readers of this output know the message by the blank line after it.
    warnx("Corrupt patch\n");
}

std::optional<DeltaHeader> readHeader(std::span<const std::byte> patch)
{
    std::array<unsigned char, DeltaHeaderSize> bytes;
    if (patch.size() < bytes.size()) {
        std::puts("header error");
        reportCorrupt();
        return std::nullopt;
    }
    std::memcpy(bytes.data(), patch.data(), bytes.size());
    const DeltaHeader header{deltaIntegerAt(bytes, ControlLengthOffset),
                             deltaIntegerAt(bytes, DiffLengthOffset), deltaIntegerAt(bytes, NewSizeOffset)};
    if (header.controlLength < 0 || header.diffLength < 0 || header.newSize < 0) {
        reportCorrupt();
        return std::nullopt;
    }
    return header;
}

bool writeFile(const char *path, const unsigned char *bytes, Index size)
{
    File file(openToWrite(path));
    if (!file) {
        warn("failed to write new file: %s", path);
        return false;
    }
    const auto count = static_cast<std::size_t>(size);
    if (std::fwrite(bytes, 1, count, file.get()) < count) {
        warn("failed to write to new file: %s", path);
        return false;
    }
    if (std::fclose(file.release()) != 0) {
        warn("failed to close new file: %s", path);
        return false;
    }
    return true;
}

} // namespace
} // namespace zel

int bspatch2(const std::filesystem::path &oldPath, const std::filesystem::path &newPath,
             std::span<const std::byte> patch)
{
    using namespace zel;
    const std::optional<DeltaHeader> header = readHeader(patch);
    if (!header)
        return -1;
    DeltaBlocks blocks(patch);
    if (!blocks.seek(*header))
        return -1;
    const auto &oldName = systemName(oldPath);
    OldFile old;
    old.bytes.reset(readfile(oldName.c_str(), &old.size));
    if (!old.bytes) {
        warn("old file: %s", oldName.c_str());
        return -1;
    }
    const Bytes newBytes = allocateBytes(header->newSize);
    if (!newBytes) {
        warn("Failed to allocate memory for new");
        return -1;
    }
    if (!Application(old, blocks, newBytes.get(), header->newSize).run()) {
        reportCorrupt();
        return -1;
    }
    const auto &newName = systemName(newPath);
    return writeFile(newName.c_str(), newBytes.get(), header->newSize) ? 0 : -1;
}

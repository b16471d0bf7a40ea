#include "programimage.h"

#include <algorithm>
#include <cstring>
#include <optional>

// Fields are read at the places where the formats have them: the System V ABI's "ELF-64 Object File Format",
// and the Mach-O headers <mach-o/loader.h>, <mach-o/fat.h> and <kern/cs_blobs.h>, whose code signatures are
// the one thing written with the highest byte first.

namespace zel {

namespace {

constexpr std::size_t MostSections = 512; // leaves room for others in a delta

class Fields
{
public:
    explicit Fields(std::span<const unsigned char> bytes)
        : m_bytes(bytes)
    {
    }

    std::size_t size() const { return m_bytes.size(); }

    // Zero beyond the end.
    std::uint64_t little(std::uint64_t offset, unsigned width) const
    {
        std::uint64_t value = 0;
        for (unsigned i = width; i-- > 0 && holds(offset, width);)
            value = value << 8 | m_bytes[static_cast<std::size_t>(offset) + i];
        return value;
    }

    std::uint64_t big(std::uint64_t offset, unsigned width) const
    {
        std::uint64_t value = 0;
        for (unsigned i = 0; i < width && holds(offset, width); ++i)
            value = value << 8 | m_bytes[static_cast<std::size_t>(offset) + i];
        return value;
    }

    // Up to a zero byte or the longest that is allowed.
    std::string text(std::uint64_t offset, std::size_t longest) const
    {
        std::string text;
        for (; text.size() < longest && holds(offset, 1) && little(offset, 1) != 0; ++offset)
            text += static_cast<char>(little(offset, 1));
        return text;
    }

    bool holds(std::uint64_t offset, std::uint64_t size) const
    {
        return offset <= m_bytes.size() && size <= m_bytes.size() - offset;
    }

    Fields part(std::uint64_t offset, std::uint64_t size) const
    {
        return Fields(m_bytes.subspan(static_cast<std::size_t>(offset), static_cast<std::size_t>(size)));
    }

private:
    std::span<const unsigned char> m_bytes;
};

std::optional<ProgramImage> readElf(const Fields &file)
{
    constexpr unsigned is64 = 2;
    constexpr unsigned isLittle = 1;
    constexpr std::uint64_t x86 = 62;
    constexpr std::uint64_t arm = 183;
    if (file.big(0, 4) != 0x7F454C46 || file.little(4, 1) != is64 || file.little(5, 1) != isLittle)
        return std::nullopt;
    const std::uint64_t machine = file.little(18, 2);
    if (machine != x86 && machine != arm)
        return std::nullopt;
    ProgramImage image;
    image.format = ProgramImage::Elf;
    image.code = machine == arm ? RangeKind::Arm64 : RangeKind::X86_64;
    const std::uint64_t table = file.little(40, 8);
    const std::uint64_t entrySize = file.little(58, 2);
    const std::uint64_t count = file.little(60, 2);
    const std::uint64_t names = file.little(table + file.little(62, 2) * entrySize + 24, 8);
    for (std::uint64_t i = 0; i < std::min<std::uint64_t>(count, MostSections); ++i) {
        constexpr std::uint64_t noBits = 8;
        constexpr std::uint64_t isAllocated = 2;
        constexpr std::uint64_t isExecutable = 4;
        constexpr std::uint64_t isThreadLocal = 0x400;
        const std::uint64_t header = table + i * entrySize;
        const std::uint64_t flags = file.little(header + 8, 8);
        ProgramSection section;
        section.isInFile = file.little(header + 4, 4) != noBits;
        section.isCode = (flags & isExecutable) != 0;
        section.place = {.offset = file.little(header + 24, 8),
                         .address = file.little(header + 16, 8),
                         .size = file.little(header + 32, 8)};
        const bool isTemplate = !section.isInFile && (flags & isThreadLocal); // each thread has its own
        if (!(flags & isAllocated) || isTemplate)
            continue;
        constexpr std::size_t longestName = 64;
        section.name = file.text(names + file.little(header, 4), longestName);
        image.sections.push_back(section);
    }
    return image;
}

// The pages' hashes in a code signature: a "super blob" of blobs, among them a directory for each kind of
// hash.
void readSignature(const Fields &file, std::uint64_t start, std::uint64_t size, ProgramImage &image)
{
    constexpr std::uint64_t superBlob = 0xFADE0CC0;
    constexpr std::uint64_t directory = 0xFADE0C02;
    constexpr std::uint64_t sha256 = 2;
    constexpr std::uint64_t mostBlobs = 16;
    if (!file.holds(start, size))
        return;
    const Fields signature = file.part(start, size);
    if (signature.big(0, 4) != superBlob)
        return;
    for (std::uint64_t i = 0; i < std::min(signature.big(8, 4), mostBlobs); ++i) {
        const std::uint64_t blob = signature.big(12 + 8 * i + 4, 4);
        if (signature.big(blob, 4) != directory || signature.big(blob + 37, 1) != sha256
            || signature.big(blob + 36, 1) != PageHashSize || signature.big(blob + 39, 1) > 24)
            continue;
        const PageHashes hashes = {.table = start + blob + signature.big(blob + 16, 4),
                                   .start = 0,
                                   .end = signature.big(blob + 32, 4),
                                   .pageSize = std::uint64_t(1) << signature.big(blob + 39, 1)};
        if (image.pageHashes.size() < MostPageHashes && hashes.end > 0
            && hashes.count() == signature.big(blob + 28, 4)
            && file.holds(hashes.table, hashes.count() * PageHashSize))
            image.pageHashes.push_back(hashes);
    }
}

void readSegment(const Fields &file, std::uint64_t command, ProgramImage &image)
{
    constexpr std::uint64_t hasInstructions = 0x80000400; // nothing else, or some
    const std::uint64_t address = file.little(command + 24, 8);
    if (file.little(command + 40, 8) == 0 && file.little(command + 48, 8) != 0)
        image.base = address; // of the segment with the headers
    for (std::uint64_t i = 0; i < file.little(command + 64, 4) && image.sections.size() < MostSections; ++i) {
        const std::uint64_t header = command + 72 + i * 80;
        const std::uint64_t flags = file.little(header + 64, 4);
        const std::uint64_t type = flags & 0xFF;
        ProgramSection section;
        section.name = file.text(header + 16, 16) + ',' + file.text(header, 16);
        section.isCode = (flags & hasInstructions) != 0;
        section.isInFile = type != 0x1 && type != 0xC && type != 0x12; // cleared, large, of threads
        section.place = {.offset = file.little(header + 48, 4),
                         .address = file.little(header + 32, 8),
                         .size = file.little(header + 40, 8)};
        image.sections.push_back(section);
    }
}

std::optional<ProgramImage> readMachO(const Fields &file)
{
    constexpr std::uint64_t x86 = 0x01000007;
    constexpr std::uint64_t arm = 0x0100000C;
    constexpr std::uint64_t segment64 = 0x19;
    constexpr std::uint64_t codeSignature = 0x1D;
    const std::uint64_t machine = file.little(4, 4);
    if (file.little(0, 4) != 0xFEEDFACF || (machine != x86 && machine != arm))
        return std::nullopt;
    ProgramImage image;
    image.format = ProgramImage::MachO;
    image.code = machine == arm ? RangeKind::Arm64 : RangeKind::X86_64;
    std::uint64_t command = 32;
    for (std::uint64_t i = 0; i < file.little(16, 4) && file.holds(command, 8); ++i) {
        const std::uint64_t type = file.little(command, 4);
        const std::uint64_t size = file.little(command + 4, 4);
        if (size < 8)
            break;
        if (type == segment64)
            readSegment(file, command, image);
        else if (type == codeSignature)
            readSignature(file, file.little(command + 8, 4), file.little(command + 12, 4), image);
        command += size;
    }
    return image;
}

// Keeps what lies in the file, and of sections that overlap the first.
void tidy(ProgramImage &image, const Fields &file)
{
    std::vector<ProgramSection> kept;
    const auto isApart = [](std::uint64_t a, std::uint64_t aSize, std::uint64_t b, std::uint64_t bSize) {
        return a + aSize <= b || b + bSize <= a;
    };
    for (const ProgramSection &section : image.sections) {
        const MovedRange::Side &place = section.place;
        const bool isSound = place.size > 0 && place.size <= LargestMoveFile
            && place.address <= ~std::uint64_t(0) - place.size
            && (!section.isInFile || file.holds(place.offset, place.size));
        const auto overlaps = [&](const ProgramSection &other) {
            return !isApart(place.address, place.size, other.place.address, other.place.size)
                || (section.isInFile && other.isInFile
                    && !isApart(place.offset, place.size, other.place.offset, other.place.size));
        };
        if (isSound && std::ranges::none_of(kept, overlaps))
            kept.push_back(section);
    }
    image.sections = std::move(kept);
}

std::optional<ProgramImage> readProgram(const Fields &file)
{
    std::optional<ProgramImage> image = readElf(file);
    if (!image)
        image = readMachO(file);
    if (image)
        tidy(*image, file);
    return image;
}

} // namespace

std::vector<ProgramImage> readPrograms(std::span<const unsigned char> bytes)
{
    constexpr std::uint64_t universal = 0xCAFEBABE;
    const Fields file(bytes);
    std::vector<ProgramImage> images;
    if (file.big(0, 4) != universal) {
        if (auto image = readProgram(file))
            images.push_back(std::move(*image));
        return images;
    }
    std::uint64_t lastEnd = 0;
    for (std::uint64_t i = 0; i < std::min<std::uint64_t>(file.big(4, 4), MostImages); ++i) {
        const std::uint64_t offset = file.big(8 + 20 * i + 8, 4);
        const std::uint64_t size = file.big(8 + 20 * i + 12, 4);
        if (offset < lastEnd || !file.holds(offset, size))
            break;
        lastEnd = offset + size;
        std::optional<ProgramImage> image = readProgram(file.part(offset, size));
        if (!image)
            continue;
        for (ProgramSection &section : image->sections)
            section.place.offset += offset;
        for (PageHashes &hashes : image->pageHashes) {
            hashes.table += offset;
            hashes.start += offset;
            hashes.end += offset;
        }
        images.push_back(std::move(*image));
    }
    return images;
}

} // namespace zel

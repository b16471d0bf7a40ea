#include "maskreferences.h"

#include "move/arm64.h"
#include "move/x86.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <string>

// What is masked only has to be the same in both files and to tell places apart that are different. A mask
// that takes too much makes bad copies, and one that takes too little makes short ones; both cost size and
// nothing else. Which sections are tables is told by the old file alone, so that both are masked alike.

namespace zel {

namespace {

using FileBytes = std::span<const unsigned char>;
using Buffer = std::vector<unsigned char>;

// Distances to places in the same function stay: they change with the function only.
void maskArm64(FileBytes code, unsigned char *masked)
{
    using namespace arm64;
    std::array<std::size_t, Registers> pageEnds = {}; // in front of which a register holds an ADRP's page
    for (std::size_t at = 0; at + 4 <= code.size(); at += 4) {
        std::uint32_t word;
        std::memcpy(&word, code.data() + at, sizeof word);
        const std::optional<DistanceField> field = distanceField(word);
        const std::optional<PageOffsetField> offset = pageOffsetField(word);
        constexpr unsigned farBits = 21;
        const bool isPage = field && field->unit == DistanceField::Pages;
        if (field && field->bits >= farBits)
            word = withoutDistance(word, *field);
        else if (offset && at < pageEnds[offset->base])
            word &= ~PageOffsetField::Mask;
        std::memcpy(masked + at, &word, sizeof word);
        if (isPage || !field)
            pageEnds[registerOf(word)] = isPage ? at + 4 + 4 * MostWordsBehind : 0;
    }
}

void maskX86(FileBytes code, unsigned char *masked)
{
    constexpr std::int32_t near = 2048;
    for (std::size_t at = 0; at < code.size();) {
        const x86::Instruction instruction = x86::decode(code.subspan(at));
        const std::size_t field = at + instruction.distance;
        std::int32_t distance = 0;
        if (instruction.distance != 0)
            std::memcpy(&distance, code.data() + field, sizeof distance);
        const bool isCall = instruction.isBranch && code[field - 1] == 0xE8;
        const bool isNear = instruction.isBranch && !isCall && distance >= -near && distance <= near;
        if (instruction.distance != 0 && !isNear)
            std::fill_n(masked + field, x86::DistanceSize, static_cast<unsigned char>(0));
        at += instruction.length;
    }
}

// A table of places, sorted: rows of words of four bytes, some of whose columns only grow. A place put in
// changes all rows behind it, but not by how much each is above the one before.
struct SortedTable {
    std::size_t row = 0; // in words; 0 for what is no table
    std::uint32_t columns = 0; // a bit for each that grows
    std::uint32_t value = 0; // the bits of a word that do
};

std::uint32_t wordAt(FileBytes bytes, std::size_t index)
{
    std::uint32_t word;
    std::memcpy(&word, bytes.data() + 4 * index, sizeof word);
    return word;
}

// How many words of a column grow by a little from row to row; none when too many do not.
std::size_t growingWords(FileBytes bytes, std::size_t row, std::size_t column, std::uint32_t value)
{
    constexpr std::size_t fewest = 64;
    constexpr std::uint32_t step = 1 << 20;
    std::size_t growing = 0;
    std::size_t all = 0;
    for (std::size_t i = row + column; i < bytes.size() / 4; i += row, ++all) {
        const std::uint32_t more = ((wordAt(bytes, i) & value) - (wordAt(bytes, i - row) & value)) & value;
        growing += more != 0 && more < step ? 1 : 0;
    }
    return all >= fewest && growing > all / 10 * 8 ? growing : 0;
}

// Longer rows are no tables but of relocations, whose addends would be torn apart from their places.
SortedTable sortedTable(FileBytes bytes)
{
    SortedTable best;
    std::size_t most = 0;
    for (const std::uint32_t value : {0xFFFFFFFFu, 0xFFFFFFu}) {
        for (const std::size_t row : {1, 2, 3, 4}) {
            SortedTable table = {.row = row, .columns = 0, .value = value};
            std::size_t count = 0;
            for (std::size_t column = 0; column < row; ++column) {
                const std::size_t growing = growingWords(bytes, row, column, value);
                table.columns |= growing > 0 ? 1u << column : 0;
                count += growing;
            }
            if (count > most + most / 10) { // what grows by rows of one word, does so by longer ones
                most = count;
                best = table;
            }
        }
    }
    return most > bytes.size() / 4 / 8 ? best : SortedTable();
}

void maskTable(FileBytes bytes, const SortedTable &table, unsigned char *masked)
{
    for (std::size_t i = table.row; i < bytes.size() / 4; ++i) {
        if (!(table.columns >> i % table.row & 1))
            continue;
        const std::uint32_t word = wordAt(bytes, i);
        const std::uint32_t more = (word - wordAt(bytes, i - table.row)) & table.value;
        const std::uint32_t bare = (word & ~table.value) | more;
        std::memcpy(masked + 4 * i, &bare, sizeof bare);
    }
}

using SortedTables = std::map<std::string, SortedTable>; // by the names of sections

Buffer masked(FileBytes bytes, const std::vector<ProgramImage> &programs, const SortedTables &tables)
{
    Buffer result(bytes.begin(), bytes.end());
    for (const ProgramImage &program : programs) {
        for (const ProgramSection &section : program.sections) {
            if (!section.isInFile)
                continue;
            const FileBytes part = bytes.subspan(section.place.offset, section.place.size);
            unsigned char *const to = result.data() + section.place.offset;
            const auto table = tables.find(section.name);
            if (section.isCode)
                program.code == RangeKind::Arm64 ? maskArm64(part, to) : maskX86(part, to);
            else if (table != tables.end())
                maskTable(part, table->second, to);
        }
    }
    return result;
}

SortedTables findTables(FileBytes bytes, const std::vector<ProgramImage> &programs)
{
    SortedTables tables;
    for (const ProgramImage &program : programs) {
        for (const ProgramSection &section : program.sections) {
            if (section.isCode || !section.isInFile)
                continue;
            const SortedTable table = sortedTable(bytes.subspan(section.place.offset, section.place.size));
            if (table.row != 0)
                tables[section.name] = table;
        }
    }
    return tables;
}

} // namespace

std::pair<Buffer, Buffer> maskReferences(FileBytes oldBytes, const std::vector<ProgramImage> &before,
                                         FileBytes newBytes, const std::vector<ProgramImage> &after)
{
    const SortedTables tables = findTables(oldBytes, before);
    return {masked(oldBytes, before, tables), masked(newBytes, after, tables)};
}

} // namespace zel

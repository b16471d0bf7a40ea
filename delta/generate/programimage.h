// What a program's headers say about where its parts lie: ELF and Mach-O, little-endian and of 64 bits, for
// AArch64 and x86-64, and universal files of several.
//
// Only whoever makes a delta looks at headers; the delta carries what it needs of them. What is read here
// thus decides sizes and nothing else.
#pragma once

#include "move/moveformat.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace zel {

struct ProgramSection {
    std::string name; ///< of a Mach-O section with its segment's before it
    bool isInFile = true;
    bool isCode = false;
    MovedRange::Side place; ///< the offset counts from the file's beginning, whatever image it is of
};

struct ProgramImage {
    enum Format : unsigned char { Elf, MachO };

    Format format = Elf;
    RangeKind code = RangeKind::Plain; ///< of the processor
    std::uint64_t base = 0; ///< the lowest address
    std::vector<ProgramSection> sections; ///< only those that are in the file, as far as the headers say so
    std::vector<PageHashes> pageHashes; ///< of the code's signature, not compared with the pages
};

/// The programs in a file, in its order; none when it is no program or its headers make no sense. Takes what
/// the headers claim as far as it lies in the file. Throws std::bad_alloc.
std::vector<ProgramImage> readPrograms(std::span<const unsigned char> bytes);

} // namespace zel

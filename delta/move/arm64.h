// References in AArch64 instructions: the fields that hold a distance from the instruction to another place.
//
// Instructions are words of four bytes, so that finding them needs no decoding of what is before. A few masks
// tell all that hold a distance (Arm Architecture Reference Manual, "A64 instruction set encoding"). An
// address far away takes two: ADRP gives its page, and an ADD or a load or store, which need not follow at
// once, the place in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace zel::arm64 {

/// A distance inside of an instruction word.
struct DistanceField {
    enum Unit : unsigned char { Bytes, Words, Pages };

    unsigned char shift = 0; ///< of the lowest bit, but for `isSplit`
    unsigned char bits = 0;
    Unit unit = Words;
    bool isSplit = false; ///< ADR and ADRP: the two lowest bits lie at bit 29
};

/// Nothing when the instruction holds no distance.
std::optional<DistanceField> distanceField(std::uint32_t word);

/// Where the distance leads from an instruction at `address`; of pages to the page's beginning.
std::uint64_t targetOf(std::uint32_t word, const DistanceField &field, std::uint64_t address);

/// The word with the distance to `target`, cut off where it does not fit.
std::uint32_t withTarget(std::uint32_t word, const DistanceField &field, std::uint64_t address,
                         std::uint64_t target);

/// The word without its distance: what has to agree for two to be the same instruction.
std::uint32_t withoutDistance(std::uint32_t word, const DistanceField &field);

/// The place in a page that an instruction adds to a register, which ADRP filled.
struct PageOffsetField {
    unsigned scale = 0; ///< the offset counts units of 1 << scale bytes
    unsigned base = 0; ///< the register

    static constexpr std::uint32_t Mask = 0xFFFu << 10;
};

/// Nothing when the instruction is no ADD, load or store of that kind.
std::optional<PageOffsetField> pageOffsetField(std::uint32_t word);

inline std::uint64_t pageOffset(std::uint32_t word, const PageOffsetField &field)
{
    return std::uint64_t((word & PageOffsetField::Mask) >> 10) << field.scale;
}

/// Unchanged when the offset is no whole number of units.
std::uint32_t withPageOffset(std::uint32_t word, const PageOffsetField &field, std::uint64_t offset);

inline constexpr std::uint64_t PageSize = 4096;

inline constexpr std::size_t Registers = 32;

/// How far behind an ADRP the instructions are that add to its page.
inline constexpr std::size_t MostWordsBehind = 8;

/// The register that most instructions write to. To take it for that of all only ends a search early.
inline unsigned registerOf(std::uint32_t word)
{
    return word & 31;
}

/// What the first instruction behind an ADRP, which `code` begins with, adds to its page: 0 when there is
/// none up to where the register changes or the code ends, after `size` bytes.
std::uint64_t offsetInPage(const unsigned char *code, std::size_t size);

} // namespace zel::arm64

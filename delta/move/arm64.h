// References in AArch64 instructions: the fields that hold a distance from the instruction to another place.
//
// Instructions are words of four bytes, so that finding them needs no decoding of what is before. A few masks
// tell all that hold a distance (Arm Architecture Reference Manual, "A64 instruction set encoding"). An
// address far away takes two: ADRP gives its page, and an ADD or a load or store, which need not follow at
// once, the place in it.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>

namespace zel::arm64 {

/// What an instruction does with a place, by its highest byte.
enum class Use : unsigned char { None, Branch26, Adr, Adrp, Distance19, Distance14, Add, LoadStore };

inline constexpr std::array<Use, 256> Uses = [] {
    std::array<Use, 256> uses = {};
    for (unsigned i = 0; i < uses.size(); ++i) {
        if ((i & 0x7C) == 0x14) // B, BL
            uses[i] = Use::Branch26;
        else if ((i & 0x9F) == 0x90)
            uses[i] = Use::Adrp;
        else if ((i & 0x9F) == 0x10)
            uses[i] = Use::Adr;
        else if (i == 0x54 || (i & 0x7E) == 0x34 || (i & 0x3B) == 0x18) // B.cond; CBZ, CBNZ; LDR of a literal
            uses[i] = Use::Distance19;
        else if ((i & 0x7E) == 0x36) // TBZ, TBNZ
            uses[i] = Use::Distance14;
        else if (i == 0x91) // of 64 bits, an immediate
            uses[i] = Use::Add;
        else if ((i & 0x3B) == 0x39) // with an unsigned offset
            uses[i] = Use::LoadStore;
    }
    return uses;
}();

/// A distance inside of an instruction word.
struct DistanceField {
    enum Unit : unsigned char { Bytes = 0, Words = 2, Pages = 12 }; // in bits

    unsigned char shift = 0; ///< of the lowest bit, but for `isSplit`
    unsigned char bits = 0;
    Unit unit = Words;
    bool isSplit = false; ///< ADR and ADRP: the two lowest bits lie at bit 29

    /// Without the two lowest bits of a distance that is split.
    constexpr std::uint32_t highMask() const { return ((1u << (bits - (isSplit ? 2 : 0))) - 1) << shift; }
    constexpr std::uint32_t mask() const { return highMask() | (isSplit ? 3u << 29 : 0); }
};

/// Nothing when the instruction holds no distance.
inline std::optional<DistanceField> distanceField(std::uint32_t word)
{
    switch (Uses[word >> 24]) {
    case Use::Branch26:
        return DistanceField{.shift = 0, .bits = 26};
    case Use::Adr:
        return DistanceField{.shift = 5, .bits = 21, .unit = DistanceField::Bytes, .isSplit = true};
    case Use::Adrp:
        return DistanceField{.shift = 5, .bits = 21, .unit = DistanceField::Pages, .isSplit = true};
    case Use::Distance19:
        return DistanceField{.shift = 5, .bits = 19};
    case Use::Distance14:
        return DistanceField{.shift = 5, .bits = 14};
    default:
        return std::nullopt;
    }
}

inline constexpr std::uint64_t PageSize = 4096;

/// Where distances count from.
inline std::uint64_t originOf(const DistanceField &field, std::uint64_t address)
{
    return field.unit == DistanceField::Pages ? address & ~(PageSize - 1) : address;
}

/// Where the distance leads from an instruction at `address`; of pages to the page's beginning.
inline std::uint64_t targetOf(std::uint32_t word, const DistanceField &field, std::uint64_t address)
{
    std::uint64_t distance;
    if (field.isSplit)
        distance =
            std::uint64_t(word >> field.shift & ((1u << (field.bits - 2)) - 1)) << 2 | (word >> 29 & 3);
    else
        distance = word >> field.shift & ((1u << field.bits) - 1);
    const std::uint64_t sign = std::uint64_t(1) << (field.bits - 1);
    distance = (distance ^ sign) - sign;
    return originOf(field, address) + (distance << field.unit);
}

/// The word with the distance to `target`, cut off where it does not fit.
inline std::uint32_t withTarget(std::uint32_t word, const DistanceField &field, std::uint64_t address,
                                std::uint64_t target)
{
    const auto bytes = static_cast<std::int64_t>(originOf(field, target) - originOf(field, address));
    const auto distance = static_cast<std::uint32_t>(bytes >> field.unit);
    const std::uint32_t low = field.isSplit ? (distance & 3) << 29 : 0;
    const std::uint32_t high = (field.isSplit ? distance >> 2 : distance) << field.shift;
    return (word & ~field.mask()) | low | (high & field.highMask());
}

/// The word without its distance: what has to agree for two to be the same instruction.
inline std::uint32_t withoutDistance(std::uint32_t word, const DistanceField &field)
{
    return word & ~field.mask();
}

/// The place in a page that an instruction adds to a register, which ADRP filled.
struct PageOffsetField {
    unsigned scale = 0; ///< the offset counts units of 1 << scale bytes
    unsigned base = 0; ///< the register

    static constexpr std::uint32_t Mask = 0xFFFu << 10;
};

/// Nothing when the instruction is no ADD, load or store of that kind.
inline std::optional<PageOffsetField> pageOffsetField(std::uint32_t word)
{
    const Use use = Uses[word >> 24];
    const unsigned base = word >> 5 & 31;
    if (use == Use::Add && (word >> 22 & 3) == 0) // not shifted
        return PageOffsetField{.scale = 0, .base = base};
    if (use != Use::LoadStore)
        return std::nullopt;
    const bool isQuad = (word & 0x04800000) == 0x04800000 && word >> 30 == 0; // of vector registers
    return PageOffsetField{.scale = isQuad ? 4 : word >> 30, .base = base};
}

inline std::uint64_t pageOffset(std::uint32_t word, const PageOffsetField &field)
{
    return std::uint64_t((word & PageOffsetField::Mask) >> 10) << field.scale;
}

/// Unchanged when the offset is no whole number of units.
inline std::uint32_t withPageOffset(std::uint32_t word, const PageOffsetField &field, std::uint64_t offset)
{
    if (offset & ((std::uint64_t(1) << field.scale) - 1))
        return word;
    return (word & ~PageOffsetField::Mask) | static_cast<std::uint32_t>(offset >> field.scale & 0xFFF) << 10;
}

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
inline std::uint64_t offsetInPage(const unsigned char *code, std::size_t size)
{
    const auto wordAt = [code](std::size_t at) {
        std::uint32_t word;
        std::memcpy(&word, code + at, sizeof word);
        return word;
    };
    const unsigned reg = registerOf(wordAt(0));
    const std::size_t end = std::min(size, 4 + 4 * MostWordsBehind);
    for (std::size_t at = 4; at + 4 <= end; at += 4) {
        const std::uint32_t word = wordAt(at);
        const std::optional<PageOffsetField> field = pageOffsetField(word);
        if (field && field->base == reg)
            return pageOffset(word, *field);
        if (registerOf(word) == reg && (Uses[word >> 24] == Use::Adrp || !distanceField(word)))
            break;
    }
    return 0;
}

} // namespace zel::arm64

#include "arm64.h"

#include <algorithm>
#include <cstring>

namespace zel::arm64 {

namespace {

bool isBranch(std::uint32_t word) // B and BL
{
    return (word & 0x7C000000) == 0x14000000;
}

bool isAdrp(std::uint32_t word)
{
    return (word & 0x9F000000) == 0x90000000;
}

std::uint32_t maskOf(const DistanceField &field)
{
    const std::uint32_t high = ((1u << (field.bits - (field.isSplit ? 2 : 0))) - 1) << field.shift;
    return field.isSplit ? high | 3u << 29 : high;
}

unsigned unitBits(const DistanceField &field)
{
    return field.unit == DistanceField::Bytes ? 0 : field.unit == DistanceField::Words ? 2 : 12;
}

std::uint64_t origin(const DistanceField &field, std::uint64_t address)
{
    return field.unit == DistanceField::Pages ? address & ~(PageSize - 1) : address;
}

} // namespace

std::optional<DistanceField> distanceField(std::uint32_t word)
{
    if (isBranch(word))
        return DistanceField{.shift = 0, .bits = 26};
    if (isAdrp(word))
        return DistanceField{.shift = 5, .bits = 21, .unit = DistanceField::Pages, .isSplit = true};
    if ((word & 0x9F000000) == 0x10000000) // ADR
        return DistanceField{.shift = 5, .bits = 21, .unit = DistanceField::Bytes, .isSplit = true};
    const bool isConditional = (word & 0xFF000000) == 0x54000000; // B.cond, BC.cond
    const bool comparesRegister = (word & 0x7E000000) == 0x34000000; // CBZ, CBNZ
    const bool isLiteral = (word & 0x3B000000) == 0x18000000; // LDR of a literal
    if (isConditional || comparesRegister || isLiteral)
        return DistanceField{.shift = 5, .bits = 19};
    if ((word & 0x7E000000) == 0x36000000) // TBZ, TBNZ
        return DistanceField{.shift = 5, .bits = 14};
    return std::nullopt;
}

std::uint64_t targetOf(std::uint32_t word, const DistanceField &field, std::uint64_t address)
{
    std::uint64_t distance;
    if (field.isSplit)
        distance =
            std::uint64_t(word >> field.shift & ((1u << (field.bits - 2)) - 1)) << 2 | (word >> 29 & 3);
    else
        distance = word >> field.shift & ((1u << field.bits) - 1);
    const std::uint64_t sign = std::uint64_t(1) << (field.bits - 1);
    distance = (distance ^ sign) - sign;
    return origin(field, address) + (distance << unitBits(field));
}

std::uint32_t withTarget(std::uint32_t word, const DistanceField &field, std::uint64_t address,
                         std::uint64_t target)
{
    const auto bytes = static_cast<std::int64_t>(origin(field, target) - origin(field, address));
    const auto distance = static_cast<std::uint32_t>(bytes >> unitBits(field));
    const std::uint32_t mask = maskOf(field);
    const std::uint32_t placed =
        field.isSplit ? (distance >> 2) << field.shift | (distance & 3) << 29 : distance << field.shift;
    return (word & ~mask) | (placed & mask);
}

std::uint32_t withoutDistance(std::uint32_t word, const DistanceField &field)
{
    return word & ~maskOf(field);
}

std::optional<PageOffsetField> pageOffsetField(std::uint32_t word)
{
    const unsigned base = word >> 5 & 31;
    if ((word & 0xFFC00000) == 0x91000000) // ADD of 64 bits, not shifted
        return PageOffsetField{.scale = 0, .base = base};
    if ((word & 0x3B000000) != 0x39000000) // loads and stores with an unsigned offset
        return std::nullopt;
    const bool isQuad = (word & 0x04800000) == 0x04800000 && word >> 30 == 0; // of vector registers
    return PageOffsetField{.scale = isQuad ? 4 : word >> 30, .base = base};
}

std::uint32_t withPageOffset(std::uint32_t word, const PageOffsetField &field, std::uint64_t offset)
{
    if (offset & ((std::uint64_t(1) << field.scale) - 1))
        return word;
    return (word & ~PageOffsetField::Mask) | static_cast<std::uint32_t>(offset >> field.scale & 0xFFF) << 10;
}

std::uint64_t offsetInPage(const unsigned char *code, std::size_t size)
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
        if (registerOf(word) == reg && (isAdrp(word) || !distanceField(word)))
            break;
    }
    return 0;
}

} // namespace zel::arm64

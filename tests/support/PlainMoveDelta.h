// A move delta applied byte by byte, as docs/move-delta-format.md has it and without any short cut: the
// measure for the real one.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace zel {

/// Takes time and memory as they come: tens of bytes for each byte of the files.
class PlainMoveDelta
{
public:
    using Bytes = std::vector<unsigned char>;
    using View = std::span<const unsigned char>;
    using Hasher = std::function<void(View bytes, unsigned char *hash)>;

    /// The new file; nothing when the delta is corrupt or belongs to another old file.
    static std::optional<Bytes> apply(View oldBytes, View delta, const Hasher &hasher)
    {
        PlainMoveDelta plain(oldBytes, delta);
        plain.read();
        if (!plain.m_good)
            return std::nullopt;
        plain.copyAndInsert();
        for (const Copy &copy : plain.m_copies)
            plain.predict(copy);
        plain.hashPages(hasher);
        return plain.m_new;
    }

private:
    using U32 = std::uint32_t;
    using U64 = std::uint64_t;

    static constexpr U64 MostBytes = 2'147'483'647;
    static constexpr U64 Window = U64(1) << 32; // of addresses above an image's lowest
    enum Kind { Plain, Arm64, X86, Words, Pointers, ChainedPointers };

    struct Side {
        U64 offset, address, size;
    };
    struct Range {
        unsigned kind = Plain;
        bool isInFile = true;
        Side from, to;
        std::map<U32, U32> shifts; // of words
        std::map<U64, std::array<U64, 2>> distances; // of x86-64: an instruction's begin to distance and end
    };
    struct Image {
        U64 oldBase = 0, newBase = 0, oldLowest = ~U64(0), newLowest = ~U64(0);
        std::vector<Range> ranges;
        std::map<U32, std::array<U64, 2>> learned;
    };
    struct Copy {
        U64 from, to, length;
    };
    struct Pages {
        U64 table, start, end, size;
    };
    // Where a byte lies; the same for both when no range has them.
    struct Owner {
        Image *image = nullptr;
        Range *range = nullptr;
        bool operator==(const Owner &) const = default;
    };
    struct Piece {
        Image &image;
        Range &range;
        U64 from, to, length, oldAddress, newAddress;
    };
    using Address = std::optional<U64>;

    PlainMoveDelta(View oldBytes, View delta)
        : m_old(oldBytes)
        , m_delta(delta)
    {
    }

    // Reading. What is wrong makes m_good false; reading goes on with zeros.

    void demand(bool holds) { m_good = m_good && holds; }

    unsigned char byte(View &bytes)
    {
        if (bytes.empty()) {
            m_good = false;
            return 0;
        }
        const unsigned char first = bytes.front();
        bytes = bytes.subspan(1);
        return first;
    }

    U64 number(View &bytes, U64 most = ~U64(0))
    {
        U64 value = 0;
        for (unsigned shift = 0; shift < 70; shift += 7) {
            const unsigned char next = byte(bytes);
            demand(shift < 63 || next < 2);
            value |= U64(next & 127) << shift;
            if (next < 128) {
                demand(value <= most);
                return m_good ? value : 0;
            }
        }
        return 0; // ten bytes were not the end: the demand has failed
    }

    View part(U64 size)
    {
        demand(size <= m_delta.size());
        const View taken = m_delta.first(m_good ? std::size_t(size) : 0);
        m_delta = m_delta.subspan(taken.size());
        return taken;
    }

    void read()
    {
        for (const char mark : std::string_view("ZELMOVE1"))
            demand(byte(m_delta) == mark);
        demand(number(m_delta, MostBytes) == m_old.size());
        m_newSize = number(m_delta, MostBytes);
        readImages();
        readPageHashes();
        readCopies();
        readCorrections();
        demand(m_delta.size() == m_newSize - m_copied);
    }

    void readImages()
    {
        m_images.resize(number(m_delta, 4));
        U64 words = 0;
        U64 left = 1024;
        for (Image &image : m_images) {
            image.oldBase = number(m_delta);
            image.newBase = number(m_delta);
            image.ranges.resize(number(m_delta, left));
            left -= image.ranges.size();
            for (Range &range : image.ranges) {
                readRange(image, range);
                words += range.kind == Words;
            }
        }
        demand(words <= 64);
        for (Image &one : m_images) {
            for (Image &other : m_images)
                demandApart(one, other);
        }
    }

    void readRange(Image &image, Range &range)
    {
        const unsigned char kind = byte(m_delta);
        demand(kind / 2 <= ChainedPointers);
        range.kind = kind / 2;
        range.isInFile = kind % 2 == 0;
        range.from = readSide(range.isInFile ? m_old.size() : ~U64(0));
        range.to = readSide(range.isInFile ? m_newSize : ~U64(0));
        image.oldLowest = std::min(image.oldLowest, range.from.address);
        image.newLowest = std::min(image.newLowest, range.to.address);
    }

    Side readSide(U64 fileSize)
    {
        Side side{};
        side.offset = number(m_delta);
        side.address = number(m_delta);
        side.size = number(m_delta, MostBytes);
        demand(side.size <= ~U64(0) - side.address);
        demand(side.size <= fileSize && side.offset <= fileSize - side.size);
        return side;
    }

    static bool overlap(U64 one, U64 oneSize, U64 other, U64 otherSize)
    {
        return oneSize > 0 && otherSize > 0 && one < other + otherSize && other < one + oneSize;
    }

    void demandApart(Image &one, Image &other)
    {
        for (Range &a : one.ranges) {
            for (Range &b : other.ranges) {
                if (&a == &b)
                    continue;
                for (const auto side : {&Range::from, &Range::to}) {
                    const Side &x = a.*side, &y = b.*side;
                    demand(&one != &other || !overlap(x.address, x.size, y.address, y.size));
                    demand(!a.isInFile || !b.isInFile || !overlap(x.offset, x.size, y.offset, y.size));
                }
            }
        }
    }

    void readPageHashes()
    {
        m_pages.resize(number(m_delta, 16));
        U64 left = 2 * m_newSize;
        for (Pages &pages : m_pages) {
            pages.table = number(m_delta, m_newSize);
            pages.start = number(m_delta, m_newSize);
            pages.end = number(m_delta, m_newSize);
            pages.size = number(m_delta, MostBytes);
            demand(pages.start < pages.end && pages.end <= pages.table && pages.size >= 256);
            if (!m_good)
                return;
            const U64 bytes = pages.end - pages.start;
            demand((bytes + pages.size - 1) / pages.size * 32 <= m_newSize - pages.table);
            demand(bytes <= left);
            left -= bytes;
        }
    }

    void readCopies()
    {
        const U64 count = number(m_delta, 1'048'576);
        const U64 insertSize = number(m_delta), lengthSize = number(m_delta), seekSize = number(m_delta);
        View inserts = part(insertSize), lengths = part(lengthSize), seeks = part(seekSize);
        U64 from = 0, to = 0;
        for (U64 i = 0; i < count && m_good; ++i) {
            to += number(inserts, m_newSize - to);
            const U64 folded = number(seeks);
            const U64 seek = folded % 2 ? folded / 2 + 1 : folded / 2;
            demand(folded % 2 ? seek <= from : seek <= m_old.size() - from);
            const U64 length = number(lengths);
            if (!m_good)
                return;
            from = folded % 2 ? from - seek : from + seek;
            demand(length > 0 && length <= m_old.size() - from && length <= m_newSize - to);
            if (!m_good)
                return;
            m_copies.push_back({from, to, length});
            from += length;
            to += length;
            m_copied += length;
        }
        demand(inserts.empty() && lengths.empty() && seeks.empty());
    }

    void readCorrections()
    {
        View corrections = part(number(m_delta));
        U64 at = 0; // in the copied bytes
        while (!corrections.empty() && m_good) {
            const U64 right = number(corrections);
            const unsigned char added = byte(corrections);
            demand(right < m_copied - at);
            at += right;
            m_added[at] = added;
            ++at;
        }
    }

    // Rebuilding.

    void copyAndInsert()
    {
        m_new.resize(m_newSize);
        m_addedAt.resize(m_newSize);
        m_oldOwners.resize(m_old.size());
        m_newOwners.resize(m_newSize);
        m_holders.resize(m_old.size());
        U64 at = 0, copied = 0;
        for (const Copy &copy : m_copies) {
            while (at < copy.to)
                m_new[at++] = byte(m_delta);
            for (U64 i = 0; i < copy.length; ++i, ++at, ++copied) {
                const auto added = m_added.find(copied);
                m_addedAt[at] = added == m_added.end() ? 0 : added->second;
                setByte(at, m_old[copy.from + i]);
                const Copy *&holder = m_holders[copy.from + i];
                if (!holder || holder->length < copy.length)
                    holder = &copy;
            }
            const Copy *&beginner = m_beginners[copy.from];
            if (!beginner || beginner->length < copy.length)
                beginner = &copy;
        }
        while (at < m_newSize)
            m_new[at++] = byte(m_delta);
        for (Image &image : m_images) {
            for (Range &range : image.ranges) {
                for (U64 i = 0; range.isInFile && i < range.from.size; ++i)
                    m_oldOwners[range.from.offset + i] = {&image, &range};
                for (U64 i = 0; range.isInFile && i < range.to.size; ++i)
                    m_newOwners[range.to.offset + i] = {&image, &range};
            }
        }
    }

    void setByte(U64 at, unsigned predicted)
    {
        m_new[at] = static_cast<unsigned char>(predicted + m_addedAt[at]);
    }

    void setField(U64 at, unsigned size, U64 predicted)
    {
        for (unsigned i = 0; i < size; ++i)
            setByte(at + i, static_cast<unsigned char>(predicted >> (8 * i)));
    }

    static U64 load(View bytes, U64 at, unsigned size)
    {
        U64 value = 0;
        for (unsigned i = 0; i < size; ++i)
            value |= U64(bytes[at + i]) << (8 * i);
        return value;
    }

    void predict(const Copy &copy)
    {
        for (U64 begin = 0; begin < copy.length;) {
            const Owner from = m_oldOwners[copy.from + begin], to = m_newOwners[copy.to + begin];
            U64 end = begin;
            while (end < copy.length && m_oldOwners[copy.from + end] == from
                   && m_newOwners[copy.to + end] == to)
                ++end;
            if (from.image && from.image == to.image)
                predictPiece({*from.image, *from.range, copy.from + begin, copy.to + begin, end - begin,
                              from.range->from.address + copy.from + begin - from.range->from.offset,
                              to.range->to.address + copy.to + begin - to.range->to.offset});
            begin = end;
        }
    }

    void predictPiece(const Piece &piece)
    {
        switch (piece.range.kind) {
        case Arm64:
            return predictArm64(piece);
        case X86:
            return predictX86(piece);
        case Words:
            return predictWords(piece);
        case Pointers:
        case ChainedPointers:
            return predictPointers(piece);
        }
    }

    // How far it is to the first old address that is a multiple.
    static U64 firstMultiple(const Piece &piece, U64 of) { return (of - piece.oldAddress % of) % of; }

    // Where a place moved.

    static const Range *rangeOf(const Image &image, U64 T)
    {
        const Range *nearest = nullptr;
        for (const Range &range : image.ranges) {
            if (range.from.size > 0 && range.from.address <= T
                && (!nearest || range.from.address > nearest->from.address))
                nearest = &range;
        }
        return nearest && T - nearest->from.address <= nearest->from.size ? nearest : nullptr;
    }

    const Copy *copyFor(U64 offset) const
    {
        if (offset < m_old.size() && m_holders[offset])
            return m_holders[offset];
        const auto behind = m_beginners.lower_bound(offset);
        if (behind != m_beginners.end() && behind->first - offset <= 16)
            return behind->second;
        while (offset > 0) {
            --offset;
            if (offset < m_old.size() && m_holders[offset])
                return m_holders[offset];
        }
        return nullptr;
    }

    static U32 slotOf(U64 t) { return U32(t * 0x9E3779B1) >> 13; }

    Address moved(const Image &image, U64 T) const
    {
        const U64 t = T - image.oldLowest;
        if (t >= Window)
            return std::nullopt;
        const auto learned = image.learned.find(slotOf(t));
        if (learned != image.learned.end() && learned->second[0] == t && t != 0)
            return image.newLowest + learned->second[1];
        const Range *range = rangeOf(image, T);
        if (!range)
            return std::nullopt;
        if (!range->isInFile)
            return range->to.address + (T - range->from.address);
        const U64 offset = range->from.offset + (T - range->from.address);
        const Copy *copy = copyFor(offset);
        if (!copy)
            return std::nullopt;
        const U64 newOffset = offset - copy->from + copy->to;
        if (newOffset - range->to.offset <= range->to.size)
            return range->to.address + (newOffset - range->to.offset);
        for (const Range &other : image.ranges) {
            if (other.isInFile && newOffset - other.to.offset < other.to.size)
                return other.to.address + (newOffset - other.to.offset);
        }
        return std::nullopt;
    }

    static void learn(Image &image, U64 T, Address predicted, U64 actual)
    {
        const U64 t = T - image.oldLowest, a = actual - image.newLowest;
        if (predicted != actual && t < Window && a < Window)
            image.learned[slotOf(t)] = {t, a};
    }

    // AArch64.

    struct DistanceForm {
        U32 mask, value;
        unsigned lowest, bits; // 0 bits: those of ADR and ADRP
        unsigned unit; // as a shift
    };

    static const DistanceForm *distanceForm(U32 word)
    {
        static constexpr DistanceForm forms[] = {
            {0x7C000000, 0x14000000, 0, 26, 2}, {0x9F000000, 0x90000000, 5, 0, 12},
            {0x9F000000, 0x10000000, 5, 0, 0},  {0xFF000000, 0x54000000, 5, 19, 2},
            {0x7E000000, 0x34000000, 5, 19, 2}, {0x3B000000, 0x18000000, 5, 19, 2},
            {0x7E000000, 0x36000000, 5, 14, 2},
        };
        for (const DistanceForm &form : forms) {
            if ((word & form.mask) == form.value)
                return &form;
        }
        return nullptr;
    }

    static bool isAdrp(U32 word) { return distanceForm(word) && distanceForm(word)->unit == 12; }

    static U64 distanceOf(U32 word, const DistanceForm &form)
    {
        const unsigned bits = form.bits ? form.bits : 21;
        U64 distance = form.bits ? word >> form.lowest & ((U32(1) << bits) - 1)
                                 : (word >> 5 & 0x7FFFF) << 2 | (word >> 29 & 3);
        if (distance >> (bits - 1))
            distance -= U64(1) << bits;
        return distance << form.unit;
    }

    static U32 withDistance(U32 word, const DistanceForm &form, U64 distance)
    {
        const U32 value = U32(distance >> form.unit);
        if (form.bits == 0)
            return (word & ~(U32(0x7FFFF) << 5 | U32(3) << 29)) | (value >> 2 & 0x7FFFF) << 5
                | (value & 3) << 29;
        const U32 mask = ((U32(1) << form.bits) - 1) << form.lowest;
        return (word & ~mask) | (value << form.lowest & mask);
    }

    // The scale of an instruction that adds to a page.
    static std::optional<unsigned> addingScale(U32 word)
    {
        if (distanceForm(word))
            return std::nullopt;
        if ((word & 0xFFC00000) == 0x91000000)
            return 0;
        if ((word & 0x3B000000) != 0x39000000)
            return std::nullopt;
        return word >> 30 == 0 && (word & 0x04800000) == 0x04800000 ? 4 : word >> 30;
    }

    static unsigned addedTo(U32 word) { return word >> 5 & 31; }
    static U64 addedBy(U32 word, unsigned scale) { return U64(word >> 10 & 0xFFF) << scale; }

    struct FilledRegister {
        U64 at, oldPage;
        Address newPage; // if the ADRP stayed the same but for its distance
    };
    using Registers = std::map<unsigned, FilledRegister>;

    void predictArm64(const Piece &piece)
    {
        if (piece.newAddress % 4 != piece.oldAddress % 4)
            return;
        Registers registers;
        for (U64 at = firstMultiple(piece, 4); at + 4 <= piece.length; at += 4) {
            const U32 word = U32(load(m_old, piece.from + at, 4));
            if (const DistanceForm *form = distanceForm(word))
                predictDistance(piece, at, word, *form, registers);
            else {
                if (addingScale(word))
                    predictAdded(piece, at, word, registers);
                registers.erase(word & 31);
            }
        }
    }

    void predictDistance(const Piece &piece, U64 at, U32 word, const DistanceForm &form, Registers &registers)
    {
        const U64 page = isAdrp(word) ? ~U64(0xFFF) : ~U64(0);
        const U64 oldAddress = piece.oldAddress + at, newAddress = piece.newAddress + at;
        const U64 leads = (oldAddress & page) + distanceOf(word, form);
        const U64 T = leads + (isAdrp(word) ? addedBehind(piece, at, word & 31) : 0);
        const Address predicted = moved(piece.image, T);
        if (predicted)
            setField(piece.to + at, 4, withDistance(word, form, (*predicted & page) - (newAddress & page)));
        const U32 final = U32(load(m_new, piece.to + at, 4));
        const bool isSame = withDistance(final, form, 0) == withDistance(word, form, 0);
        const U64 finallyLeads = (newAddress & page) + distanceOf(final, form);
        if (isAdrp(word))
            registers[word & 31] = {at, leads, isSame ? Address(finallyLeads) : std::nullopt};
        else if (isSame)
            learn(piece.image, T, predicted, finallyLeads);
    }

    U64 addedBehind(const Piece &piece, U64 adrp, unsigned filled) const
    {
        for (U64 at = adrp + 4; at <= adrp + 32 && at + 4 <= piece.length; at += 4) {
            const U32 word = U32(load(m_old, piece.from + at, 4));
            if (const auto scale = addingScale(word); scale && addedTo(word) == filled)
                return addedBy(word, *scale);
            if ((word & 31) == filled && (!distanceForm(word) || isAdrp(word)))
                break;
        }
        return 0;
    }

    void predictAdded(const Piece &piece, U64 at, U32 word, const Registers &registers)
    {
        const auto filled = registers.find(addedTo(word));
        if (filled == registers.end() || at - filled->second.at > 32)
            return;
        const unsigned scale = *addingScale(word);
        const U32 others = ~(U32(0xFFF) << 10);
        const U64 T = filled->second.oldPage + addedBy(word, scale);
        const Address predicted = moved(piece.image, T);
        if (predicted && (*predicted & 0xFFF) % (U64(1) << scale) == 0)
            setField(piece.to + at, 4, (word & others) | U32((*predicted & 0xFFF) >> scale) << 10);
        const U32 final = U32(load(m_new, piece.to + at, 4));
        if ((final & others) == (word & others) && filled->second.newPage)
            learn(piece.image, T, predicted, *filled->second.newPage + addedBy(final, scale));
    }

    // x86-64.

    // What follows an opcode: so many bytes, and perhaps some of these.
    enum Form : unsigned { HasModRM = 16, IsBranch = 32, NoInstruction = 64 };

    struct Instruction {
        U64 length = 1;
        U64 distance = 0; // where it lies; 0: there is none
    };

    static bool isPrefix(unsigned byte)
    {
        for (const unsigned prefix : {0x26, 0x2E, 0x36, 0x3E, 0x64, 0x65, 0x66, 0x67, 0xF0, 0xF2, 0xF3}) {
            if (byte == prefix)
                return true;
        }
        return false;
    }

    static bool isIn(unsigned byte, std::initializer_list<std::array<unsigned, 2>> fromTo)
    {
        for (const auto &[from, to] : fromTo) {
            if (byte >= from && byte <= to)
                return true;
        }
        return false;
    }

    static unsigned oneByteForm(unsigned opcode, unsigned v, bool isWide, unsigned ModRM)
    {
        if (opcode < 0x40) {
            const unsigned low = opcode % 8;
            return low < 4 ? HasModRM : low == 4 ? 1 : low == 5 ? v : NoInstruction;
        }
        if (isIn(opcode, {{0x63, 0x63}, {0x84, 0x8F}, {0xD0, 0xD3}, {0xD8, 0xDF}, {0xFE, 0xFF}}))
            return HasModRM;
        if (isIn(opcode, {{0x6B, 0x6B}, {0x80, 0x80}, {0x83, 0x83}, {0xC0, 0xC1}, {0xC6, 0xC6}}))
            return HasModRM + 1;
        if (isIn(opcode, {{0x69, 0x69}, {0x81, 0x81}, {0xC7, 0xC7}}))
            return HasModRM + v;
        if (isIn(opcode, {{0x68, 0x68}, {0xA9, 0xA9}}))
            return v;
        if (isIn(opcode,
                 {{0x6A, 0x6A},
                  {0x70, 0x7F},
                  {0xA8, 0xA8},
                  {0xB0, 0xB7},
                  {0xCD, 0xCD},
                  {0xE0, 0xE7},
                  {0xEB, 0xEB}}))
            return 1;
        if (isIn(opcode, {{0xA0, 0xA3}}))
            return 8;
        if (isIn(opcode, {{0xB8, 0xBF}}))
            return isWide ? 8 : v;
        if (isIn(opcode, {{0xC2, 0xC2}, {0xCA, 0xCA}}))
            return 2;
        if (opcode == 0xC8)
            return 3;
        if (isIn(opcode, {{0xE8, 0xE9}}))
            return IsBranch + 4;
        if (isIn(opcode, {{0xF6, 0xF7}}))
            return HasModRM + ((ModRM >> 3 & 7) > 1 ? 0 : opcode == 0xF6 ? 1 : v);
        if (isIn(opcode,
                 {{0x60, 0x62}, {0x82, 0x82}, {0x9A, 0x9A}, {0xCE, 0xCE}, {0xD4, 0xD6}, {0xEA, 0xEA}}))
            return NoInstruction;
        return 0;
    }

    static unsigned twoByteForm(unsigned opcode)
    {
        if (isIn(opcode,
                 {{0x05, 0x09},
                  {0x0B, 0x0B},
                  {0x0E, 0x0E},
                  {0x30, 0x37},
                  {0x77, 0x77},
                  {0xA0, 0xA2},
                  {0xA8, 0xAA},
                  {0xC8, 0xCF}}))
            return 0;
        if (isIn(opcode,
                 {{0x70, 0x73}, {0xA4, 0xA4}, {0xAC, 0xAC}, {0xBA, 0xBA}, {0xC2, 0xC2}, {0xC4, 0xC6}}))
            return HasModRM + 1;
        if (isIn(opcode, {{0x80, 0x8F}}))
            return IsBranch + 4;
        if (isIn(opcode,
                 {{0x04, 0x04},
                  {0x0A, 0x0A},
                  {0x0C, 0x0C},
                  {0x0F, 0x0F},
                  {0x24, 0x27},
                  {0x39, 0x39},
                  {0x3B, 0x3F}}))
            return NoInstruction;
        return HasModRM;
    }

    static unsigned mapForm(unsigned map, unsigned opcode)
    {
        switch (map) {
        case 1:
            return opcode == 0x77 ? 0 : twoByteForm(opcode) == HasModRM + 1 ? HasModRM + 1 : HasModRM;
        case 3:
            return HasModRM + 1;
        case 2:
        case 5:
        case 6:
            return HasModRM;
        }
        return NoInstruction;
    }

    static Instruction instructionAt(View code)
    {
        const auto at = [&code](U64 i) -> unsigned { return i < code.size() ? code[i] : 0; };
        U64 next = 0;
        unsigned v = 4;
        while (next < code.size() && isPrefix(at(next)))
            v = at(next++) == 0x66 ? 2 : v;
        const unsigned rex = at(next) / 16 == 4 ? at(next++) : 0;
        const unsigned opcode = at(next++);
        unsigned form = 0;
        if (opcode == 0x0F) {
            const unsigned second = at(next++);
            form = twoByteForm(second);
            if (second == 0x38 || second == 0x3A) {
                ++next;
                form = second == 0x3A ? HasModRM + 1 : HasModRM;
            }
        } else if (opcode == 0xC5) {
            form = mapForm(1, at(next + 1));
            next += 2;
        } else if (opcode == 0xC4) {
            form = mapForm(at(next) & 31, at(next + 2));
            next += 3;
        } else if (opcode == 0x62) {
            form = mapForm(at(next) & 7, at(next + 3));
            next += 4;
        } else {
            form = oneByteForm(opcode, v, (rex & 8) != 0, at(next));
        }
        Instruction found{0, form & IsBranch ? next : 0};
        if (form & HasModRM) {
            const unsigned ModRM = at(next++), mod = ModRM >> 6, rm = ModRM & 7;
            const unsigned base = mod != 3 && rm == 4 ? at(next++) & 7 : rm;
            if (mod == 0 && rm == 5)
                found.distance = next;
            next += mod == 1 ? 1 : mod == 2 || (mod == 0 && base == 5) ? 4 : 0;
        }
        found.length = next + form % 16;
        const bool isOne = !(form & NoInstruction) && found.length <= 15 && found.length <= code.size();
        return isOne ? found : Instruction{};
    }

    static void findDistances(Range &range, View code)
    {
        for (U64 begin = 0; begin < code.size();) {
            const Instruction found = instructionAt(code.subspan(begin));
            if (found.distance > 0)
                range.distances[begin] = {begin + found.distance, begin + found.length};
            begin += found.length;
        }
    }

    void predictX86(const Piece &piece)
    {
        Range &range = piece.range;
        if (range.distances.empty())
            findDistances(range, m_old.subspan(range.from.offset, range.from.size));
        const U64 inRange = piece.from - range.from.offset;
        for (auto next = range.distances.lower_bound(inRange); next != range.distances.end(); ++next) {
            const U64 begin = next->first - inRange, at = next->second[0] - inRange,
                      end = next->second[1] - inRange;
            if (at + 4 > piece.length)
                break;
            const auto leads = [end](View bytes, U64 offset, U64 address) {
                return address + end + U64(std::int64_t(std::int32_t(load(bytes, offset, 4))));
            };
            const U64 T = leads(m_old, piece.from + at, piece.oldAddress);
            const Address predicted = moved(piece.image, T);
            if (predicted)
                setField(piece.to + at, 4, *predicted - (piece.newAddress + end));
            bool isSame = true;
            for (U64 i = begin; i < at; ++i)
                isSame = isSame && m_new[piece.to + i] == m_old[piece.from + i];
            if (isSame)
                learn(piece.image, T, predicted, leads(m_new, piece.to + at, piece.newAddress));
        }
    }

    // Data.

    void predictWords(const Piece &piece)
    {
        std::map<U32, U32> &shifts = piece.range.shifts;
        for (U64 at = firstMultiple(piece, 4); at + 4 <= piece.length; at += 4) {
            const U32 word = U32(load(m_old, piece.from + at, 4)), bucket = word >> 10;
            if (word < 1024)
                continue;
            for (const U32 tried : {bucket % 65'536, (bucket - 1) % 65'536}) {
                if (const auto shift = shifts.find(tried); shift != shifts.end()) {
                    setField(piece.to + at, 4, U32(word + shift->second));
                    break;
                }
            }
            const U32 shift = U32(load(m_new, piece.to + at, 4)) - word;
            if (shift + 1'048'575 < 2'097'151) // modulo 2^32
                shifts[bucket % 65'536] = shift;
        }
    }

    void predictPointers(const Piece &piece)
    {
        const bool isChained = piece.range.kind == ChainedPointers;
        const U64 mask = isChained ? (U64(1) << 36) - 1 : ~U64(0);
        const U64 oldBase = isChained ? piece.image.oldBase : 0,
                  newBase = isChained ? piece.image.newBase : 0;
        for (U64 at = firstMultiple(piece, 8); at + 8 <= piece.length; at += 8) {
            const U64 word = load(m_old, piece.from + at, 8);
            const U64 T = (word & mask) + oldBase;
            if ((isChained && word >> 63) || (word & mask) == 0 || !rangeOf(piece.image, T))
                continue;
            const Address predicted = moved(piece.image, T);
            if (predicted)
                setField(piece.to + at, 8, (word & ~mask) | ((*predicted - newBase) & mask));
            const U64 final = load(m_new, piece.to + at, 8);
            if ((final & ~mask) == (word & ~mask))
                learn(piece.image, T, predicted, (final & mask) + newBase);
        }
    }

    void hashPages(const Hasher &hasher)
    {
        for (const Pages &pages : m_pages) {
            U64 to = pages.table;
            for (U64 at = pages.start; at < pages.end; at += pages.size) {
                const U64 size = std::min(pages.size, pages.end - at);
                hasher(View(m_new).subspan(at, size), m_new.data() + to);
                to += 32;
            }
        }
    }

    View m_old, m_delta;
    bool m_good = true;
    U64 m_newSize = 0;
    U64 m_copied = 0;
    std::vector<Image> m_images;
    std::vector<Pages> m_pages;
    std::vector<Copy> m_copies;
    std::map<U64, unsigned char> m_added; // by the place among the copied bytes
    Bytes m_new, m_addedAt;
    std::vector<Owner> m_oldOwners, m_newOwners;
    std::vector<const Copy *> m_holders; // of each old byte the copy that it moves with
    std::map<U64, const Copy *> m_beginners;
};

} // namespace zel

// Move deltas as nobody would make them: near the edges of all rules at once, most of them valid.
#pragma once

#include "move/moveformat.h"

#include <algorithm>
#include <cstring>

namespace zel {

/// Stands for SHA-256 where it only counts that it is the same.
inline void sampleHash(std::span<const unsigned char> bytes, unsigned char *hash)
{
    std::uint32_t state = 1;
    for (const unsigned char byte : bytes)
        state = (state ^ byte) * 0x01000193;
    for (std::size_t i = 0; i < PageHashSize; ++i)
        hash[i] = static_cast<unsigned char>((state = state * 0x9E3779B1 + 1) >> 24);
}

struct MoveSample {
    std::vector<unsigned char> old;
    std::vector<std::byte> delta;
};

/// Puts a sample together; `pick(most)` gives a number from 0 to `most`.
template <typename Pick> class MoveSampler
{
public:
    explicit MoveSampler(Pick &pick)
        : m_pick(pick)
    {
    }

    MoveSample make()
    {
        m_noise = this->pick(0xFFFF);
        m_old.resize(this->pick(1500));
        m_delta.oldSize = m_old.size();
        m_delta.newSize = this->pick(2000);
        for (unsigned char &byte : m_old)
            byte = static_cast<unsigned char>(noise() % 4 ? 0 : noise());
        addImages();
        addCopies();
        addPageHashes();
        const std::vector<unsigned char> corrections = someCorrections();
        std::vector<unsigned char> inserts(m_delta.newSize - m_copied);
        for (unsigned char &byte : inserts)
            byte = static_cast<unsigned char>(noise());
        m_delta.corrections = corrections;
        m_delta.inserts = inserts;
        std::vector<std::byte> bytes = writeMoveDelta(m_delta);
        for (unsigned damages = this->pick(15) ? 0 : 1 + this->pick(3); damages > 0; --damages)
            bytes[this->pick(static_cast<std::uint32_t>(std::min<std::size_t>(bytes.size(), 300) - 1))] =
                std::byte(this->pick(255));
        return {std::move(m_old), std::move(bytes)};
    }

private:
    std::uint32_t pick(std::uint32_t most) { return m_pick(most); }

    std::uint32_t noise() { return (m_noise = m_noise * 1'664'525 + 1'013'904'223) >> 16; }

    // The next stretch of a file, which others do not overlap.
    std::uint64_t place(std::uint64_t &end, std::uint64_t fileSize, std::uint64_t &size)
    {
        const std::uint64_t offset = std::min<std::uint64_t>(fileSize, end + (pick(2) ? 0 : pick(20)));
        size = std::min(size, fileSize - offset);
        end = offset + size;
        return offset;
    }

    void addImages()
    {
        constexpr std::uint64_t bases[] = {0, 0x1000, 0x100000000, ~std::uint64_t(0) - 9000, 0xFFFFF000};
        std::uint64_t oldEnd = pick(20), newEnd = pick(20);
        m_delta.images.resize(pick(7) ? 1 : pick(3));
        for (MovedImage &image : m_delta.images) {
            std::uint64_t oldAddress = bases[pick(4)], newAddress = pick(1) ? oldAddress : bases[pick(4)];
            image.oldBase = oldAddress - pick(1) * 64;
            image.newBase = newAddress;
            for (unsigned ranges = 1 + pick(5); ranges > 0; --ranges) {
                MovedRange range;
                range.kind = RangeKind(pick(RangeKinds - 1));
                range.isInFile = pick(7) != 0;
                range.old.size = pick(500);
                range.now.size = pick(3) ? range.old.size + pick(40) : pick(500);
                if (range.isInFile) {
                    range.old.offset = place(oldEnd, m_delta.oldSize, range.old.size);
                    range.now.offset = place(newEnd, m_delta.newSize, range.now.size);
                }
                range.old.address = oldAddress += pick(3) ? 0 : pick(40);
                range.now.address = newAddress += pick(3) ? 0 : 4 * pick(2000);
                oldAddress += range.old.size;
                newAddress += range.now.size;
                image.ranges.push_back(range);
            }
            for (const MovedRange &range : image.ranges)
                fill(image, range);
        }
    }

    template <typename Word> void store(std::uint64_t at, Word word)
    {
        if (at + sizeof word <= m_old.size())
            std::memcpy(m_old.data() + at, &word, sizeof word);
    }

    void fill(const MovedImage &image, const MovedRange &range)
    {
        if (!range.isInFile || pick(7) == 0)
            return;
        const std::uint64_t unit =
            range.kind == RangeKind::Pointers || range.kind == RangeKind::ChainedPointers ? 8 : 4;
        std::uint64_t at = range.kind == RangeKind::X86_64 ? 0 : (unit - range.old.address % unit) % unit;
        while (at + unit <= range.old.size) {
            const std::uint64_t offset = range.old.offset + at;
            const MovedRange &other = image.ranges[pick(static_cast<std::uint32_t>(image.ranges.size()) - 1)];
            const std::uint64_t target =
                other.old.address + pick(static_cast<std::uint32_t>(other.old.size) + 3);
            at += unit;
            if (range.kind == RangeKind::Arm64)
                store(offset, someArm64(target - (range.old.address + at - unit)));
            else if (range.kind == RangeKind::X86_64)
                at += fillX86(offset, target - (range.old.address + at - unit)) - unit;
            else if (range.kind == RangeKind::Words)
                store(offset, pick(pick(3) ? 8000 : 0x7FFFFFFF));
            else if (range.kind == RangeKind::Pointers)
                store(offset, pick(9) ? target : pick(1));
            else if (range.kind == RangeKind::ChainedPointers)
                store(offset,
                      ((target - image.oldBase) & 0xFFFFFFFFF)
                          | std::uint64_t(pick(0xFFFF)) << 48 >> pick(1));
        }
    }

    std::uint32_t someArm64(std::uint64_t distance)
    {
        const auto bytes = static_cast<std::uint32_t>(distance), words = bytes >> 2, reg = pick(2);
        switch (pick(9)) {
        case 0:
            return 0x94000000 | (words & 0x3FFFFFF);
        case 1:
        case 2:
        case 3: // ADRP
            return 0x90000000 | pick(3) << 29 | (pick(1) ? 0x00FFFFE0 : 0) | reg;
        case 4:
            return 0x10000000 | (bytes & 3) << 29 | (words & 0x7FFFF) << 5 | reg;
        case 5: {
            constexpr std::uint32_t forms[] = {0x54000000, 0x34000000, 0xB5000000, 0x18000000, 0x9C000000};
            return forms[pick(4)] | (words & 0x7FFFF) << 5 | reg;
        }
        case 6:
            return (pick(1) ? 0x36000000 : 0xB7000000) | (words & 0x3FFF) << 5 | reg;
        case 7: {
            constexpr std::uint32_t forms[] = {0x39400000, 0x79000000, 0xB9400000, 0xF9400000, 0x3DC00000};
            return forms[pick(4)] | pick(300) << 10 | pick(2) << 5 | reg;
        }
        case 8:
            return 0x91000000 | pick(0xFFF) << 10 | pick(2) << 5 | reg;
        default:
            return pick(0xFFFFFFFF);
        }
    }

    // Returns how many bytes it takes.
    std::uint64_t fillX86(std::uint64_t offset, std::uint64_t distance)
    {
        struct Form {
            unsigned char size, bytes[5], behind;
        };
        static constexpr Form forms[] = {{1, {0xE8}, 0},       {1, {0xE9}, 0},
                                         {2, {0x0F, 0x84}, 0}, {3, {0x48, 0x8D, 0x05}, 0},
                                         {2, {0xC7, 0x05}, 4}, {4, {0xC5, 0xF8, 0x28, 0x0D}, 0},
                                         {2, {0xF6, 0x05}, 1}, {5, {0x66, 0x0F, 0x3A, 0x0F, 0x05}, 1},
                                         {1, {0x90}, 0},       {1, {0x66}, 0}};
        const Form &form = forms[pick(9)];
        for (unsigned i = 0; i < form.size; ++i)
            store(offset + i, form.bytes[i]);
        if (form.bytes[0] == 0x90 || form.size + form.bytes[0] == 0x67)
            return 1;
        store(offset + form.size, static_cast<std::uint32_t>(distance - form.size - 4 - form.behind));
        return form.size + 4U + form.behind;
    }

    void addCopies()
    {
        std::uint64_t oldEnd = 0, newEnd = 0;
        for (unsigned left = pick(30); left > 0; --left) {
            newEnd += pick(2) ? 0 : pick(30);
            const std::uint64_t seek = pick(3) ? 0 : pick(60);
            oldEnd = pick(7) == 0 ? pick(1500) : pick(1) ? oldEnd + seek : oldEnd - std::min(seek, oldEnd);
            if (oldEnd >= m_delta.oldSize || newEnd >= m_delta.newSize)
                return;
            const std::uint64_t length = std::min<std::uint64_t>(
                {1 + pick(pick(2) ? 300 : 5), m_delta.oldSize - oldEnd, m_delta.newSize - newEnd});
            m_delta.copies.push_back({static_cast<std::uint32_t>(newEnd), static_cast<std::uint32_t>(oldEnd),
                                      static_cast<std::uint32_t>(length)});
            oldEnd += length;
            newEnd += length;
            m_copied += length;
        }
    }

    void addPageHashes()
    {
        for (unsigned left = pick(15) ? 0 : 1 + pick(2); left > 0; --left) {
            const std::uint64_t start = pick(200), end = start + 1 + pick(900);
            m_delta.pageHashes.push_back({end + pick(300), start, end, 256 + pick(300)});
        }
    }

    std::vector<unsigned char> someCorrections()
    {
        std::vector<unsigned char> pairs;
        std::uint64_t at = pick(100);
        while (at < m_copied) {
            const std::uint32_t right = pick(pick(1) ? 100 : 10);
            at += right + 1;
            if (at > m_copied && pick(15))
                break;
            pairs.push_back(static_cast<unsigned char>(right));
            pairs.push_back(static_cast<unsigned char>(pick(255)));
        }
        return pairs;
    }

    Pick &m_pick;
    std::uint32_t m_noise = 0;
    std::vector<unsigned char> m_old;
    MoveDelta m_delta;
    std::uint64_t m_copied = 0;
};

} // namespace zel

#include "moveformat.h"

#include <algorithm>

// All that a delta claims is judged here, in one place, so that applying it needs no further care: ranges lie
// in the files and do not overlap, copies lie in the old file and, in a row, fill the new one with what is
// inserted between them. What is left to the end are the corrections: they are read once only.
//
// The numbers of copies stand in three columns, each of which resembles itself more than the others.

namespace zel {

namespace {

using Side = MovedRange::Side;

bool isWithin(const Side &side, bool isInFile, std::uint64_t fileSize)
{
    constexpr std::uint64_t most = LargestMoveFile;
    if (side.size > most || side.address > ~side.size)
        return false;
    return !isInFile || (side.offset <= fileSize && side.size <= fileSize - side.offset);
}

// Whether stretches, each given by its beginning and its size, have nothing in common.
bool areApart(std::vector<std::pair<std::uint64_t, std::uint64_t>> stretches)
{
    std::erase_if(stretches, [](const auto &stretch) { return stretch.second == 0; });
    std::ranges::sort(stretches);
    const auto overlap = [](const auto &first, const auto &second) {
        return second.first - first.first < first.second;
    };
    return std::ranges::adjacent_find(stretches, overlap) == stretches.end();
}

bool areApart(const std::vector<MovedImage> &images, Side MovedRange::*side)
{
    std::vector<std::pair<std::uint64_t, std::uint64_t>> offsets;
    for (const MovedImage &image : images) {
        std::vector<std::pair<std::uint64_t, std::uint64_t>> addresses;
        for (const MovedRange &range : image.ranges) {
            addresses.emplace_back((range.*side).address, (range.*side).size);
            if (range.isInFile)
                offsets.emplace_back((range.*side).offset, (range.*side).size);
        }
        if (!areApart(addresses))
            return false;
    }
    return areApart(offsets);
}

bool isValid(const PageHashes &hashes, std::uint64_t newSize)
{
    constexpr std::uint64_t smallestPage = 256;
    return hashes.start < hashes.end && hashes.end <= hashes.table && hashes.table <= newSize
        && hashes.pageSize >= smallestPage && hashes.pageSize <= LargestMoveFile
        && hashes.count() <= (newSize - hashes.table) / PageHashSize;
}

Side readSide(NumberReader &reader)
{
    Side side;
    side.offset = reader.number();
    side.address = reader.number();
    side.size = reader.number();
    return side;
}

bool readImages(NumberReader &reader, std::vector<MovedImage> &images)
{
    const std::uint64_t count = reader.number();
    if (count > MostImages)
        return false;
    std::uint64_t ranges = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        MovedImage &image = images.emplace_back();
        image.oldBase = reader.number();
        image.newBase = reader.number();
        const std::uint64_t own = reader.number();
        if (own > MostRanges || (ranges += own) > MostRanges)
            return false;
        for (std::uint64_t k = 0; k < own; ++k) {
            MovedRange &range = image.ranges.emplace_back();
            const unsigned char kind = reader.byte();
            if (kind / 2 >= RangeKinds)
                return false;
            range.kind = static_cast<RangeKind>(kind / 2);
            range.isInFile = kind % 2 == 0;
            range.old = readSide(reader);
            range.now = readSide(reader);
        }
    }
    return true;
}

bool readPageHashes(NumberReader &reader, std::vector<PageHashes> &pageHashes)
{
    const std::uint64_t count = reader.number();
    if (count > MostPageHashes)
        return false;
    for (std::uint64_t i = 0; i < count; ++i) {
        PageHashes &hashes = pageHashes.emplace_back();
        hashes.table = reader.number();
        hashes.start = reader.number();
        hashes.end = reader.number();
        hashes.pageSize = reader.number();
    }
    return true;
}

struct Columns {
    NumberReader inserts;
    NumberReader lengths;
    NumberReader seeks;
};

bool readCopies(Columns columns, std::uint64_t count, MoveDelta &delta)
{
    delta.copies.reserve(count);
    std::uint64_t newEnd = 0;
    std::int64_t oldEnd = 0;
    std::uint64_t inserted = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t insert = columns.inserts.number();
        const std::uint64_t length = columns.lengths.number();
        const std::int64_t seek = columns.seeks.signedNumber();
        if (insert > delta.newSize - newEnd || length == 0 || length > delta.newSize - newEnd - insert)
            return false;
        const auto oldSize = static_cast<std::int64_t>(delta.oldSize);
        if (seek < -oldEnd || seek > oldSize - oldEnd
            || length > static_cast<std::uint64_t>(oldSize - oldEnd - seek))
            return false;
        delta.copies.push_back({.newStart = static_cast<std::uint32_t>(newEnd + insert),
                                .oldStart = static_cast<std::uint32_t>(oldEnd + seek),
                                .length = static_cast<std::uint32_t>(length)});
        inserted += insert;
        newEnd += insert + length;
        oldEnd += seek + static_cast<std::int64_t>(length);
    }
    const bool areUsedUp = columns.inserts.isAtEnd() && columns.lengths.isAtEnd() && columns.seeks.isAtEnd();
    return areUsedUp && columns.inserts.isIntact() && columns.lengths.isIntact() && columns.seeks.isIntact()
        && delta.inserts.size() == inserted + (delta.newSize - newEnd);
}

std::uint64_t zigzag(std::int64_t number)
{
    return static_cast<std::uint64_t>(number) << 1 ^ static_cast<std::uint64_t>(number >> 63);
}

void appendSide(std::vector<std::byte> &bytes, const Side &side)
{
    appendNumber(bytes, side.offset);
    appendNumber(bytes, side.address);
    appendNumber(bytes, side.size);
}

void appendImages(std::vector<std::byte> &bytes, const std::vector<MovedImage> &images)
{
    appendNumber(bytes, images.size());
    for (const MovedImage &image : images) {
        appendNumber(bytes, image.oldBase);
        appendNumber(bytes, image.newBase);
        appendNumber(bytes, image.ranges.size());
        for (const MovedRange &range : image.ranges) {
            bytes.push_back(std::byte(static_cast<unsigned>(range.kind) * 2 + (range.isInFile ? 0 : 1)));
            appendSide(bytes, range.old);
            appendSide(bytes, range.now);
        }
    }
}

void appendBytes(std::vector<std::byte> &bytes, std::span<const unsigned char> more)
{
    const auto view = std::as_bytes(more);
    bytes.insert(bytes.end(), view.begin(), view.end());
}

void appendCopies(std::vector<std::byte> &bytes, const std::vector<MovedCopy> &copies)
{
    std::vector<std::byte> inserts;
    std::vector<std::byte> lengths;
    std::vector<std::byte> seeks;
    std::uint32_t newEnd = 0;
    std::uint32_t oldEnd = 0;
    for (const MovedCopy &copy : copies) {
        appendNumber(inserts, copy.newStart - newEnd);
        appendNumber(lengths, copy.length);
        appendNumber(seeks, zigzag(std::int64_t(copy.oldStart) - std::int64_t(oldEnd)));
        newEnd = copy.newEnd();
        oldEnd = copy.oldEnd();
    }
    appendNumber(bytes, copies.size());
    const std::vector<std::byte> *const columns[] = {&inserts, &lengths, &seeks};
    for (const auto *column : columns)
        appendNumber(bytes, column->size());
    for (const auto *column : columns)
        bytes.insert(bytes.end(), column->begin(), column->end());
}

} // namespace

std::uint64_t NumberReader::number()
{
    std::uint64_t number = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
        const std::uint64_t digit = byte();
        if (shift == 63 && digit > 1)
            break;
        number |= (digit & 0x7F) << shift;
        if (digit < 0x80)
            return number;
    }
    m_isIntact = false;
    m_bytes = {};
    return 0;
}

std::int64_t NumberReader::signedNumber()
{
    const std::uint64_t folded = number();
    return static_cast<std::int64_t>(folded >> 1 ^ (~(folded & 1) + 1));
}

unsigned char NumberReader::byte()
{
    if (m_bytes.empty()) {
        m_isIntact = false;
        return 0;
    }
    const unsigned char byte = m_bytes.front();
    m_bytes = m_bytes.subspan(1);
    return byte;
}

std::span<const unsigned char> NumberReader::bytes(std::uint64_t count)
{
    if (count > m_bytes.size()) {
        m_isIntact = false;
        m_bytes = {};
        return {};
    }
    const auto taken = m_bytes.first(static_cast<std::size_t>(count));
    m_bytes = m_bytes.subspan(static_cast<std::size_t>(count));
    return taken;
}

void appendNumber(std::vector<std::byte> &bytes, std::uint64_t number)
{
    for (; number >= 0x80; number >>= 7)
        bytes.push_back(std::byte(number & 0x7F) | std::byte(0x80));
    bytes.push_back(std::byte(number));
}

bool areRangesValid(const MoveDelta &delta)
{
    std::size_t words = 0;
    for (const MovedImage &image : delta.images) {
        for (const MovedRange &range : image.ranges) {
            words += range.kind == RangeKind::Words;
            if (!isWithin(range.old, range.isInFile, delta.oldSize)
                || !isWithin(range.now, range.isInFile, delta.newSize))
                return false;
        }
    }
    return words <= MostWordRanges && areApart(delta.images, &MovedRange::old)
        && areApart(delta.images, &MovedRange::now);
}

bool arePageHashesValid(const MoveDelta &delta)
{
    std::uint64_t hashed = 0;
    for (const PageHashes &hashes : delta.pageHashes) {
        if (!isValid(hashes, delta.newSize))
            return false;
        hashed += hashes.end - hashes.start;
    }
    return delta.pageHashes.size() <= MostPageHashes && hashed <= 2 * delta.newSize;
}

std::optional<MoveDelta> readMoveDelta(std::span<const unsigned char> bytes)
{
    NumberReader reader(bytes);
    if (!std::ranges::equal(reader.bytes(MoveDeltaMark.size()), MoveDeltaMark))
        return std::nullopt;
    MoveDelta delta;
    delta.oldSize = reader.number();
    delta.newSize = reader.number();
    if (delta.oldSize > LargestMoveFile || delta.newSize > LargestMoveFile
        || !readImages(reader, delta.images) || !readPageHashes(reader, delta.pageHashes))
        return std::nullopt;
    const std::uint64_t copies = reader.number();
    const std::uint64_t insertsLength = reader.number();
    const std::uint64_t lengthsLength = reader.number();
    const std::uint64_t seeksLength = reader.number();
    if (copies > MostMoveCopies || copies > seeksLength)
        return std::nullopt;
    const Columns columns = {NumberReader(reader.bytes(insertsLength)),
                             NumberReader(reader.bytes(lengthsLength)),
                             NumberReader(reader.bytes(seeksLength))};
    delta.corrections = reader.bytes(reader.number());
    delta.inserts = reader.rest();
    if (!reader.isIntact() || !areRangesValid(delta) || !arePageHashesValid(delta)
        || !readCopies(columns, copies, delta))
        return std::nullopt;
    return delta;
}

std::optional<MoveStreams> moveStreams(std::span<const unsigned char> bytes)
{
    const std::optional<MoveDelta> delta = readMoveDelta(bytes);
    if (!delta)
        return std::nullopt;
    const std::size_t inserts = bytes.size() - delta->inserts.size();
    return MoveStreams{inserts - delta->corrections.size(), inserts};
}

std::vector<std::byte> writeMoveDelta(const MoveDelta &delta)
{
    std::vector<std::byte> bytes;
    const auto mark = std::as_bytes(std::span(MoveDeltaMark));
    bytes.assign(mark.begin(), mark.end());
    appendNumber(bytes, delta.oldSize);
    appendNumber(bytes, delta.newSize);
    appendImages(bytes, delta.images);
    appendNumber(bytes, delta.pageHashes.size());
    for (const PageHashes &hashes : delta.pageHashes) {
        for (const std::uint64_t number : {hashes.table, hashes.start, hashes.end, hashes.pageSize})
            appendNumber(bytes, number);
    }
    appendCopies(bytes, delta.copies);
    appendNumber(bytes, delta.corrections.size());
    appendBytes(bytes, delta.corrections);
    appendBytes(bytes, delta.inserts);
    return bytes;
}

} // namespace zel

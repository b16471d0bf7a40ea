#include "references.h"

#include "instructionwalk.h"
#include "learning.h"

#include <algorithm>
#include <bit>
#include <cstring>

// A copy is cut into pieces that lie in one range of the old file and one range of the same image in the new
// one, so that every byte of a piece has an old and a new address. What a piece holds is walked through in
// order; at each reference the prediction is written over the copied bytes, these are settled, and the
// outcome is learned from.
//
// Everything is bounded by the number of copied bytes, whatever a delta says: a reference takes a few steps,
// and all tables have a size that is known from the start.

namespace zel {

namespace {

constexpr std::size_t SmallestField = 4;

template <typename Word> Word load(const unsigned char *bytes)
{
    static_assert(std::endian::native == std::endian::little);
    Word word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

template <typename Word> void store(unsigned char *bytes, Word word)
{
    std::memcpy(bytes, &word, sizeof word);
}

} // namespace

struct ReferenceModel::Image {
    std::uint64_t oldBase = 0;
    std::uint64_t newBase = 0;
    std::uint64_t oldLowest = 0; // address
    std::uint64_t newLowest = 0;
    std::vector<const MovedRange *> byOldAddress;
    std::vector<const MovedRange *> byNewOffset; // those in the file
    std::vector<std::uint64_t> oldAddresses; // of these, to be searched
    std::vector<std::uint64_t> newEnds; // offsets
    std::unique_ptr<LearnedTargets> learned;
    const MovedRange *lastFound = nullptr;

    void sortRanges()
    {
        std::ranges::sort(byOldAddress, {}, [](const MovedRange *range) { return range->old.address; });
        for (const MovedRange *range : byOldAddress)
            oldAddresses.push_back(range->old.address);
        std::ranges::sort(byNewOffset, {}, [](const MovedRange *range) { return range->now.offset; });
        for (const MovedRange *range : byNewOffset)
            newEnds.push_back(range->now.offset + range->now.size);
    }

    // A range's end counts as its own where no other begins.
    const MovedRange *atOldAddress(std::uint64_t address)
    {
        if (lastFound && address - lastFound->old.address < lastFound->old.size)
            return lastFound;
        const auto next = std::ranges::upper_bound(oldAddresses, address);
        if (next == oldAddresses.begin())
            return nullptr;
        const MovedRange *const range = byOldAddress[std::size_t(next - oldAddresses.begin()) - 1];
        if (address - range->old.address > range->old.size)
            return nullptr;
        lastFound = range;
        return range;
    }

    // The first range that ends behind the place.
    const MovedRange *atOrBehindNewOffset(std::uint64_t offset) const
    {
        const auto end = std::ranges::upper_bound(newEnds, offset);
        return end != newEnds.end() ? byNewOffset[std::size_t(end - newEnds.begin())] : nullptr;
    }

    const MovedRange *atNewOffset(std::uint64_t offset) const
    {
        const MovedRange *const range = atOrBehindNewOffset(offset);
        return range && range->now.offset <= offset ? range : nullptr;
    }
};

struct ReferenceModel::Range {
    const MovedRange *moved;
    Image *image;
    std::unique_ptr<InstructionWalk> instructions; // of x86-64
    std::unique_ptr<Drift> drift; // of words

    std::uint64_t start() const { return moved->old.offset; }
    std::uint64_t end() const { return moved->old.offset + moved->old.size; }
};

struct ReferenceModel::Piece {
    Range &range;
    const unsigned char *oldBytes; // of the piece
    unsigned char *newBytes;
    std::size_t length;
    std::uint32_t newStart; // in the file
    std::uint64_t oldAddress;
    std::uint64_t newAddress;
    Settler &settler;

    Image &image() const { return *range.image; }
    // Has the first `count` bytes settled.
    void settle(std::size_t count) const { settler.settle(newStart + static_cast<std::uint32_t>(count)); }
    // How many bytes to skip to an old address that is a multiple of `size`.
    std::size_t padding(std::uint64_t size) const { return (size - oldAddress % size) % size; }
};

ReferenceModel::ReferenceModel(std::span<const unsigned char> oldBytes, const std::vector<MovedImage> &images,
                               const std::vector<MovedCopy> &copies)
    : m_old(oldBytes)
{
    if (!images.empty())
        m_index.emplace(copies, oldBytes.size());
    for (const MovedImage &each : images) {
        Image &image = *m_images.emplace_back(std::make_unique<Image>());
        image.oldBase = each.oldBase;
        image.newBase = each.newBase;
        image.learned = std::make_unique<LearnedTargets>();
        image.oldLowest = image.newLowest = ~std::uint64_t(0);
        for (const MovedRange &range : each.ranges) {
            image.oldLowest = std::min(image.oldLowest, range.old.address);
            image.newLowest = std::min(image.newLowest, range.now.address);
            if (range.old.size > 0)
                image.byOldAddress.push_back(&range);
            if (range.isInFile && range.now.size > 0)
                image.byNewOffset.push_back(&range);
            if (!range.isInFile || range.old.size == 0)
                continue;
            Range &own = *m_ranges.emplace_back(std::make_unique<Range>());
            own.moved = &range;
            own.image = &image;
            if (range.kind == RangeKind::X86_64)
                own.instructions = std::make_unique<InstructionWalk>(oldBytes.subspan(
                    static_cast<std::size_t>(range.old.offset), static_cast<std::size_t>(range.old.size)));
            if (range.kind == RangeKind::Words)
                own.drift = std::make_unique<Drift>();
        }
        image.sortRanges();
    }
    std::ranges::sort(m_ranges, {}, [](const auto &range) { return range->start(); });
}

ReferenceModel::~ReferenceModel() = default;

void ReferenceModel::rebuild(const MovedCopy &copy, unsigned char *newFile, Settler &settler)
{
    std::memcpy(newFile + copy.newStart, m_old.data() + copy.oldStart, copy.length);
    auto range = std::ranges::upper_bound(m_ranges, std::uint64_t(copy.oldStart), {},
                                          [](const auto &each) { return each->end(); });
    for (std::uint64_t at = copy.oldStart; range != m_ranges.end() && at < copy.oldEnd(); ++range) {
        at = std::max(at, (*range)->start());
        const std::uint64_t end = std::min<std::uint64_t>(copy.oldEnd(), (*range)->end());
        // Where the new place lies in several ranges, each makes a piece.
        while (at + SmallestField <= end && (*range)->moved->kind != RangeKind::Plain) {
            const std::uint64_t newPlace = at - copy.oldStart + copy.newStart;
            const MovedRange *const now = (*range)->image->atOrBehindNewOffset(newPlace);
            if (!now)
                break;
            if (now->now.offset > newPlace) {
                at += now->now.offset - newPlace;
                continue;
            }
            const std::uint64_t length = std::min(end - at, now->now.offset + now->now.size - newPlace);
            if (length >= SmallestField)
                rebuildPiece({.range = **range,
                              .oldBytes = m_old.data() + at,
                              .newBytes = newFile + newPlace,
                              .length = static_cast<std::size_t>(length),
                              .newStart = static_cast<std::uint32_t>(newPlace),
                              .oldAddress = (*range)->moved->old.address + (at - (*range)->start()),
                              .newAddress = now->now.address + (newPlace - now->now.offset),
                              .settler = settler});
            at += length;
        }
        at = std::max(at, end);
    }
    settler.settle(copy.newEnd());
}

void ReferenceModel::rebuildPiece(const Piece &piece)
{
    switch (piece.range.moved->kind) {
    case RangeKind::Plain:
        break;
    case RangeKind::Arm64:
        rebuildArm64(piece);
        break;
    case RangeKind::X86_64:
        rebuildX86(piece);
        break;
    case RangeKind::Words:
        rebuildWords(piece);
        break;
    case RangeKind::Pointers:
    case RangeKind::ChainedPointers:
        rebuildPointers(piece);
        break;
    }
}

void ReferenceModel::rebuildArm64(const Piece &piece)
{
    using namespace arm64;

    // The page that an ADRP left in a register.
    struct Page {
        std::size_t end = 0; // of the piece, in front of which the register is taken to hold it
        std::uint64_t old = 0;
        std::optional<std::uint64_t> now; // in the new file
    };
    std::array<Page, Registers> pages;

    const std::size_t first = piece.padding(4);
    if ((piece.newAddress + first) % 4 != 0)
        return;
    for (std::size_t at = first; at + 4 <= piece.length; at += 4) {
        const auto word = load<std::uint32_t>(piece.oldBytes + at);
        unsigned char *const newWord = piece.newBytes + at;
        const std::optional<DistanceField> field = distanceField(word);
        if (field) {
            const std::uint64_t newAddress = piece.newAddress + at;
            const bool isPage = field->unit == DistanceField::Pages;
            const std::uint64_t target = targetOf(word, *field, piece.oldAddress + at);
            const std::uint64_t place =
                isPage ? target + offsetInPage(piece.oldBytes + at, piece.length - at) : target;
            const std::optional<std::uint64_t> predicted = predict(piece.image(), place);
            if (predicted)
                store(newWord, withTarget(word, *field, newAddress, *predicted));
            piece.settle(at + 4);
            const auto actual = load<std::uint32_t>(newWord);
            const bool isSame = withoutDistance(actual, *field) == withoutDistance(word, *field);
            const std::uint64_t actualTarget = targetOf(actual, *field, newAddress);
            if (isPage)
                pages[registerOf(word)] = {at + 4 + 4 * MostWordsBehind, target,
                                           isSame ? std::optional(actualTarget) : std::nullopt};
            else if (isSame)
                learn(piece.image(), target, predicted, actualTarget);
            continue;
        }
        const std::optional<PageOffsetField> offset = pageOffsetField(word);
        if (offset && at < pages[offset->base].end) {
            const Page &page = pages[offset->base];
            const std::uint64_t target = page.old + pageOffset(word, *offset);
            const std::optional<std::uint64_t> predicted = predict(piece.image(), target);
            if (predicted)
                store(newWord, withPageOffset(word, *offset, *predicted % PageSize));
            piece.settle(at + 4);
            const auto actual = load<std::uint32_t>(newWord);
            const bool isSame = (actual & ~PageOffsetField::Mask) == (word & ~PageOffsetField::Mask);
            if (isSame && page.now)
                learn(piece.image(), target, predicted, *page.now + pageOffset(actual, *offset));
        }
        pages[registerOf(word)].end = 0;
    }
}

void ReferenceModel::rebuildX86(const Piece &piece)
{
    const MovedRange::Side &old = piece.range.moved->old;
    const std::span<const unsigned char> code =
        m_old.subspan(static_cast<std::size_t>(old.offset), static_cast<std::size_t>(old.size));
    const std::size_t start = static_cast<std::size_t>(piece.oldAddress - old.address);
    InstructionWalk &instructions = *piece.range.instructions;
    instructions.seek(start);
    while (instructions.at() < start + piece.length) {
        const std::size_t at = instructions.at();
        const x86::Instruction instruction = instructions.next();
        const std::size_t field = at + instruction.distance;
        if (instruction.distance == 0 || field + x86::DistanceSize > start + piece.length)
            continue;
        const std::size_t end = instructions.at();
        const std::uint64_t newEnd = piece.newAddress + (end - start);
        const auto distance = std::int64_t(load<std::int32_t>(code.data() + field));
        const std::uint64_t target = old.address + end + static_cast<std::uint64_t>(distance);
        const std::optional<std::uint64_t> predicted = predict(piece.image(), target);
        unsigned char *const newField = piece.newBytes + (field - start);
        if (predicted)
            store(newField, static_cast<std::uint32_t>(*predicted - newEnd));
        piece.settle(field - start + x86::DistanceSize);
        if (std::equal(code.data() + at, code.data() + field, piece.newBytes + (at - start))) {
            const auto actual = std::int64_t(load<std::int32_t>(newField));
            learn(piece.image(), target, predicted, newEnd + static_cast<std::uint64_t>(actual));
        }
    }
}

void ReferenceModel::rebuildWords(const Piece &piece)
{
    Drift &drift = *piece.range.drift;
    for (std::size_t at = piece.padding(4); at + 4 <= piece.length; at += 4) {
        const auto word = load<std::uint32_t>(piece.oldBytes + at);
        if (!Drift::isPlace(word))
            continue;
        store(piece.newBytes + at, drift.predict(word));
        piece.settle(at + 4);
        drift.learn(word, load<std::uint32_t>(piece.newBytes + at));
    }
}

void ReferenceModel::rebuildPointers(const Piece &piece)
{
    constexpr std::uint64_t chainedPlace = (std::uint64_t(1) << 36) - 1;
    const bool isChained = piece.range.moved->kind == RangeKind::ChainedPointers;
    const std::uint64_t mask = isChained ? chainedPlace : ~std::uint64_t(0);
    const std::uint64_t oldBase = isChained ? piece.image().oldBase : 0;
    const std::uint64_t newBase = isChained ? piece.image().newBase : 0;
    for (std::size_t at = piece.padding(8); at + 8 <= piece.length; at += 8) {
        const auto word = load<std::uint64_t>(piece.oldBytes + at);
        const bool isBound = isChained && word >> 63 != 0; // to a symbol of another program
        const std::uint64_t target = oldBase + (word & mask);
        if (isBound || (word & mask) == 0 || !piece.image().atOldAddress(target))
            continue;
        const std::optional<std::uint64_t> predicted = predict(piece.image(), target);
        if (predicted)
            store(piece.newBytes + at, (word & ~mask) | ((*predicted - newBase) & mask));
        piece.settle(at + 8);
        const auto actual = load<std::uint64_t>(piece.newBytes + at);
        if ((actual & ~mask) == (word & ~mask))
            learn(piece.image(), target, predicted, newBase + (actual & mask));
    }
}

std::optional<std::uint64_t> ReferenceModel::predict(Image &image, std::uint64_t target)
{
    const std::uint64_t relative = target - image.oldLowest;
    if (relative > UINT32_MAX)
        return std::nullopt;
    if (const auto learned = image.learned->find(static_cast<std::uint32_t>(relative)))
        return image.newLowest + *learned;
    const MovedRange *const range = image.atOldAddress(target);
    if (!range)
        return std::nullopt;
    const std::uint64_t inRange = target - range->old.address;
    if (!range->isInFile)
        return range->now.address + inRange;
    const std::uint64_t oldOffset = range->old.offset + inRange;
    const std::optional<std::int64_t> shift = m_index->shiftAt(oldOffset);
    if (!shift)
        return std::nullopt;
    const std::uint64_t newOffset = oldOffset + static_cast<std::uint64_t>(*shift);
    const MovedRange *now = range;
    if (newOffset - range->now.offset > range->now.size)
        now = image.atNewOffset(newOffset);
    if (!now)
        return std::nullopt;
    return now->now.address + (newOffset - now->now.offset);
}

void ReferenceModel::learn(Image &image, std::uint64_t target, std::optional<std::uint64_t> predicted,
                           std::uint64_t actual) const
{
    const std::uint64_t oldRelative = target - image.oldLowest;
    const std::uint64_t newRelative = actual - image.newLowest;
    if (actual != predicted && oldRelative <= UINT32_MAX && newRelative <= UINT32_MAX)
        image.learned->insert(static_cast<std::uint32_t>(oldRelative),
                              static_cast<std::uint32_t>(newRelative));
}

} // namespace zel

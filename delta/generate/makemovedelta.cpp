#include "makemovedelta.h"

#include "compactdelta.h"
#include "delta/owned.h"
#include "maskreferences.h"
#include "move/references.h"
#include "programimage.h"
#include "scan.h"

#include <algorithm>
#include <array>
#include <cstring>

// The way from two files to a move delta:
//
//   1. Hashes of the new file's own pages are cleared, where computing them gives them back.
//   2. References are left out of both files (maskreferences.h), so that the search finds what moved in one
//      piece.
//   3. The search and the choice among its copies are those of an ordinary delta, on the masked bytes.
//   4. Each copy is predicted from the true bytes, once for every kind that a part of a program could be
//      taken for; what leaves least to be corrected is taken. Kinds influence each other a little, since all
//      learn from the same references, but not so much that trying all combinations would pay.

namespace zel {

namespace {

using FileBytes = std::span<const unsigned char>;
using Buffer = std::vector<unsigned char>;

void clear(Buffer &bytes, std::uint64_t from, std::uint64_t count)
{
    std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(from), count, 0);
}

// Whether neither's table is among what the other hashes, or in the other's table: then each can be computed
// before the other.
bool areIndependent(const PageHashes &one, const PageHashes &other)
{
    const auto tableEnd = [](const PageHashes &hashes) {
        return hashes.table + hashes.count() * PageHashSize;
    };
    const auto isClear = [&](const PageHashes &hashes, std::uint64_t start, std::uint64_t end) {
        return tableEnd(hashes) <= start || end <= hashes.table;
    };
    return isClear(one, other.start, other.end) && isClear(other, one.start, one.end)
        && isClear(one, other.table, tableEnd(other));
}

bool areGivenBack(const PageHashes &hashes, FileBytes bytes, const PageHasher &hasher)
{
    for (std::uint64_t i = 0; i < hashes.count(); ++i) {
        std::array<unsigned char, PageHashSize> hash;
        const std::uint64_t start = hashes.start + i * hashes.pageSize;
        hasher(bytes.subspan(start, std::min(hashes.pageSize, hashes.end - start)), hash.data());
        if (!std::ranges::equal(hash, bytes.subspan(hashes.table + i * PageHashSize, PageHashSize)))
            return false;
    }
    return true;
}

// Clears in `bytes` the hashes that computing gives back, and notes which.
void clearPageHashes(const std::vector<ProgramImage> &programs, const PageHasher &hasher, Buffer &bytes,
                     MoveDelta &delta)
{
    for (const ProgramImage &program : programs) {
        for (const PageHashes &hashes : program.pageHashes) {
            const bool isIndependent = std::ranges::all_of(
                delta.pageHashes, [&](const PageHashes &each) { return areIndependent(each, hashes); });
            delta.pageHashes.push_back(hashes);
            if (!arePageHashesValid(delta) || !isIndependent || !areGivenBack(hashes, bytes, hasher))
                delta.pageHashes.pop_back();
            else
                clear(bytes, hashes.table, hashes.count() * PageHashSize);
        }
    }
}

// Nothing when memory is missing.
std::optional<std::vector<DeltaCopy>> findCopies(FileBytes oldBytes, FileBytes newBytes,
                                                 const DeltaProgress &progress)
{
    const auto oldSize = static_cast<std::int64_t>(oldBytes.size());
    const auto total = oldSize + static_cast<std::int64_t>(newBytes.size());
    const auto report = [&](std::int64_t done) {
        if (progress)
            progress(std::min(done, total), total);
    };
    if (oldBytes.empty())
        return std::vector<DeltaCopy>();
    const Entries I = allocateEntries(oldBytes.size() + 1);
    if (!I)
        return std::nullopt;
    I[0] = oldSize;
    if (sortSuffixes(oldBytes.data(), I.get() + 1, static_cast<int>(oldSize),
                     [&](int percent) { report(oldSize * percent / 100); })
        != 0)
        return std::nullopt;
    std::vector<DeltaCopy> copies;
    Scan scan(oldBytes, I.get(), newBytes, {}, [&](std::int64_t scanned) { report(oldSize + scanned); });
    while (const std::optional<ScanStep> step = scan.next()) {
        // A step's add may pass the old file's beginning or end, where nothing is added.
        const std::int64_t start = step->newStart + std::max<std::int64_t>(0, -step->oldStart);
        const std::int64_t end = step->newStart + std::min(step->add, oldSize - step->oldStart);
        if (start < end)
            copies.push_back({start, end, step->oldStart - step->newStart});
    }
    return copies;
}

// The sections that both programs have, by their names.
MovedImage pairSections(const ProgramImage &old, const ProgramImage &now, std::size_t most)
{
    MovedImage image = {.oldBase = old.base, .newBase = now.base, .ranges = {}};
    std::vector<bool> isTaken(now.sections.size());
    for (const ProgramSection &section : old.sections) {
        const auto same = std::ranges::find_if(now.sections, [&](const ProgramSection &each) {
            return each.name == section.name && each.isInFile == section.isInFile
                && !isTaken[static_cast<std::size_t>(&each - now.sections.data())];
        });
        if (same == now.sections.end() || image.ranges.size() == most)
            continue;
        isTaken[static_cast<std::size_t>(same - now.sections.begin())] = true;
        image.ranges.push_back({.kind = section.isCode ? now.code : RangeKind::Plain,
                                .isInFile = section.isInFile,
                                .old = section.place,
                                .now = same->place});
    }
    return image;
}

std::vector<MovedImage> pairImages(const std::vector<ProgramImage> &before,
                                   const std::vector<ProgramImage> &after)
{
    std::vector<MovedImage> images;
    std::vector<bool> isTaken(before.size());
    std::size_t ranges = 0;
    for (const ProgramImage &now : after) {
        const auto old = std::ranges::find_if(before, [&](const ProgramImage &each) {
            return each.code == now.code && each.format == now.format
                && !isTaken[static_cast<std::size_t>(&each - before.data())];
        });
        if (old == before.end() || images.size() == MostImages)
            continue;
        isTaken[static_cast<std::size_t>(old - before.begin())] = true;
        images.push_back(pairSections(*old, now, MostRanges - ranges));
        ranges += images.back().ranges.size();
    }
    return images;
}

// Notes what has to be corrected and lets the new file take its true bytes.
class Recorder : public Settler
{
public:
    Recorder(FileBytes newBytes, Buffer &rebuilt)
        : m_actual(newBytes)
        , m_rebuilt(rebuilt)
    {
    }

    void begin(const MovedCopy &copy) { m_next = copy.newStart; }

    // The corrections as they stand in a delta.
    std::vector<unsigned char> takePairs()
    {
        std::vector<unsigned char> pairs(reinterpret_cast<const unsigned char *>(m_pairs.data()),
                                         reinterpret_cast<const unsigned char *>(m_pairs.data())
                                             + m_pairs.size());
        m_pairs = {};
        return pairs;
    }

    const std::vector<std::uint32_t> &places() const { return m_places; } // ascending, in the new file

private:
    void settleUpTo(std::uint32_t newEnd) override
    {
        while (m_next < newEnd) {
            const unsigned char *const predicted = m_rebuilt.data() + m_next;
            const unsigned char *const actual = m_actual.data() + m_next;
            const auto different = std::mismatch(predicted, predicted + (newEnd - m_next), actual).first;
            const auto equal = static_cast<std::uint32_t>(different - predicted);
            m_next += equal;
            m_gap += equal;
            if (m_next == newEnd)
                return;
            appendNumber(m_pairs, m_gap);
            m_pairs.push_back(std::byte(m_actual[m_next] - m_rebuilt[m_next]));
            m_places.push_back(m_next);
            m_rebuilt[m_next] = m_actual[m_next];
            m_gap = 0;
            ++m_next;
        }
    }

    const FileBytes m_actual;
    Buffer &m_rebuilt;
    std::uint32_t m_gap = 0; // copied bytes that stand since the last correction
    std::vector<std::byte> m_pairs;
    std::vector<std::uint32_t> m_places;
};

class KindChoice
{
public:
    KindChoice(FileBytes oldBytes, FileBytes newBytes, MoveDelta &delta)
        : m_old(oldBytes)
        , m_new(newBytes)
        , m_delta(delta)
        , m_rebuilt(newBytes.size())
    {
        for (MovedImage &image : m_delta.images) {
            for (MovedRange &range : image.ranges)
                m_ranges.push_back({&range, range.kind});
        }
        std::ranges::sort(m_ranges, {}, [](const Candidate &each) { return each.range->now.offset; });
        std::erase_if(m_ranges, [](const Candidate &each) { return !each.range->isInFile; });
    }

    void choose()
    {
        if (m_ranges.empty()) {
            m_delta.images.clear();
            return;
        }
        tryKinds([](const Candidate &) { return RangeKind::Plain; });
        for (Candidate &each : m_ranges)
            each.asPlain = each.fewest;
        for (const RangeKind kind : {RangeKind::Words, RangeKind::Pointers, RangeKind::ChainedPointers})
            tryKinds([&](const Candidate &each) { return each.code != RangeKind::Plain ? each.code : kind; });
        limitWords();
        for (Candidate &each : m_ranges)
            each.range->kind = each.best;
        std::erase_if(m_delta.images, [](const MovedImage &image) {
            return std::ranges::all_of(
                image.ranges, [](const MovedRange &range) { return range.kind == RangeKind::Plain; });
        });
    }

    std::vector<unsigned char> corrections() { return predict().takePairs(); }

private:
    struct Candidate {
        MovedRange *range;
        RangeKind code; // Plain where it holds none
        RangeKind best = RangeKind::Plain;
        std::size_t fewest = SIZE_MAX; // corrections
        std::size_t asPlain = 0;
    };

    // Where a delta may not have that many, those that gain most stay.
    void limitWords()
    {
        std::vector<Candidate *> words;
        for (Candidate &each : m_ranges) {
            if (each.best == RangeKind::Words)
                words.push_back(&each);
        }
        std::ranges::stable_sort(words, std::ranges::greater(),
                                 [](const Candidate *each) { return each->asPlain - each->fewest; });
        for (std::size_t i = MostWordRanges; i < words.size(); ++i)
            words[i]->best = RangeKind::Plain;
    }

    Recorder predict()
    {
        Recorder recorder(m_new, m_rebuilt);
        ReferenceModel model(m_old, m_delta.images, m_delta.copies);
        for (const MovedCopy &copy : m_delta.copies) {
            recorder.begin(copy);
            model.rebuild(copy, m_rebuilt.data(), recorder);
        }
        return recorder;
    }

    template <typename KindOf> void tryKinds(KindOf kindOf)
    {
        for (Candidate &each : m_ranges)
            each.range->kind = kindOf(each);
        const Recorder recorder = predict();
        const std::vector<std::uint32_t> &places = recorder.places();
        for (Candidate &each : m_ranges) {
            const MovedRange::Side &now = each.range->now;
            const auto first = std::ranges::lower_bound(places, now.offset);
            const auto last = std::ranges::lower_bound(places, now.offset + now.size);
            if (const auto count = static_cast<std::size_t>(last - first); count < each.fewest) {
                each.fewest = count;
                each.best = each.range->kind;
            }
        }
    }

    const FileBytes m_old;
    const FileBytes m_new;
    MoveDelta &m_delta;
    Buffer m_rebuilt;
    std::vector<Candidate> m_ranges; // that are in the file
};

std::vector<MovedCopy> movedCopies(const std::vector<DeltaCopy> &copies)
{
    std::vector<MovedCopy> moved;
    moved.reserve(copies.size());
    for (const DeltaCopy &copy : copies) {
        if (copy.length() > 0)
            moved.push_back({.newStart = static_cast<std::uint32_t>(copy.start),
                             .oldStart = static_cast<std::uint32_t>(copy.start + copy.alignment),
                             .length = static_cast<std::uint32_t>(copy.length())});
    }
    // Beyond what a delta may have, the shortest are given up.
    if (moved.size() > MostMoveCopies) {
        std::vector<std::uint32_t> lengths;
        for (const MovedCopy &copy : moved)
            lengths.push_back(copy.length);
        std::ranges::nth_element(lengths, lengths.begin() + MostMoveCopies, std::ranges::greater());
        const std::uint32_t least = lengths[MostMoveCopies];
        std::erase_if(moved, [least](const MovedCopy &copy) { return copy.length <= least; });
    }
    return moved;
}

Buffer insertedBytes(FileBytes newBytes, const std::vector<MovedCopy> &copies)
{
    Buffer inserted;
    std::uint32_t end = 0;
    for (const MovedCopy &copy : copies) {
        inserted.insert(inserted.end(), newBytes.begin() + end, newBytes.begin() + copy.newStart);
        end = copy.newEnd();
    }
    inserted.insert(inserted.end(), newBytes.begin() + end, newBytes.end());
    return inserted;
}

} // namespace

std::optional<std::vector<std::byte>> makeMoveDelta(FileBytes oldBytes, FileBytes newBytes,
                                                    const PageHasher &hasher, const DeltaProgress &progress)
{
    if (oldBytes.size() > LargestMoveFile || newBytes.size() > LargestMoveFile)
        return std::nullopt;
    const std::vector<ProgramImage> before = readPrograms(oldBytes);
    const std::vector<ProgramImage> after = readPrograms(newBytes);
    Buffer now(newBytes.begin(), newBytes.end());
    MoveDelta delta;
    delta.oldSize = oldBytes.size();
    delta.newSize = newBytes.size();
    clearPageHashes(after, hasher, now, delta);
    {
        const auto [oldMasked, newMasked] = maskReferences(oldBytes, before, now, after);
        const auto found = findCopies(oldMasked, newMasked, progress);
        if (!found)
            return std::nullopt;
        delta.copies = movedCopies(chooseCopies(oldMasked, newMasked, *found));
    }
    delta.images = pairImages(before, after);
    if (!areRangesValid(delta))
        delta.images.clear();
    KindChoice choice(oldBytes, now, delta);
    choice.choose();
    const Buffer corrections = choice.corrections();
    const Buffer inserted = insertedBytes(now, delta.copies);
    delta.corrections = corrections;
    delta.inserts = inserted;
    return writeMoveDelta(delta);
}

} // namespace zel

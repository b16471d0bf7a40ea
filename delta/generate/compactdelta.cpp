#include "compactdelta.h"

#include "delta/deltaformat.h"
#include "generate/agreement.h"

#include <algorithm>
#include <cstdint>

// The search for the cheapest delta goes through the new file byte by byte and keeps, for each copy that may
// be going on there and for "no copy", the cheapest way to this byte. All choices ahead depend on which of
// these it is and on nothing before, so that no other way needs to be kept (Viterbi). A byte has few copies
// at hand, as each is a candidate only near the place where the scan made it, and sixteen at most; so the
// whole takes linear time.
//
// The prices stand for compressed sizes, which nobody knows before the end; to measure would be to compress
// at every step. Fixed prices for a triple, a changed and an inserted byte get most of it. Only their
// proportions matter.

namespace zel {

namespace {

using Index = std::int64_t;
using FileBytes = std::span<const unsigned char>;

// What things cost in a compressed delta, in proportion: measured on programs and on text, where the least of
// the patch's size is flat. A byte that the copy agrees with costs next to nothing.
constexpr Index InsertCost = 4; // of a byte that is in no copy
constexpr Index ChangeCost = 10; // of a byte in a copy that differs from the old one
constexpr Index TripleCost = 100;

// A copy is tried from so many bytes and copies ahead of its place on: the scan begins it late when the one
// before went on for too long.
constexpr Index Reach = 1024;
constexpr std::size_t CopiesAhead = 8;
constexpr std::size_t MostPaths = 16; // bounds the time when many copies are equally good
constexpr std::size_t TripleSize = 3 * DeltaIntegerSize;

Index length(FileBytes text)
{
    return static_cast<Index>(text.size());
}

// Nothing when one lies outside the files.
std::optional<std::vector<DeltaCopy>> readCopies(FileBytes delta, Index oldSize, Index newSize)
{
    if (delta.size() < DeltaHeaderSize)
        return std::nullopt;
    const Index controlLength = deltaIntegerAt(delta, ControlLengthOffset);
    if (controlLength < 0 || controlLength > length(delta) - Index(DeltaHeaderSize))
        return std::nullopt;
    std::vector<DeltaCopy> copies;
    Index oldPosition = 0;
    Index newPosition = 0;
    const std::size_t end =
        DeltaHeaderSize + static_cast<std::size_t>(controlLength) / TripleSize * TripleSize;
    for (std::size_t at = DeltaHeaderSize; at < end; at += TripleSize) {
        const Index add = deltaIntegerAt(delta, at);
        const Index insert = deltaIntegerAt(delta, at + DeltaIntegerSize);
        const Index seek = deltaIntegerAt(delta, at + 2 * DeltaIntegerSize);
        if (add < 0 || insert < 0 || add > newSize - newPosition || insert > newSize - newPosition - add
            || add > oldSize - oldPosition)
            return std::nullopt;
        if (add > 0)
            copies.push_back({newPosition, newPosition + add, oldPosition - newPosition});
        newPosition += add + insert;
        oldPosition += add;
        if (seek < -oldPosition || seek > oldSize - oldPosition)
            return std::nullopt;
        oldPosition += seek;
    }
    return copies;
}

// Walks through the new file and keeps, for each copy at hand and for none, the cheapest way to the current
// byte.
class CopyChoice
{
public:
    CopyChoice(FileBytes oldBytes, FileBytes newBytes, const std::vector<DeltaCopy> &copies)
        : m_old(oldBytes)
        , m_new(newBytes)
        , m_candidates(copies)
    {
    }

    std::vector<DeltaCopy> choose()
    {
        while (m_at < length(m_new)) {
            const Way best = cheapest();
            open(best);
            renew(best);
            if (!skipEqual(best))
                advance(best);
        }
        return trace(cheapest());
    }

private:
    // A copy's beginning, and where the copy before it ended.
    struct Beginning {
        Index start = 0;
        Index alignment = 0;
        int before = -1; // in m_beginnings
        Index beforeEnd = 0;
    };

    // A way to the current byte: what it costs, its last copy and where that ended, here or before.
    struct Way {
        Index cost;
        int last; // in m_beginnings
        Index copyEnd;
    };

    // The cheapest way to the current byte that ends in a copy of one alignment.
    struct Path {
        Beginning beginning;
        Index cost = 0;
        Index wantedUntil = 0; // where the candidate ends
        int kept = -1; // the beginning in m_beginnings, once there is a way that has it
    };

    Way cheapest()
    {
        const auto path = std::ranges::min_element(m_paths, {}, &Path::cost);
        if (path == m_paths.end() || path->cost >= m_none.cost)
            return m_none;
        if (path->kept < 0) {
            path->kept = static_cast<int>(m_beginnings.size());
            m_beginnings.push_back(path->beginning);
        }
        return {path->cost, path->kept, m_at};
    }

    void begin(Path &path, Index alignment, const Way &from) const
    {
        path.beginning = {m_at, alignment, from.last, from.copyEnd};
        path.cost = from.cost + TripleCost;
        path.kept = -1;
    }

    Index opening(std::size_t candidate) const
    {
        const DeltaCopy &copy = m_candidates[candidate];
        const Index early = std::max(copy.start - Reach, -copy.alignment);
        return candidate < CopiesAhead ? early : std::max(early, m_candidates[candidate - CopiesAhead].start);
    }

    void open(const Way &best)
    {
        for (; m_next < m_candidates.size() && opening(m_next) <= m_at; ++m_next) {
            const DeltaCopy &copy = m_candidates[m_next];
            auto path = std::ranges::find(m_paths, copy.alignment,
                                          [](const Path &each) { return each.beginning.alignment; });
            if (path == m_paths.end()) {
                if (m_paths.size() == MostPaths)
                    m_paths.erase(std::ranges::max_element(m_paths, {}, &Path::cost));
                path = m_paths.insert(m_paths.end(), Path());
                begin(*path, copy.alignment, best);
            }
            path->wantedUntil = std::max(path->wantedUntil, copy.end);
        }
    }

    // A copy that costs as much as one begun here is begun here, or given up when its place is past.
    void renew(const Way &best)
    {
        const Index limit = best.cost + TripleCost;
        std::erase_if(m_paths,
                      [&](const Path &path) { return path.cost >= limit && path.wantedUntil <= m_at; });
        for (Path &path : m_paths) {
            if (path.cost >= limit)
                begin(path, path.beginning.alignment, best);
        }
    }

    // Passes over what the only copy at hand agrees with, all at once: none that opens there could cost
    // less.
    bool skipEqual(const Way &best)
    {
        if (m_paths.size() != 1 || best.copyEnd != m_at)
            return false;
        const Index oldAt = m_at + m_paths.front().beginning.alignment;
        const Index limit = std::min(length(m_new) - m_at, length(m_old) - oldAt);
        const Index equal = matchLength(m_old.data() + oldAt, m_new.data() + m_at, 0, limit);
        if (equal <= 0)
            return false;
        m_at += equal;
        m_none = {best.cost + InsertCost, best.last, m_at - 1};
        return true;
    }

    void advance(const Way &best)
    {
        std::erase_if(m_paths,
                      [this](const Path &path) { return m_at + path.beginning.alignment >= length(m_old); });
        for (Path &path : m_paths)
            path.cost += m_old[std::size_t(m_at + path.beginning.alignment)] == m_new[std::size_t(m_at)]
                ? 0
                : ChangeCost;
        m_none = {best.cost + InsertCost, best.last, best.copyEnd};
        ++m_at;
    }

    std::vector<DeltaCopy> trace(const Way &way) const
    {
        std::vector<DeltaCopy> copies;
        Index end = way.copyEnd;
        for (int at = way.last; at >= 0; at = m_beginnings[std::size_t(at)].before) {
            const Beginning &beginning = m_beginnings[std::size_t(at)];
            copies.push_back({beginning.start, end, beginning.alignment});
            end = beginning.beforeEnd;
        }
        std::ranges::reverse(copies);
        return copies;
    }

    const FileBytes m_old;
    const FileBytes m_new;
    const std::vector<DeltaCopy> &m_candidates;
    std::size_t m_next = 0; // of the candidates
    Index m_at = 0;
    // An application begins at the start of both files.
    std::vector<Beginning> m_beginnings = {{}};
    std::vector<Path> m_paths = {{.beginning = {}, .kept = 0}};
    Way m_none = {0, 0, 0};
};

// Puts together what the copies leave of the new file and how they differ from the old one.
std::vector<std::byte> writeDelta(FileBytes oldBytes, FileBytes newBytes,
                                  const std::vector<DeltaCopy> &copies)
{
    Index added = 0;
    for (const DeltaCopy &copy : copies)
        added += copy.length();
    std::vector<std::byte> delta(DeltaHeaderSize + copies.size() * TripleSize + newBytes.size());
    auto *const bytes = reinterpret_cast<unsigned char *>(delta.data());
    unsigned char *control = bytes;
    const auto write = [&control](Index value) {
        control = std::ranges::copy(encodeDeltaInteger(value), control).out;
    };
    control = std::ranges::copy(DeltaMagic, control).out;
    write(static_cast<Index>(copies.size() * TripleSize));
    write(added);
    write(length(newBytes));
    unsigned char *difference = bytes + DeltaHeaderSize + copies.size() * TripleSize;
    unsigned char *extra = difference + added;
    for (std::size_t i = 0; i < copies.size(); ++i) {
        const DeltaCopy &copy = copies[i];
        const bool isLast = i + 1 == copies.size();
        const Index next = isLast ? length(newBytes) : copies[i + 1].start;
        write(copy.length());
        write(next - copy.end);
        write(isLast ? 0 : next + copies[i + 1].alignment - (copy.end + copy.alignment));
        for (Index at = copy.start; at < copy.end; ++at)
            *difference++ = static_cast<unsigned char>(newBytes[std::size_t(at)]
                                                       - oldBytes[std::size_t(at + copy.alignment)]);
        extra = std::copy(newBytes.begin() + copy.end, newBytes.begin() + next, extra);
    }
    return delta;
}

} // namespace

std::optional<std::vector<std::byte>> compactDelta(FileBytes oldBytes, FileBytes newBytes, FileBytes delta)
{
    const auto copies = readCopies(delta, length(oldBytes), length(newBytes));
    if (!copies)
        return std::nullopt;
    return writeDelta(oldBytes, newBytes, chooseCopies(oldBytes, newBytes, *copies));
}

std::vector<DeltaCopy> chooseCopies(FileBytes oldBytes, FileBytes newBytes,
                                    const std::vector<DeltaCopy> &candidates)
{
    return CopyChoice(oldBytes, newBytes, candidates).choose();
}

} // namespace zel

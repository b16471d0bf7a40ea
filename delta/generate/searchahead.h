// Where the scan searches, and the searches that are made before it asks for them, on all processors.
//
// The scan is a chain: where it searches next hangs on what the last search found. But the chain forgets: two
// scans that began at different places soon take the same match, and from then on do the same. So threads
// scan ahead, each a chunk of the new file, from the chunk's beginning as if nothing went before, and keep
// what their searches found. The real scan then looks up its searches; where its way differs from theirs, at
// the beginning of a chunk, it searches itself. A search's outcome depends on its place alone. That is the
// invariant: whatever threads do or leave undone, the delta is the same. Cutting the file into parts that are
// scanned apart would be simpler, but would show at every cut.
#pragma once

#include "delta/owned.h"
#include "suffixsearch.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace zel {

/// Goes through new bytes up to `end` in search of places where another part of the old file matches better
/// than the one gone on with so far, which at first is the part from `start` + `offset` on. Both files belong
/// to the caller.
class ScanWalk
{
public:
    ScanWalk(std::span<const unsigned char> oldBytes, std::span<const unsigned char> newBytes,
             std::int64_t start, std::int64_t end, std::int64_t offset)
        : m_old(oldBytes.data())
        , m_oldSize(static_cast<std::int64_t>(oldBytes.size()))
        , m_new(newBytes.data())
        , m_end(end)
        , m_scan(start)
        , m_offset(offset)
    {
    }

    bool isAtEnd() const { return m_scan >= m_end; }
    std::int64_t scan() const { return m_scan; }
    const Match &match() const { return m_match; }

    /// Moves on to the next place where another part matches better or where the same goes on matching.
    /// `find` returns the match for a place; the walk also stops where that is beyond reach.
    /// Returns whether the match at hand is another one, to be taken with `takeMatch`.
    template <typename Find> bool findMatch(Find find)
    {
        m_score = 0;
        m_scan += m_match.length;
        for (std::int64_t scored = m_scan; m_scan < m_end; ++m_scan) {
            m_match = find(m_scan);
            if (m_match.position == Match::BeyondReach)
                return false;
            m_score += score(scored, m_scan + m_match.length);
            scored = std::max(scored, m_scan + m_match.length);
            if ((m_match.length == m_score && m_match.length != 0)
                || m_match.length > m_score + MismatchAllowance)
                break;
            m_score -= score(m_scan, m_scan + 1);
        }
        return m_match.length != m_score || m_scan == m_end;
    }

    void takeMatch() { m_offset = m_match.position - m_scan; }

private:
    /// By how many more bytes a new match must beat the going one to be worth a control triple.
    static constexpr std::int64_t MismatchAllowance = 8;

    /// How many of the new bytes are equal in the part gone on with. An old position is never negative: it
    /// began at a match's position for the scan position of that match, and scan positions only grow.
    std::int64_t score(std::int64_t from, std::int64_t to) const
    {
        const std::int64_t count = std::min(to, m_oldSize - m_offset) - from;
        return count > 0 ? countEqual(m_old + from + m_offset, m_new + from, count) : 0;
    }

    const unsigned char *m_old;
    std::int64_t m_oldSize;
    const unsigned char *m_new;
    std::int64_t m_end;
    std::int64_t m_scan;
    std::int64_t m_offset;
    std::int64_t m_score = 0;
    Match m_match;
};

/// The matches that threads found ahead of the scan. A place that they did not think of is left to the scan.
///
/// It belongs to one thread, which lends a hand while it waits. Memory: 1.5 MiB for each processor, of at
/// most eight.
class SearchAhead
{
public:
    /// Both files and the search belong to the caller and outlive it.
    SearchAhead(std::span<const unsigned char> oldBytes, std::span<const unsigned char> newBytes,
                const SuffixSearch &search, const ShortCuts &shortCuts);
    SearchAhead(const SearchAhead &) = delete;
    SearchAhead &operator=(const SearchAhead &) = delete;
    ~SearchAhead();

    /// The match for a place that was searched ahead. Places ascend from call to call.
    std::optional<Match> at(std::int64_t scan);

private:
    struct Found {
        std::uint32_t scan; ///< 32 bits do, as files are below 2 GiB
        std::uint32_t length;
        std::uint32_t position;
    };
    struct Chunk {
        std::int64_t number = -1;
        bool done = false;
        std::unique_ptr<Found[], FreeMemory> found;
        std::size_t count = 0;
    };

    bool allocateChunks(std::size_t chunks);
    void startThreads(unsigned count);
    void work();
    void advance(std::unique_lock<std::mutex> &lock);
    Chunk *take();
    void walkThrough(Chunk &chunk) const;
    void enter(std::int64_t number);

    std::span<const unsigned char> m_old;
    std::span<const unsigned char> m_new;
    const SuffixSearch &m_search;
    const std::int64_t m_chunkSize;
    /// Longer matches are left to the scan: it knows of earlier ones, and a thread would go beyond its chunk.
    const std::int64_t m_reach;
    std::int64_t m_chunkCount;

    std::mutex m_mutex; ///< for all below but what only the owner's thread uses
    std::condition_variable m_changed;
    std::vector<Chunk> m_chunks; ///< chunk n is at n modulo their number
    std::int64_t m_current = -1; ///< the chunk that the scan is in
    std::int64_t m_next = 0; ///< the first chunk that nobody took
    bool m_stopped = false;

    // Of the owner's thread, for the chunk that the scan is in.
    const Chunk *m_currentChunk = nullptr;
    std::int64_t m_currentEnd = 0; ///< in the new file
    std::size_t m_cursor = 0;
    std::vector<std::thread> m_threads;
};

} // namespace zel

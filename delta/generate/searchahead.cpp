#include "searchahead.h"

#include <new>
#include <system_error>

// The chunks form a ring: chunk n lies at n modulo their number, and is taken only when the scan is near
// enough that the one before it in the ring is done with. A chunk belongs to the thread that took it from
// `take` until it sets `done`, and from then on is only read; the mutex passes it from one to the other. When
// the scan jumps over chunks (a match of many megabytes), those still being walked through keep their place
// in the ring until they are done.

namespace zel {
namespace {

using Index = std::int64_t;

constexpr unsigned MostThreads = 8;

// The matches of places in a row, found together. There are more of them the longer nothing good was found.
class Lookahead
{
public:
    Lookahead(const SuffixSearch &search, Index end, Index reach)
        : m_search(search)
        , m_end(end)
        , m_reach(reach)
    {
    }

    Match operator()(Index scan)
    {
        if (scan < m_begin || scan >= m_begin + m_count)
            fill(scan);
        return m_matches[static_cast<std::size_t>(scan - m_begin)];
    }

private:
    static constexpr Index Fewest = 4;

    void fill(Index scan)
    {
        const bool goesOn = m_count > 0 && scan == m_begin + m_count;
        const Index wanted = goesOn ? std::min<Index>(2 * m_count, SuffixSearch::MostAtOnce) : Fewest;
        m_begin = scan;
        m_count = std::min(wanted, m_end - scan);
        m_search.searchTogether(scan, m_reach, std::span(m_matches).first(static_cast<std::size_t>(m_count)));
    }

    const SuffixSearch &m_search;
    Index m_end;
    Index m_reach;
    Index m_begin = 0;
    Index m_count = 0;
    std::array<Match, SuffixSearch::MostAtOnce> m_matches;
};

} // namespace

SearchAhead::SearchAhead(std::span<const unsigned char> oldBytes, std::span<const unsigned char> newBytes,
                         const SuffixSearch &search, const ShortCuts &shortCuts)
    : m_old(oldBytes)
    , m_new(newBytes)
    , m_search(search)
    , m_chunkSize(shortCuts.chunkSize)
    , m_reach(shortCuts.reach)
    , m_chunkCount((static_cast<Index>(newBytes.size()) + m_chunkSize - 1) / m_chunkSize)
{
    const unsigned threads = std::clamp(std::thread::hardware_concurrency(), 1U, MostThreads);
    if (allocateChunks(2 * threads))
        startThreads(threads - 1);
    else
        m_chunkCount = 0; // the scan is slower without, but no less right
}

SearchAhead::~SearchAhead()
{
    {
        const std::lock_guard lock(m_mutex);
        m_stopped = true;
    }
    m_changed.notify_all();
    for (std::thread &thread : m_threads)
        thread.join();
}

bool SearchAhead::allocateChunks(std::size_t chunks)
{
    m_chunks = std::vector<Chunk>(chunks);
    for (Chunk &chunk : m_chunks) {
        chunk.found.reset(
            static_cast<Found *>(std::malloc(static_cast<std::size_t>(m_chunkSize) * sizeof(Found))));
        if (!chunk.found)
            return false;
    }
    return true;
}

// A system out of threads leaves more to the owner's one.
void SearchAhead::startThreads(unsigned count)
{
    try {
        for (unsigned i = 0; i < count && i + 1 < m_chunkCount; ++i)
            m_threads.emplace_back([this] { work(); });
    } catch (const std::system_error &) {
    }
}

void SearchAhead::work()
{
    std::unique_lock lock(m_mutex);
    while (!m_stopped && m_next < m_chunkCount)
        advance(lock);
}

// Walks through the next chunk; where there is none to take, waits for a change.
void SearchAhead::advance(std::unique_lock<std::mutex> &lock)
{
    Chunk *const chunk = take();
    if (!chunk) {
        m_changed.wait(lock);
        return;
    }
    lock.unlock();
    walkThrough(*chunk);
    lock.lock();
    chunk->done = true;
    m_changed.notify_all();
}

// The next chunk to walk through, if there is room for its matches; the mutex is held.
SearchAhead::Chunk *SearchAhead::take()
{
    const auto room = static_cast<Index>(m_chunks.size());
    if (m_next >= m_chunkCount || m_next >= std::max<Index>(m_current, 0) + room)
        return nullptr;
    Chunk &chunk = m_chunks[static_cast<std::size_t>(m_next % room)];
    if (chunk.number >= 0 && !chunk.done)
        return nullptr; // one that the scan jumped over is still being walked through
    chunk.number = m_next++;
    chunk.done = false;
    chunk.count = 0;
    return &chunk;
}

void SearchAhead::walkThrough(Chunk &chunk) const
{
    const Index start = chunk.number * m_chunkSize;
    const Index end = std::min(start + m_chunkSize, static_cast<Index>(m_new.size()));
    const auto nowhere = static_cast<Index>(m_old.size());
    Lookahead lookahead(m_search, end, m_reach);
    ScanWalk walk(m_old, m_new, start, end, nowhere);
    const auto findAndKeep = [&](Index scan) {
        const Match match = lookahead(scan);
        if (match.position != Match::BeyondReach)
            chunk.found[chunk.count++] = {static_cast<std::uint32_t>(scan),
                                          static_cast<std::uint32_t>(match.length),
                                          static_cast<std::uint32_t>(match.position)};
        return match;
    };
    while (!walk.isAtEnd()) {
        if (walk.findMatch(findAndKeep))
            walk.takeMatch();
    }
}

// Makes the chunk the current one as soon as it is done.
void SearchAhead::enter(Index number)
{
    std::unique_lock lock(m_mutex);
    m_current = number;
    m_next = std::max(m_next, number);
    m_cursor = 0;
    m_changed.notify_all();
    const Chunk &wanted = m_chunks[static_cast<std::size_t>(number) % m_chunks.size()];
    while (wanted.number != number || !wanted.done)
        advance(lock);
    m_currentChunk = &wanted;
    m_currentEnd = (number + 1) * m_chunkSize;
}

std::optional<Match> SearchAhead::at(Index scan)
{
    if (scan >= m_currentEnd) {
        const Index number = scan / m_chunkSize;
        if (number >= m_chunkCount)
            return std::nullopt;
        enter(number);
    }
    const Chunk &chunk = *m_currentChunk;
    const Found *const found = chunk.found.get();
    while (m_cursor < chunk.count && found[m_cursor].scan < scan)
        ++m_cursor;
    if (m_cursor == chunk.count || found[m_cursor].scan != scan)
        return std::nullopt;
    return Match{found[m_cursor].length, found[m_cursor].position};
}

} // namespace zel

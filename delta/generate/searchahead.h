// Searches that are made before the scan asks for them, on all processors.
#pragma once

#include "delta/owned.h"
#include "suffixsearch.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace zel {

/// What a search finds depends on its place alone, but which places are searched on all that the scan has seen
/// before. So the new file is cut into chunks, and threads walk through them ahead of the scan as if each
/// began with its chunk: they soon come upon the same matches, and from there on they search where the scan
/// will. A place that they did not think of is left to the scan. Timing never shows in a result.
///
/// It belongs to one thread, which lends a hand while it waits. Memory: 1.5 MiB for each processor, of at most
/// eight.
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
        std::unique_ptr<Found[], Free> found;
        std::size_t count = 0;
    };

    bool makeRoom(std::size_t chunks);
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

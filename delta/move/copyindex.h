// Where places of the old file are in the new one.
#pragma once

#include "moveformat.h"

#include <vector>

namespace zel {

/// Answers from the copies of a delta how far a place moved. Where several copies hold it, the longest
/// counts, of equally long ones the first in the new file. A place that none holds moved as the copy behind
/// it did, if that begins within 16 bytes (a place in front of a function belongs to it), or else as the
/// copy before it.
class CopyIndex
{
public:
    /// The copies' old parts lie in a file of `oldSize` bytes. Memory: 16 bytes per copy and one byte per 64
    /// old ones, and while it is made another 8 bytes per copy. Throws std::bad_alloc.
    CopyIndex(const std::vector<MovedCopy> &copies, std::uint64_t oldSize);

    /// From old to new; nothing when there are no copies. `place` may be the file's end. Quickest for places
    /// near the last one that was asked for.
    std::optional<std::int64_t> shiftAt(std::uint64_t place);

private:
    // A stretch of the old file up to where the next one begins.
    struct Stretch {
        std::uint32_t start;
        std::int32_t shift; // or NoCopy, which is none that files allow

        static constexpr std::int32_t NoCopy = INT32_MIN;
    };

    void append(std::uint32_t start, std::int32_t shift);

    std::vector<Stretch> m_stretches;
    std::vector<std::uint32_t> m_first; // of each block of the old file: the stretch that its start lies in
    std::optional<std::size_t> m_last; // stretch that an answer came from; it has a copy, and one behind it
};

} // namespace zel

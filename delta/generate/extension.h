// How far a match goes on when a part of its bytes may differ. The old and new bytes are given by the places in
// their files where the counting starts; all ties go to the shorter length.
#pragma once

#include "agreement.h"

namespace zel {

class Extension
{
public:
    /// Both files and `repeats`, which is asked about them, belong to the caller.
    Extension(std::span<const unsigned char> oldBytes, std::span<const unsigned char> newBytes,
              Repeats &repeats)
        : m_old(oldBytes.data())
        , m_new(newBytes.data())
        , m_repeats(repeats)
    {
    }

    /// The length up to `limit` with the greatest surplus of equal over other bytes; 0 unless there is one.
    std::int64_t forward(std::int64_t oldStart, std::int64_t newStart, std::int64_t limit) const;

    /// As `forward`, of the bytes before the places.
    std::int64_t backward(std::int64_t oldStart, std::int64_t newStart, std::int64_t limit) const;

    /// How many of the first of `count` new bytes to take from the old bytes at `first` instead of those at
    /// `second`, so that the most bytes are equal.
    std::int64_t shareOfFirst(std::int64_t newStart, std::int64_t first, std::int64_t second,
                              std::int64_t count) const;

private:
    enum class Direction { Forward, Backward };
    template <Direction direction>
    std::int64_t extend(std::int64_t oldStart, std::int64_t newStart, std::int64_t limit) const;

    const unsigned char *m_old;
    const unsigned char *m_new;
    Repeats &m_repeats;
};

} // namespace zel

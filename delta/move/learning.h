// What a model of references learns on its way through the new file. Both tables have a size that is known
// from the start and forget where two of their entries meet, so that nothing a delta says makes them slow.
#pragma once

#include "delta/owned.h"

#include <cstdint>
#include <cstdlib>
#include <new>
#include <optional>
#include <vector>

namespace zel {

/// What became of the targets that were predicted wrongly. Places are counted from the image's lowest
/// address.
class LearnedTargets
{
public:
    // Memory that is only touched where something is learned: most deltas learn little.
    LearnedTargets()
        : m_isUsed(std::size_t(1) << SlotBits)
        , m_slots(static_cast<Slot *>(std::calloc(std::size_t(1) << SlotBits, sizeof(Slot))))
    {
        if (!m_slots)
            throw std::bad_alloc();
    }

    std::optional<std::uint32_t> find(std::uint32_t target) const
    {
        const std::size_t slot = slotOf(target);
        if (!m_isUsed[slot] || m_slots[slot].target != target || target == 0)
            return std::nullopt;
        return m_slots[slot].actual;
    }

    void insert(std::uint32_t target, std::uint32_t actual)
    {
        const std::size_t slot = slotOf(target);
        m_isUsed[slot] = true;
        m_slots[slot] = {target, actual};
    }

private:
    struct Slot {
        std::uint32_t target;
        std::uint32_t actual;
    };

    static constexpr unsigned SlotBits = 19;

    static std::size_t slotOf(std::uint32_t target) { return target * 0x9E3779B1u >> (32 - SlotBits); }

    std::vector<bool> m_isUsed; // fits into the nearest cache; few are
    const Array<Slot> m_slots;
};

/// By how much words changed lately whose values are near each other. Offsets into one table grow alike when
/// something is put into it, whatever they count from.
class Drift
{
public:
    Drift()
        : m_shifts(Buckets, Unknown)
    {
    }

    static bool isPlace(std::uint32_t word) { return word >> BucketBits != 0; }

    std::uint32_t predict(std::uint32_t word) const
    {
        const std::uint32_t bucket = word >> BucketBits;
        const std::int32_t own = m_shifts[bucket % Buckets];
        const std::int32_t shift = own != Unknown ? own : m_shifts[(bucket - 1) % Buckets];
        return shift == Unknown ? word : word + static_cast<std::uint32_t>(shift);
    }

    void learn(std::uint32_t word, std::uint32_t actual)
    {
        const auto shift = static_cast<std::int32_t>(actual - word);
        if (shift > -Most && shift < Most)
            m_shifts[(word >> BucketBits) % Buckets] = shift;
    }

private:
    static constexpr unsigned BucketBits = 10;
    static constexpr std::uint32_t Buckets = 1 << 16;
    static constexpr std::int32_t Unknown = INT32_MIN;
    static constexpr std::int32_t Most = 1 << 20; // what changes by more is no offset

    std::vector<std::int32_t> m_shifts;
};

} // namespace zel

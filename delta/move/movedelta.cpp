#include "movedelta.h"

#include "moveformat.h"
#include "references.h"

#include <algorithm>
#include <cstring>

namespace zel {

namespace {

// Adds the corrections to the copied bytes that they are for.
class Corrections : public Settler
{
public:
    Corrections(const MoveDelta &delta, unsigned char *newFile)
        : m_copies(delta.copies)
        , m_reader(delta.corrections)
        , m_newFile(newFile)
    {
        if (!m_copies.empty())
            m_next = m_copies.front().newStart;
        skipToNext(0);
    }

    // Once all copies have been settled.
    bool areUsedUp() const { return m_isDone && m_reader.isAtEnd() && m_reader.isIntact(); }

private:
    void settleUpTo(std::uint32_t newEnd) override
    {
        while (m_next < newEnd) {
            m_newFile[m_next] = static_cast<unsigned char>(m_newFile[m_next] + m_reader.byte());
            skipToNext(1);
        }
    }

    // Passes over `done` bytes and as many more as stand.
    void skipToNext(std::uint64_t done)
    {
        if (m_reader.isAtEnd()) {
            m_isDone = true;
            m_next = UINT32_MAX;
            return;
        }
        std::uint64_t count = m_reader.number();
        count += std::min(done, ~count);
        for (; m_copy < m_copies.size(); ++m_copy, m_next = nextStart()) {
            const std::uint64_t left = m_copies[m_copy].newEnd() - m_next;
            if (count < left) {
                m_next += static_cast<std::uint32_t>(count);
                return;
            }
            count -= left;
        }
        m_next = UINT32_MAX; // beyond all copies: never used up
    }

    std::uint32_t nextStart() const
    {
        return m_copy < m_copies.size() ? m_copies[m_copy].newStart : UINT32_MAX;
    }

    const std::vector<MovedCopy> &m_copies;
    NumberReader m_reader;
    unsigned char *const m_newFile;
    std::size_t m_copy = 0; // that the next correction is in
    bool m_isDone = false;
};

// What the copies leave of the new file.
void insert(const MoveDelta &delta, std::span<unsigned char> newBytes)
{
    std::span<const unsigned char> inserts = delta.inserts;
    std::size_t at = 0;
    const auto insertUpTo = [&](std::size_t end) {
        std::ranges::copy(inserts.first(end - at), newBytes.data() + at);
        inserts = inserts.subspan(end - at);
    };
    for (const MovedCopy &copy : delta.copies) {
        insertUpTo(copy.newStart);
        at = copy.newEnd();
    }
    insertUpTo(newBytes.size());
}

void computeHashes(const PageHashes &hashes, std::span<unsigned char> newBytes, const PageHasher &hasher)
{
    std::uint64_t start = hashes.start;
    for (std::uint64_t i = 0; i < hashes.count(); ++i, start += hashes.pageSize) {
        const std::uint64_t size = std::min(hashes.pageSize, hashes.end - start);
        hasher(newBytes.subspan(static_cast<std::size_t>(start), static_cast<std::size_t>(size)),
               newBytes.data() + hashes.table + i * PageHashSize);
    }
}

} // namespace

bool isMoveDelta(std::span<const unsigned char> delta)
{
    return delta.size() >= MoveDeltaMark.size()
        && std::ranges::equal(delta.first(MoveDeltaMark.size()), MoveDeltaMark);
}

std::optional<std::uint64_t> moveDeltaNewSize(std::span<const unsigned char> delta)
{
    if (!isMoveDelta(delta))
        return std::nullopt;
    NumberReader reader(delta.subspan(MoveDeltaMark.size()));
    reader.number(); // the old file's size
    const std::uint64_t size = reader.number();
    return reader.isIntact() && size <= LargestMoveFile ? std::optional(size) : std::nullopt;
}

bool applyMoveDelta(std::span<const unsigned char> oldBytes, std::span<const unsigned char> bytes,
                    std::span<unsigned char> newBytes, const PageHasher &hasher)
{
    const std::optional<MoveDelta> delta = readMoveDelta(bytes);
    if (!delta || delta->oldSize != oldBytes.size() || delta->newSize != newBytes.size())
        return false;
    ReferenceModel model(oldBytes, delta->images, delta->copies);
    Corrections corrections(*delta, newBytes.data());
    for (const MovedCopy &copy : delta->copies)
        model.rebuild(copy, newBytes.data(), corrections);
    if (!corrections.areUsedUp())
        return false;
    insert(*delta, newBytes);
    for (const PageHashes &hashes : delta->pageHashes)
        computeHashes(hashes, newBytes, hasher);
    return true;
}

} // namespace zel

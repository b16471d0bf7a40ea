// Going through x86-64 code.
#pragma once

#include "x86.h"

#include <algorithm>
#include <cstddef>
#include <span>
#include <vector>

namespace zel {

/// Walks through a range's instructions, each of which begins where the one before it ends, so that all hang
/// on the first. Of each block of the range it keeps where its first instruction begins, to go on from there;
/// copies come nearly in the old file's order, so that hardly any instruction is decoded twice.
class InstructionWalk
{
public:
    explicit InstructionWalk(std::span<const unsigned char> code)
        : m_code(code)
        , m_starts((code.size() >> BlockBits) + 1, Unknown)
    {
    }

    // To the first instruction that begins at `from` or behind it.
    void seek(std::size_t from)
    {
        if (from < m_at || from - m_at > BlockSize) {
            std::size_t block = std::min(from, m_known) >> BlockBits;
            while (block > 0 && (m_starts[block] == Unknown || startOf(block) > from))
                --block;
            m_at = m_starts[block] == Unknown ? 0 : startOf(block);
        }
        while (m_at < from && m_at < m_code.size())
            next();
    }

    std::size_t at() const { return m_at; }

    // The instruction at hand, which is passed.
    x86::Instruction next()
    {
        if (m_at >= m_known) {
            unsigned char &start = m_starts[m_at >> BlockBits];
            if (start == Unknown)
                start = static_cast<unsigned char>(m_at % BlockSize);
        }
        const x86::Instruction instruction = x86::decode(m_code.subspan(m_at));
        m_at += instruction.length;
        m_known = std::max(m_known, m_at);
        return instruction;
    }

private:
    static constexpr unsigned BlockBits = 7;
    static constexpr std::size_t BlockSize = 1 << BlockBits; // every block has an instruction's beginning
    static constexpr unsigned char Unknown = 0xFF;

    std::size_t startOf(std::size_t block) const { return block << BlockBits | m_starts[block]; }

    std::span<const unsigned char> m_code;
    std::vector<unsigned char> m_starts;
    std::size_t m_at = 0; // an instruction's beginning, or the end
    std::size_t m_known = 0; // all beginnings before it have been seen
};

} // namespace zel

// Inputs read as the numbers that something is put together from, so that a seed can be written by hand.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace zel {

/// Gives one number after the other, of as many bytes each as its greatest value needs; the end counts as
/// zeros.
class Numbers
{
public:
    explicit Numbers(std::span<const unsigned char> bytes)
        : m_bytes(bytes)
    {
    }

    std::uint32_t operator()(std::uint32_t most)
    {
        std::uint64_t number = byte();
        for (std::uint64_t reach = 256; reach <= most; reach <<= 8)
            number = number << 8 | byte();
        return static_cast<std::uint32_t>(number % (std::uint64_t(most) + 1));
    }

    std::span<const unsigned char> rest() const { return m_bytes; }

private:
    unsigned char byte()
    {
        if (m_bytes.empty())
            return 0;
        const unsigned char first = m_bytes.front();
        m_bytes = m_bytes.subspan(1);
        return first;
    }

    std::span<const unsigned char> m_bytes;
};

} // namespace zel

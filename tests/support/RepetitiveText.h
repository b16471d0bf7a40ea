// Texts that repeat themselves in all the ways that short cuts may trip over.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

namespace zel {

/// Puts a text together from what `pick(most)`, a number from 0 to `most`, decides: bytes of a small or a
/// large alphabet, runs of a period with a rest of it, runs of runs, repeats of its own end, and pieces of
/// itself and of `source`.
template <typename Pick> class RepetitiveText
{
public:
    RepetitiveText(Pick &pick, const std::string &source)
        : m_pick(pick)
        , m_source(source)
    {
    }

    std::string make()
    {
        constexpr std::size_t limits[] = {100, 400, 1500, 6000, 24'000};
        constexpr int alphabets[] = {2, 256};
        m_alphabet = alphabets[m_pick(1)];
        m_limit = limits[m_pick(4)];
        for (auto pieces = m_pick(12) + 1; pieces > 0 && m_text.size() < m_limit; --pieces)
            m_text += piece();
        m_text.resize(std::min(m_text.size(), m_limit));
        return m_text;
    }

private:
    std::string piece()
    {
        switch (m_pick(6)) {
        case 0:
            return bytes(1 + m_pick(39));
        case 1:
            return bytes(1 + m_pick(255));
        case 2:
            return run(bytes(1 + m_pick(69)));
        case 3:
            return run(run(bytes(1 + m_pick(7))).substr(0, 250) + bytes(m_pick(3)));
        case 4:
            return run(m_text.substr(m_text.size() - std::min<std::size_t>(m_text.size(), 1 + m_pick(69))));
        case 5:
            return pieceOf(m_text);
        default:
            return pieceOf(m_source);
        }
    }

    std::string bytes(std::size_t count)
    {
        std::uint32_t state = std::uint32_t(m_pick(255));
        std::string made(count, '\0');
        for (char &byte : made) {
            state = state * 1664525 + 1013904223;
            byte = char((state >> 24) % unsigned(m_alphabet));
        }
        return made;
    }

    /// A few or many times, and a part of it behind.
    std::string run(const std::string &block)
    {
        if (block.empty())
            return {};
        const std::size_t times = m_pick(1) ? m_pick(3) : m_pick(255);
        const std::size_t whole = std::min(block.size() * times, m_limit / block.size() * block.size());
        std::string made;
        while (made.size() < whole)
            made += block;
        return made + block.substr(0, m_pick(std::uint32_t(std::min<std::size_t>(block.size(), 255))));
    }

    std::string pieceOf(const std::string &text)
    {
        const std::size_t at = text.size() * m_pick(255) / 255;
        const std::size_t shift = m_pick(70);
        const std::size_t length = m_pick(1) ? m_pick(255) : text.size() * (1 + m_pick(15)) / 16;
        return text.substr(at - std::min(at, shift), length);
    }

    Pick &m_pick;
    const std::string &m_source;
    std::string m_text;
    std::size_t m_limit = 0;
    int m_alphabet = 2;
};

template <typename Pick> std::string repetitiveText(Pick &pick, const std::string &source = {})
{
    return RepetitiveText<Pick>(pick, source).make();
}

} // namespace zel

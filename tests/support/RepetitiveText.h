// Texts that repeat themselves in all the ways that short cuts may trip over.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

namespace zel {

/// Puts a text together from what `pick(most)`, a number from 0 to `most`, decides: bytes of a small or a
/// large alphabet, runs of a period with a rest of it, runs of runs, repeats of its own end, and pieces of
/// itself and of `source`.
template <typename Pick> struct RepetitiveText {
    Pick &pick;
    const std::string &source;
    std::string text = {};
    std::size_t limit = 0;
    int alphabet = 2;

    std::string make()
    {
        constexpr std::size_t limits[] = {100, 400, 1500, 6000, 24'000};
        constexpr int alphabets[] = {2, 256};
        alphabet = alphabets[pick(1)];
        limit = limits[pick(4)];
        for (auto pieces = pick(12) + 1; pieces > 0 && text.size() < limit; --pieces)
            text += piece();
        text.resize(std::min(text.size(), limit));
        return text;
    }

    std::string piece()
    {
        switch (pick(6)) {
        case 0:
            return bytes(1 + pick(39));
        case 1:
            return bytes(1 + pick(255));
        case 2:
            return run(bytes(1 + pick(69)));
        case 3:
            return run(run(bytes(1 + pick(7))).substr(0, 250) + bytes(pick(3)));
        case 4:
            return run(text.substr(text.size() - std::min<std::size_t>(text.size(), 1 + pick(69))));
        case 5:
            return pieceOf(text);
        default:
            return pieceOf(source);
        }
    }

    std::string bytes(std::size_t count)
    {
        std::uint32_t state = std::uint32_t(pick(255));
        std::string made(count, '\0');
        for (char &byte : made) {
            state = state * 1664525 + 1013904223;
            byte = char((state >> 24) % unsigned(alphabet));
        }
        return made;
    }

    /// A few or many times, and a part of it behind.
    std::string run(const std::string &block)
    {
        if (block.empty())
            return {};
        const std::size_t times = pick(1) ? pick(3) : pick(255);
        const std::size_t whole = std::min(block.size() * times, limit / block.size() * block.size());
        std::string made;
        while (made.size() < whole)
            made += block;
        return made + block.substr(0, pick(std::uint32_t(std::min<std::size_t>(block.size(), 255))));
    }

    std::string pieceOf(const std::string &whole)
    {
        const std::size_t at = whole.size() * pick(255) / 255;
        const std::size_t shift = pick(70);
        const std::size_t length = pick(1) ? pick(255) : whole.size() * (1 + pick(15)) / 16;
        return whole.substr(at - std::min(at, shift), length);
    }
};

template <typename Pick> std::string repetitiveText(Pick &pick, const std::string &source = {})
{
    return RepetitiveText<Pick>{pick, source}.make();
}

} // namespace zel

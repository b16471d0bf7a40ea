// The text is decoded here, strictly: what is not the one well-formed way to write a character is replaced
// byte by byte. A lenient reader, as many terminals are, would see a control character in an overlong form
// that a lenient decoder had let through. The archive tool, which names a stranger's files, has no decoder to
// borrow.
#include "SafeText.h"

namespace zel {

namespace {

constexpr char32_t Invalid = 0xffffffff;

struct Character {
    char32_t value;
    std::size_t bytes;
};

// The text is not empty. What is no character, overlong forms and surrogates among them, is one byte long.
Character firstOf(std::string_view text)
{
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80)
        return {lead, 1};
    const std::size_t bytes = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < bytes)
        return {Invalid, 1};
    char32_t value = lead & (0x7fU >> bytes);
    for (std::size_t i = 1; i < bytes; ++i) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xc0) != 0x80)
            return {Invalid, 1};
        value = value << 6 | (next & 0x3fU);
    }
    constexpr char32_t least[] = {0x80, 0x800, 0x10000};
    const bool surrogate = value >= 0xd800 && value <= 0xdfff;
    if (value < least[bytes - 2] || surrogate || value > 0x10ffff)
        return {Invalid, 1};
    return {value, bytes};
}

bool isSafe(char32_t c)
{
    const auto within = [c](char32_t first, char32_t last) { return c >= first && c <= last; };
    const bool control = c < 0x20 || within(0x7f, 0x9f);
    const bool separator = within(0x2028, 0x2029);
    const bool direction =
        c == 0x61c || within(0x200e, 0x200f) || within(0x202a, 0x202e) || within(0x2066, 0x2069);
    return c != Invalid && !control && !separator && !direction;
}

} // namespace

std::string safeText(std::string_view text, std::size_t longest)
{
    std::string safe;
    while (!text.empty()) {
        if (longest-- == 0)
            return safe + "\u2026";
        const Character character = firstOf(text);
        safe += isSafe(character.value) ? text.substr(0, character.bytes) : std::string_view("\ufffd");
        text.remove_prefix(character.bytes);
    }
    return safe;
}

} // namespace zel

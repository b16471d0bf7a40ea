// Texts that others chose, made safe to show.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zel {

/// A text of a feed, a manifest, an archive or a bundle, for a terminal or a log: one line, which can neither
/// steer the terminal nor show itself in another order than it stands. U+FFFD takes the place of what could:
/// control characters (those above U+007F too), line and paragraph separators, marks that turn the direction
/// of writing, and each byte that is not UTF-8. A text longer than `longest` characters is cut there and ends
/// in "…".
std::string safeText(std::string_view text, std::size_t longest = std::string_view::npos);

} // namespace zel

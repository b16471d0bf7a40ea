#include "Problem.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace zel {

static std::string reason()
{
    return std::generic_category().message(errno);
}

static std::string printable(std::string_view name)
{
    constexpr size_t longest = 200;
    std::string shown(name.substr(0, longest));
    std::replace_if(
        shown.begin(), shown.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    return name.size() > longest ? shown + "..." : shown;
}

Problem systemProblem(std::string_view what)
{
    return std::string(what) + ": " + reason();
}

Problem entryProblem(std::string_view name, std::string_view what)
{
    return "entry '" + printable(name) + "' " + std::string(what);
}

Problem entrySystemProblem(std::string_view name, std::string_view what)
{
    return "entry '" + printable(name) + "' " + std::string(what) + ": " + reason();
}

} // namespace zel

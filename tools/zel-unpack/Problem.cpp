#include "Problem.h"

#include "base/SafeText.h"

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
    return safeText(name, longest);
}

Problem tooLittleMemory()
{
    return "there is too little memory";
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

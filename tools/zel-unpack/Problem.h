// Why an extraction cannot go on, in words for a person.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zel {

using Problem = std::optional<std::string>; ///< nothing: all is well

/// What is said when memory is exhausted: the one problem that is met as an exception.
Problem tooLittleMemory();

/// "what: why", the reason taken from `errno`, which must still be that of the failed call.
Problem systemProblem(std::string_view what);

/// "entry 'name' what". The name is made fit for one line of a terminal: it comes from the archive.
Problem entryProblem(std::string_view name, std::string_view what);

/// What could not be done to an entry, and the reason from `errno`.
Problem entrySystemProblem(std::string_view name, std::string_view what);

} // namespace zel

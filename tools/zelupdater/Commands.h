// The list of commands. Each group has a file of its name; main.cpp puts them together.
#pragma once

#include "Arguments.h"

#include <vector>

namespace zel::tool {

std::vector<ToolCommand> deltaCommands(); // diff, patch, md5
std::vector<ToolCommand> patchCommands(); // make-patch, apply-patch, test-patch, inspect-patch
std::vector<ToolCommand> publishCommands(); // sign, verify, release, refresh, serve
std::vector<ToolCommand> updateCommands(); // check, update

} // namespace zel::tool

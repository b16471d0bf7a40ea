// What a program looks like when nothing has moved: for the search of what two builds share.
#pragma once

#include "programimage.h"

#include <span>
#include <utility>
#include <vector>

namespace zel {

/// Both files with their references left out: distances in instructions become zeros, and places in sorted
/// tables become differences to the row before. Two builds of a function then differ only where it was
/// changed, and the search finds it in one piece wherever it went; so with tables of functions. The programs
/// are those in the files. Throws std::bad_alloc.
std::pair<std::vector<unsigned char>, std::vector<unsigned char>>
maskReferences(std::span<const unsigned char> oldBytes, const std::vector<ProgramImage> &before,
               std::span<const unsigned char> newBytes, const std::vector<ProgramImage> &after);

} // namespace zel

// The names of an archive, to find those that meet in one place.
#pragma once

#include "Problem.h"

#include <cstdint>
#include <unordered_map>

namespace zel {

/// Names are kept as 64-bit hashes, to hold 100'000 of them in little memory: names that collide are taken for
/// equal, and so a collision can refuse an archive but never let one through. Case is folded as the process's
/// locale does it, which must be a UTF-8 one; bytes that are no UTF-8 stand for themselves.
class SeenNames
{
public:
    /// Adds a name and the folders above it. A problem: the name is there already, in any case; a folder above it
    /// is written in other case elsewhere; a folder above it is no folder; there are too many names.
    Problem add(std::string_view name, bool folder);

private:
    struct Place {
        uint64_t exact; // hash of the name as it is written
        bool folder;
        bool listed; // not only implied by a name below it
    };

    Problem addPlace(std::string_view name, uint64_t folded, const Place &place);

    std::unordered_map<uint64_t, Place> m_places; // by the hash of the folded name
};

} // namespace zel

// Paths that try to leave a sandbox.
#pragma once

#include "Sandbox.h"

#include <fuzzer/FuzzedDataProvider.h>

namespace zel {

/// Names that lead up, out, nowhere, into each other or to what a sandbox holds: random text would hardly
/// ever hit upon one.
inline std::string hostilePath(FuzzedDataProvider &input, const Sandbox &sandbox)
{
    const std::string root = sandbox.path("").string();
    const std::string names[] = {root,   "..",     ".",   "",     "canary", "beside", "file",
                                 "link", "folder", "out", "self", "New",    "NEW"};
    std::string path = input.PickValueInArray(names);
    for (auto more = input.ConsumeIntegralInRange(0, 4); more > 0; --more)
        path += '/' + input.PickValueInArray(names);
    return input.ConsumeIntegralInRange(0, 15) == 0 ? input.ConsumeRandomLengthString(20) : path;
}

} // namespace zel

// Any bytes as a delta: a byte that says how long the old file is, the old file, the delta.
#include "delta/bspatch2.h"
#include "Sandbox.h"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    static const zel::Sandbox sandbox;
    static const auto oldPath = sandbox.path("old"), newPath = sandbox.path("new");
    if (size == 0)
        return 0;
    const std::size_t oldSize = std::min<std::size_t>(data[0], size - 1);
    zel::Sandbox::write(oldPath, zel::textOf(data + 1, oldSize));
    std::filesystem::remove(newPath);
    const int result = bspatch2(oldPath, newPath, std::as_bytes(std::span(data, size).subspan(1 + oldSize)));
    zel::require(std::filesystem::exists(newPath) == (result == 0));
    return 0;
}

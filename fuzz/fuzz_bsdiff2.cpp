// Any two files: the delta between them, compacted or not, makes the one of the other.
#include "bsdiff2.h"
#include "bspatch2.h"
#include "compactdelta.h"
#include "Sandbox.h"

#include <fuzzer/FuzzedDataProvider.h>

namespace {

/// Other bytes, and pieces of `source` and of the text itself: without them there is nothing to find. The sizes are
/// such that each way of searching gets its share.
std::string textFrom(FuzzedDataProvider input, const std::string &source)
{
    constexpr std::size_t limits[] = {1 << 8, 1 << 11, 1 << 13, 1 << 15, 1 << 17};
    const std::size_t limit = input.PickValueInArray(limits);
    std::string text;
    while (input.remaining_bytes() > 0 && text.size() < limit) {
        text += input.ConsumeRandomLengthString(40);
        const std::string &from = input.ConsumeBool() ? text : source;
        const auto at = input.ConsumeIntegralInRange<std::size_t>(0, from.size());
        text += from.substr(at, input.ConsumeIntegralInRange<std::size_t>(0, limit / 4));
    }
    return text;
}

std::span<const unsigned char> bytesOf(const auto &bytes)
{
    return {reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size()};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    static const zel::Sandbox sandbox;
    static const auto oldPath = sandbox.path("old"), newPath = sandbox.path("new"),
                      rebuilt = sandbox.path("rebuilt");
    const std::string oldBytes = textFrom({data, size / 2}, {});
    const std::string newBytes = textFrom({data + size / 2, size - size / 2}, oldBytes);
    zel::Sandbox::write(oldPath, oldBytes);
    zel::Sandbox::write(newPath, newBytes);
    const auto delta = bsdiff2(oldPath, newPath);
    zel::require(delta && bspatch2(oldPath, rebuilt, *delta) == 0);
    zel::require(zel::Sandbox::read(rebuilt) == newBytes);
    const auto compact = zel::compactDelta(bytesOf(oldBytes), bytesOf(newBytes), bytesOf(*delta));
    zel::require(compact && bspatch2(oldPath, rebuilt, *compact) == 0);
    zel::require(zel::Sandbox::read(rebuilt) == newBytes);
    return 0;
}

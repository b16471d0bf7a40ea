// Any two files, made up of shapes that repeat themselves: the delta between them has the plain scan's bytes,
// with the short cuts as they are or taken early, and makes the one of the other, compacted or not.
#include "delta/bspatch2.h"
#include "generate/bsdiff2.h"
#include "generate/compactdelta.h"
#include "Numbers.h"
#include "Sandbox.h"
#include "support/PlainScan.h"
#include "support/RepetitiveText.h"

namespace {

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
    zel::Numbers numbers({data, size});
    const std::string oldBytes = zel::repetitiveText(numbers);
    const std::string newBytes = zel::repetitiveText(numbers, oldBytes);
    zel::Sandbox::write(oldPath, oldBytes);
    zel::Sandbox::write(newPath, newBytes);

    zel::PlainScan plain(oldBytes, newBytes);
    const auto steps = plain.steps();
    zel::require(zel::realSteps(oldBytes, plain.suffixes(), newBytes, zel::EagerShortCuts) == steps);
    const auto delta = bsdiff2(oldPath, newPath);
    zel::require(delta
                 && std::ranges::equal(bytesOf(*delta), bytesOf(zel::deltaOf(steps, oldBytes, newBytes))));

    zel::require(bspatch2(oldPath, rebuilt, *delta) == 0 && zel::Sandbox::read(rebuilt) == newBytes);
    const auto compact = zel::compactDelta(bytesOf(oldBytes), bytesOf(newBytes), bytesOf(*delta));
    zel::require(compact && bspatch2(oldPath, rebuilt, *compact) == 0);
    zel::require(zel::Sandbox::read(rebuilt) == newBytes);
    return 0;
}

// Any move delta gives what the plain applier makes of it, or is refused by both: one that is put together to
// walk through references of all kinds, or bytes as they come.
#include "move/movedelta.h"
#include "Numbers.h"
#include "Sandbox.h"
#include "support/MoveSample.h"
#include "support/PlainMoveDelta.h"

namespace {

zel::MoveSample anyBytes(zel::Numbers &numbers)
{
    zel::MoveSample sample;
    const std::size_t oldSize = numbers(255);
    const auto bytes = numbers.rest();
    const auto old = bytes.first(std::min(oldSize, bytes.size()));
    sample.old.assign(old.begin(), old.end());
    const auto mark = std::as_bytes(std::span(zel::MoveDeltaMark));
    const auto delta = std::as_bytes(bytes.subspan(old.size()));
    sample.delta.assign(mark.begin(), mark.end());
    sample.delta.insert(sample.delta.end(), delta.begin(), delta.end());
    return sample;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    zel::Numbers numbers({data, size});
    const auto [old, bytes] = numbers(3) ? zel::MoveSampler(numbers).make() : anyBytes(numbers);
    const std::span delta(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size());
    const auto claimed = zel::moveDeltaNewSize(delta);
    // Beyond this a delta of such a size is not valid, and memory for its claim would be for nothing.
    constexpr std::uint64_t most = 1 << 24;
    std::vector<unsigned char> fresh(claimed && *claimed <= most ? *claimed : 0);
    const bool isApplied = zel::applyMoveDelta(old, delta, fresh, zel::sampleHash);
    const auto plain = zel::PlainMoveDelta::apply(old, delta, zel::sampleHash);
    zel::require(isApplied == plain.has_value() && (!isApplied || fresh == *plain));
    return 0;
}

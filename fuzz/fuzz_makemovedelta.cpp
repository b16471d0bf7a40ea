// A move delta between any two files makes the one of the other: between programs to which something was
// done, whose headers and the rest then are damaged, or between bytes as they come.
#include "generate/makemovedelta.h"
#include "Numbers.h"
#include "Sandbox.h"
#include "support/MoveSample.h"
#include "support/SampleProgram.h"

namespace {

using Bytes = std::vector<unsigned char>;

zel::SampleProgram anyProgram(zel::Numbers &numbers)
{
    zel::SampleProgram program;
    program.machine = zel::SampleReference::Machine(numbers(1));
    program.isMachO = numbers(3) != 0;
    program.signatures = numbers(3);
    program.pageBits = 7 + numbers(5);
    program.words = numbers(20);
    program.pointers = numbers(20);
    program.chained = numbers(20);
    program.smallSections = numbers(3);
    program.functions.resize(numbers(20));
    program.constants.resize(numbers(20));
    program.cleared.resize(numbers(20));
    for (const zel::SampleReference &reference : zel::SampleReferences) {
        if (reference.machine == program.machine && numbers(1))
            program.references.push_back(&reference);
    }
    return program;
}

void change(zel::SampleProgram &program, zel::Numbers &numbers)
{
    for (auto *parts : {&program.functions, &program.constants, &program.cleared}) {
        for (unsigned changes = numbers(3); changes > 0; --changes) {
            const auto at = parts->begin() + numbers(static_cast<std::uint32_t>(parts->size()));
            if (numbers(1))
                parts->insert(at, numbers(0xFFFF));
            else if (at != parts->end())
                parts->erase(at);
        }
    }
    program.base += 16 * numbers(0xFFFF);
}

void damage(Bytes &bytes, zel::Numbers &numbers)
{
    for (unsigned damages = numbers(10); damages > 0 && !bytes.empty(); --damages) {
        const bool isInHeader = numbers(1) != 0;
        const std::size_t reach = isInHeader ? std::min<std::size_t>(bytes.size(), 700) : bytes.size();
        const bool isFromEnd = !isInHeader && numbers(1) != 0;
        const std::size_t at = numbers(static_cast<std::uint32_t>(reach - 1));
        bytes[isFromEnd ? bytes.size() - 1 - at % 400 % bytes.size() : at] =
            static_cast<unsigned char>(numbers(255));
    }
}

std::pair<Bytes, Bytes> anyPrograms(zel::Numbers &numbers)
{
    std::vector<Bytes> before, after;
    for (unsigned images = 1 + numbers(1); images > 0; --images) {
        zel::SampleProgram program = anyProgram(numbers);
        before.push_back(zel::SampleLinker(program, zel::sampleHash).link());
        change(program, numbers);
        after.push_back(zel::SampleLinker(program, zel::sampleHash).link());
    }
    Bytes old = before.size() == 1 ? before[0] : zel::SampleLinker::universal(before);
    Bytes fresh = after.size() == 1 ? after[0] : zel::SampleLinker::universal(after);
    damage(old, numbers);
    damage(fresh, numbers);
    return {old, fresh};
}

std::pair<Bytes, Bytes> anyBytes(zel::Numbers &numbers)
{
    const std::size_t oldSize = numbers(2000);
    const auto bytes = numbers.rest();
    const auto old = bytes.first(std::min(oldSize, bytes.size()));
    const auto fresh = bytes.subspan(old.size());
    return {Bytes(old.begin(), old.end()), Bytes(fresh.begin(), fresh.end())};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    zel::Numbers numbers({data, size});
    const auto [old, fresh] = numbers(3) ? anyPrograms(numbers) : anyBytes(numbers);
    const auto delta = zel::makeMoveDelta(old, fresh, zel::sampleHash, {});
    zel::require(delta.has_value());
    Bytes rebuilt(fresh.size());
    const std::span bytes(reinterpret_cast<const unsigned char *>(delta->data()), delta->size());
    zel::require(zel::applyMoveDelta(old, bytes, rebuilt, zel::sampleHash) && rebuilt == fresh);
    return 0;
}

// The delta engine by itself, for systems and processors that the other tests do not run on: pairs of files
// that repeat themselves, and one of a size that needs several threads, give the plain scan's bytes and are
// rebuilt from them, and so do move deltas of any kind.
#include <ZELUpdater/bsdiff2.h>
#include <ZELUpdater/bspatch2.h>

#include "generate/makemovedelta.h"
#include "support/MoveSample.h"
#include "support/PlainMoveDelta.h"
#include "support/PlainScan.h"
#include "support/RepetitiveText.h"
#include "support/SampleProgram.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>

namespace {

using Path = std::filesystem::path;

[[noreturn]] void fail(const std::string &why)
{
    std::fprintf(stderr, "rebuild: %s\n", why.c_str());
    std::exit(1);
}

void write(const Path &path, const std::string &bytes)
{
    if (!std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size())))
        fail("cannot write " + path.string());
}

std::string read(const Path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void judgePair(const Path &folder, const std::string &old, const std::string &fresh, const std::string &name)
{
    write(folder / "old", old);
    write(folder / "new", fresh);
    const auto delta = bsdiff2(folder / "old", folder / "new");
    if (!delta)
        fail(name + ": no delta");
    const std::string plain = zel::deltaOf(zel::PlainScan(old, fresh).steps(), old, fresh);
    if (!std::ranges::equal(*delta, std::as_bytes(std::span(plain))))
        fail(name + ": the delta has other bytes than the plain scan's");
    if (bspatch2(folder / "old", folder / "built", *delta) != 0 || read(folder / "built") != fresh)
        fail(name + ": the new file was not rebuilt");
}

// A size beyond 32 bits must not become a small one, which the bytes would run over.
void judgeHugeClaim(const Path &folder)
{
    const std::string inserted(std::size_t(16) << 20, 'x');
    std::string delta(zel::DeltaMagic);
    const std::int64_t size = (std::int64_t(1) << 32) + 1;
    for (const std::int64_t value : {std::int64_t(24), std::int64_t(0), size, std::int64_t(0),
                                     std::int64_t(inserted.size()), std::int64_t(0)}) {
        const auto bytes = zel::encodeDeltaInteger(value);
        delta.append(bytes.begin(), bytes.end());
    }
    delta += inserted;
    write(folder / "old", "old");
    if (bspatch2(folder / "old", folder / "claimed", std::as_bytes(std::span(delta))) != -1)
        fail("a delta that claims more than it holds was taken");
}

std::span<const unsigned char> view(const std::vector<std::byte> &bytes)
{
    return {reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size()};
}

void judgeMoveDelta(const std::vector<unsigned char> &old, const std::vector<std::byte> &delta,
                    const std::optional<std::vector<unsigned char>> &expected, const std::string &name)
{
    std::vector<unsigned char> rebuilt(expected ? expected->size() : 0);
    if (zel::applyMoveDelta(old, view(delta), rebuilt, zel::sampleHash) != expected.has_value()
        || (expected && rebuilt != *expected))
        fail(name + ": the move delta gives something else");
}

template <typename Pick> void judgeMoveSample(Pick &pick, const std::string &name)
{
    const auto [old, delta] = zel::MoveSampler(pick).make();
    if (zel::moveDeltaNewSize(view(delta)).value_or(0) < 100'000)
        judgeMoveDelta(old, delta, zel::PlainMoveDelta::apply(old, view(delta), zel::sampleHash), name);
}

void judgePrograms(zel::SampleReference::Machine machine)
{
    zel::SampleProgram program;
    program.machine = machine;
    program.isMachO = true;
    program.signatures = 1;
    program.words = program.pointers = program.chained = 100;
    for (const zel::SampleReference &reference : zel::SampleReferences) {
        if (reference.machine == machine)
            program.references.push_back(&reference);
    }
    const auto old = zel::SampleLinker(program, zel::sampleHash).link();
    program.functions.insert(program.functions.begin() + 50, zel::SampleProgram::Unlike);
    const auto fresh = zel::SampleLinker(program, zel::sampleHash).link();
    const auto delta = zel::makeMoveDelta(old, fresh, zel::sampleHash, {});
    if (!delta)
        fail("programs: no move delta");
    judgeMoveDelta(old, *delta, fresh, "programs");
}

std::string randomText(std::mt19937 &random, std::size_t size)
{
    std::string text(size, '\0');
    for (char &byte : text)
        byte = char(random() % 20);
    return text;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc != 3)
        fail("usage: rebuild FOLDER PAIRS");
    const Path folder = argv[1];
    const unsigned pairs = unsigned(std::atoi(argv[2]));
    for (unsigned seed = 0; seed < pairs; ++seed) {
        std::mt19937 random(seed);
        const auto pick = [&random](std::uint32_t most) {
            return std::uint32_t(random() % (std::uint64_t(most) + 1));
        };
        const std::string old = zel::repetitiveText(pick);
        judgePair(folder, old, zel::repetitiveText(pick, old), "pair " + std::to_string(seed));
        judgeMoveSample(pick, "move delta " + std::to_string(seed));
    }
    std::mt19937 random(1);
    const std::string large = randomText(random, 300'000);
    judgePair(folder, large, large.substr(150'000) + randomText(random, 500) + large.substr(0, 180'000),
              "large pair");
    judgeHugeClaim(folder);
    judgePrograms(zel::SampleReference::Arm64);
    judgePrograms(zel::SampleReference::X86_64);
    std::printf("%u pairs rebuilt\n", pairs + 1);
}

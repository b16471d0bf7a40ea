// The inner loops of the delta engine, by themselves.
#include "generate/agreement.h"
#include "generate/sais.h"
#include "generate/scan.h"

#include <benchmark/benchmark.h>
#include <random>
#include <vector>

namespace {

std::vector<unsigned char> randomText(std::size_t size)
{
    std::mt19937 random(1);
    std::vector<unsigned char> text(size);
    for (unsigned char &byte : text)
        byte = static_cast<unsigned char>(random() % 64);
    return text;
}

void matchLength(benchmark::State &state)
{
    const auto text = randomText(static_cast<std::size_t>(state.range(0)));
    const auto same = text;
    for (auto _ : state)
        benchmark::DoNotOptimize(zel::matchLength(text.data(), same.data(), 0, state.range(0)));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(matchLength)->Arg(64)->Arg(4096);

void countEqual(benchmark::State &state)
{
    const auto text = randomText(static_cast<std::size_t>(state.range(0)) + 1);
    for (auto _ : state)
        benchmark::DoNotOptimize(zel::countEqual(text.data(), text.data() + 1, state.range(0)));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(countEqual)->Arg(64)->Arg(4096);

// Searches in flight at once, per search.
void searchTogether(benchmark::State &state)
{
    const auto text = randomText(std::size_t(1) << 24);
    const auto fresh = randomText((std::size_t(1) << 24) + (1 << 16));
    const auto size = static_cast<std::int64_t>(text.size());
    std::vector<std::int64_t> I(text.size() + 1, size);
    sais(text.data(), I.data() + 1, static_cast<int>(size));
    const auto unlike = std::span(fresh).last(1 << 16);
    const zel::SuffixSearch search(text, I.data(), unlike);
    std::vector<zel::Match> matches(static_cast<std::size_t>(state.range(0)));
    std::int64_t scan = 0;
    for (auto _ : state) {
        search.searchTogether(scan, 4096, matches);
        scan = (scan + state.range(0)) % 65'000;
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(searchTogether)->Arg(1)->Arg(8)->Arg(32);

} // namespace

BENCHMARK_MAIN();

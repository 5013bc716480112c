// The three clustering algorithms on a time-ordered data set, per hit.

#include <benchmark/benchmark.h>

#include "BenchData.hpp"

using namespace kavot_tpx3spidr;

static void FullChainDirect(benchmark::State& state) {
    const auto& data = benchdata::dataSet(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            reconstruct_photonEvents_fullChain_direct(data, benchdata::defaults).photonEvents.size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(FullChainDirect)->Arg(1 << 22)->Unit(benchmark::kMillisecond);

static void CheckNextOnly(benchmark::State& state) {
    const auto& data = benchdata::dataSet(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(reconstruct_photonEvents_checkNextOnly(data, benchdata::defaults).photonEvents.size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(CheckNextOnly)->Arg(1 << 22)->Unit(benchmark::kMillisecond);

static void ForwardChainPixelBuildup(benchmark::State& state) {
    const auto& data = benchdata::dataSet(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            reconstruct_photonEvents_forwardChain_pixelBuildup(data, benchdata::defaults).photonEvents.size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ForwardChainPixelBuildup)->Arg(1 << 22)->Unit(benchmark::kMillisecond);

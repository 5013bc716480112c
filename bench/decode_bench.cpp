// Decoding (both passes and the time order), per hit.

#include <benchmark/benchmark.h>

#include "BenchData.hpp"

using namespace kavot_tpx3spidr;

template <bool useGlobalTime>
static void Decode(benchmark::State& state) {
    const auto shape = static_cast<benchdata::Shape>(state.range(1));
    const auto& words = benchdata::recording(static_cast<std::size_t>(state.range(0)), shape).words;
    for (auto _ : state) {
        auto data = Data_Tpx3Spidr::make_from_data_tpx3spidr<useGlobalTime>(words.data(), words.size());
        benchmark::DoNotOptimize(data.size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Decode<true>)->ArgsProduct({{1 << 20, 1 << 23}, {0, 1, 2}})->Unit(benchmark::kMillisecond);
BENCHMARK(Decode<false>)->Args({1 << 20, 0})->Unit(benchmark::kMillisecond);

static void Census(benchmark::State& state) {
    const auto& words = benchdata::recording(static_cast<std::size_t>(state.range(0))).words;
    for (auto _ : state) {
        benchmark::DoNotOptimize(census_tpx3(words.data(), words.size()).pixelCount);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Census)->Arg(1 << 23)->Unit(benchmark::kMillisecond);

static void TimeOrder(benchmark::State& state) {
    const auto shape = static_cast<benchdata::Shape>(state.range(1));
    const auto& hits = benchdata::recording(static_cast<std::size_t>(state.range(0)), shape).hits;
    std::vector<PixelActivation> activations;
    for (const auto& hit : hits) {
        activations.emplace_back(static_cast<short>(hit.x), static_cast<short>(hit.y), Time(hit.toa_ticks), hit.tot);
    }
    if (shape == benchdata::Shape::reversed) {
        std::reverse(activations.begin(), activations.end());
    }
    for (auto _ : state) {
        auto copy = activations;
        order_byTime(copy);
        benchmark::DoNotOptimize(copy.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(TimeOrder)->ArgsProduct({{1 << 22}, {0, 2}})->Unit(benchmark::kMillisecond);

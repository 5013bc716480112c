// Reading a recording: the census, the blocks decoded and merged into time order, and the in-memory data set,
// per hit.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include "BenchData.hpp"
#include "Reconstruction_PhotonEvents.hpp"

using namespace kavot_tpx3spidr;

static void Census(benchmark::State& state) {
    const auto& file = benchdata::recordingFile(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(census_tpx3<true>(file.input()).pixelCount);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Census)->Arg(1 << 23)->Unit(benchmark::kMillisecond);

/// Every position released and read once, in order. Second argument: the shape (ordered, disordered,
/// reversed).
static void HitSource(benchmark::State& state) {
    const auto shape = static_cast<benchdata::Shape>(state.range(1));
    const auto& file = benchdata::recordingFile(static_cast<std::size_t>(state.range(0)), shape);
    const Tpx3Census census = census_tpx3<true>(file.input());
    for (auto _ : state) {
        Tpx3HitSource source(file.input(), census, Tpx3ScaleDecoding<true>(census));
        long sum = 0;
        for (std::size_t j = 0; source.has(j); ++j) {
            sum += source[j].get_toa().get_value();
            source.discardBefore(j);
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(HitSource)->ArgsProduct({{1 << 23}, {0, 1, 2}})->Unit(benchmark::kMillisecond);

struct CountingSink {
    using Record = PhotonEvent_type;
    std::size_t photons = 0;
    void push(const PhotonEvent_type& /*photon*/) { ++photons; }
};

/// Decoding and the default clustering as the program runs them, photons only counted.
static void HitSourceFullChain(benchmark::State& state) {
    const auto& file = benchdata::recordingFile(static_cast<std::size_t>(state.range(0)));
    const Tpx3Census census = census_tpx3<true>(file.input());
    for (auto _ : state) {
        Tpx3HitSource source(file.input(), census, Tpx3ScaleDecoding<true>(census));
        CountingSink sink;
        reconstruct_photonEvents_fullChain_direct(source, benchdata::defaults, sink);
        benchmark::DoNotOptimize(sink.photons);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(HitSourceFullChain)->Arg(1 << 23)->Unit(benchmark::kMillisecond);

/// The in-memory data set of the library (both passes and the time order).
static void DataSet(benchmark::State& state) {
    const auto shape = static_cast<benchdata::Shape>(state.range(1));
    const auto& words = benchdata::recording(static_cast<std::size_t>(state.range(0)), shape).words;
    for (auto _ : state) {
        auto data = Data_Tpx3Spidr::make_from_data_tpx3spidr<true>(words.data(), words.size());
        benchmark::DoNotOptimize(data.size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(DataSet)->ArgsProduct({{1 << 22}, {0, 2}})->Unit(benchmark::kMillisecond);

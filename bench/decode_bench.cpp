// Decoding (both passes and the time order), per hit.

#include <benchmark/benchmark.h>

#include "BenchData.hpp"
#include "Reconstruction_PhotonEvents.hpp"
#include "Tpx3HitStream.hpp"

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

struct CountingSink {
    std::size_t photons = 0;
    void push(const PhotonEvent_type& /*photon*/) { ++photons; }
};

/// The streaming decoder alone: every position released and read once, in order. Second argument 1: the
/// portable ordering only, where the processor would take the 512-bit one.
static void StreamDecode(benchmark::State& state) {
    const auto& generated = benchdata::recording(static_cast<std::size_t>(state.range(0)));
    const auto& words = generated.words;
    const Tpx3Census census = census_tpx3(words.data(), words.size());
    for (auto _ : state) {
        Tpx3HitStream<true> stream(words.data(), words.size(), census, 1L << 21);
        if (state.range(1) == 1) {
            stream.restrict_toPortableCode();
        }
        long sum = 0;
        for (std::size_t j = 0; stream.has(j); ++j) {
            sum += stream[j].get_toa().get_value();
            stream.discardBefore(j);
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(StreamDecode)->ArgsProduct({{1 << 23}, {0, 1}})->Unit(benchmark::kMillisecond);

/// Decoding and the default clustering as the streaming run does them, photons only counted; second argument
/// as for StreamDecode.
static void StreamFullChain(benchmark::State& state) {
    const auto& words = benchdata::recording(static_cast<std::size_t>(state.range(0))).words;
    const Tpx3Census census = census_tpx3(words.data(), words.size());
    for (auto _ : state) {
        Tpx3HitStream<true> stream(words.data(), words.size(), census, 1L << 21);
        CountingSink sink;
        NoClusterObserver observer;
        if (state.range(1) == 1) {
            stream.restrict_toPortableCode();
            detail::fullChain_direct_portable(stream, benchdata::defaults, sink, observer);
        } else {
            detail::fullChain_direct(stream, benchdata::defaults, sink, observer);
        }
        benchmark::DoNotOptimize(sink.photons);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(StreamFullChain)->ArgsProduct({{1 << 23}, {0, 1}})->Unit(benchmark::kMillisecond);

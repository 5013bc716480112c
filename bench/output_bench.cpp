// Writing the photon file and filling the image, per photon.

#include <cstdio>
#include <fstream>

#include <benchmark/benchmark.h>

#include "BenchData.hpp"
#include "Image_2D_Photons.hpp"
#include "PhotonEvents.hpp"

using namespace kavot_tpx3spidr;

static const PhotonResult& photons() {
    static const PhotonResult result =
        reconstruct_photonEvents_fullChain_direct(benchdata::dataSet(1 << 22), benchdata::defaults);
    return result;
}

static void WritePhotonFile(benchmark::State& state) {
    const auto& result = photons();
    const std::string path = "/tmp/vundrel_bench.kavotphot";
    for (auto _ : state) {
        std::vector<std::unique_ptr<PhotonFile::IO_Block>> blocks;
        blocks.push_back(std::make_unique<PhotonFile::IO_PhotonEvents>(result.photonEvents));
        std::ofstream stream(path, std::ios::out | std::ios::binary | std::ios::trunc);
        const PhotonFile::IO_File file(std::move(blocks));
        file.write(stream);
    }
    std::remove(path.c_str());
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(result.photonEvents.size()));
}
BENCHMARK(WritePhotonFile)->Unit(benchmark::kMillisecond);

static void FillImage(benchmark::State& state) {
    const auto& result = photons();
    for (auto _ : state) {
        Image_2D_Photons image(Image_2D_Photons::run_resolution);
        for (const auto& photon : result.photonEvents) {
            image.add_photonEvent<true>(photon);
        }
        benchmark::DoNotOptimize(image.get_counts().data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(result.photonEvents.size()));
}
BENCHMARK(FillImage)->Unit(benchmark::kMillisecond);

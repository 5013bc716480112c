// Writes the seed corpus of every fuzz target into DIR/<target>/, made with the project's own generator and
// writers. Usage: make_corpus DIR

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "PhotonEvents.hpp"
#include "Tpx3Generator.hpp"
#include "Units.hpp"

namespace {

using kavot_tpx3spidr::Length;
using kavot_tpx3spidr::PhotonFile;
using kavot_tpx3spidr::Time;

void write(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string bytesOf(const std::vector<std::uint64_t>& words) {
    return std::string(reinterpret_cast<const char*>(words.data()), words.size() * 8);
}

void photonFile(const std::filesystem::path& path, std::size_t photons, std::optional<std::size_t> triggers) {
    std::vector<PhotonFile::PhotonEvent_type> list;
    for (std::size_t i = 0; i < photons; ++i) {
        list.emplace_back(Length(static_cast<int>(i * 70001)), Length(-static_cast<int>(i)),
                          Time(static_cast<long>(i * i)));
    }
    std::vector<Time> times(triggers.value_or(0), Time(-5));
    std::vector<std::unique_ptr<PhotonFile::IO_Block>> blocks;
    blocks.push_back(std::make_unique<PhotonFile::IO_PhotonEvents>(list));
    if (triggers) {
        blocks.push_back(std::make_unique<PhotonFile::IO_ExtTriggers>(times));
    }
    std::ofstream stream(path, std::ios::binary);
    PhotonFile::IO_File(std::move(blocks)).write(stream);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: make_corpus DIR\n";
        return 1;
    }
    const std::filesystem::path dir = argv[1];
    for (const char* target : {"tpx3", "paramsFile", "kavotphot", "commandLine"}) {
        std::filesystem::create_directories(dir / target);
    }

    int n = 0;
    for (const bool reverse : {false, true}) {
        for (const double disorder : {0.0, 2e-7}) {
            tpx3gen::Settings settings;
            settings.hits = 60;
            settings.reverse = reverse;
            settings.disorder_seconds = disorder;
            settings.maxChunkPackets = 16;
            settings.tdcRate_perSecond = 2e5;
            settings.globalTimeInterval_seconds = 1e-6;
            settings.seed = static_cast<std::uint64_t>(++n);
            write(dir / "tpx3" / ("generated_" + std::to_string(n)), bytesOf(tpx3gen::generate(settings).words));
        }
    }
    tpx3gen::Settings slow;
    slow.hits = 40;
    slow.hitRate_perSecond = 2;
    slow.startTime_seconds = 30; // pixel times wrap around the reference
    write(dir / "tpx3" / "wrapping", bytesOf(tpx3gen::generate(slow).words));

    write(
        dir / "paramsFile" / "all",
        R"({"vundrel": {"dSpace": 2.5, "dTime": 5e-7, "nPxMin": 3, "nPxMax": 100, "TDC1": true, "algorithm": "checkNextOnly"}})");
    write(dir / "paramsFile" / "types",
          R"({"vundrel": {"nPxMin": 2.0, "dSpace": "3", "TDC1": 1}, "other": [1, null]})");
    write(dir / "paramsFile" / "empty", R"({"vundrel": {}})");

    photonFile(dir / "kavotphot" / "empty", 0, std::nullopt);
    photonFile(dir / "kavotphot" / "triggers", 3, 2);
    photonFile(dir / "kavotphot" / "emptyTriggers", 2, 0);

    const auto line = [](std::initializer_list<std::string> args) {
        std::string joined;
        for (const auto& arg : args) {
            joined += arg;
            joined.push_back('\0');
        }
        return joined;
    };
    write(dir / "commandLine" / "run", line({"-i", "a.tpx3", "-o", "b.kavotphot", "-s", "3", "-t", "1e-6", "-T"}));
    write(dir / "commandLine" / "long", line({"--dS=2.5", "--algorithm", "checkNextOnly", "--verbose", "2", "-k", "-1",
                                              "--globalTime_ignore", "--photImgPath", "x", "-m", "1", "-M", "9"}));
    write(dir / "commandLine" / "help", line({"-h", "--version", "--license", "--", "stray"}));
    std::cout << "make_corpus: seeds written to " << dir.string() << "\n";
    return 0;
}

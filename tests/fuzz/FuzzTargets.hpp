#pragma once

// What each fuzz target does with one input. The libFuzzer entry points call these, and the test suite replays
// every input under regressions/ through them, so a finding stays a test after it is fixed.
// A broken property aborts (a crash for the fuzzer, a failure for the replay); refusals with the program's
// exceptions are expected outcomes.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

#include "Data_Tpx3Spidr.hpp"
#include "Logging.hpp"
#include "Parameters.hpp"
#include "PhotonEvents.hpp"

namespace fuzztargets {

using namespace kavot_tpx3spidr;

inline void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

inline std::string scratchPath(const char* name) {
    return "/tmp/kavot_fuzz_" + std::to_string(::getpid()) + "_" + name;
}

inline void writeBytes(const std::string& path, const std::uint8_t* data, std::size_t size) {
    std::ofstream stream(path, std::ios::out | std::ios::binary | std::ios::trunc);
    stream.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

/// Counts every position once per cluster it is assigned to.
struct CountingObserver {
    std::vector<int>* seen;
    void assign(std::size_t position, std::size_t /*cluster*/) const { ++(*seen)[position]; }
};

template <bool useGlobalTime>
void decodeAndCluster(const std::vector<std::uint64_t>& words) {
    std::optional<Data_Tpx3Spidr> decoded;
    try {
        decoded.emplace(Data_Tpx3Spidr::make_from_data_tpx3spidr<useGlobalTime>(words.data(), words.size()));
    } catch (const std::logic_error&) {
        return; // one of the decoder's refusals
    }
    const Data_Tpx3Spidr& data = *decoded;
    for (std::size_t k = 0; k < data.size(); ++k) {
        require(data[k].get_x_px() >= 0 && data[k].get_x_px() <= 255);
        require(data[k].get_y_px() >= 0 && data[k].get_y_px() <= 255);
        require(k == 0 || data[k - 1].get_toa() <= data[k].get_toa());
    }
    const ReconstructionParameters_PhotonEvents parameters{2.0, Time(64), 1, 200, 1.0, 1e9, true};
    std::vector<int> seen(data.size(), 0);
    const auto checkPartition = [&] {
        for (int& count : seen) {
            require(count == 1);
            count = 0;
        }
    };
    const auto checkPhotons = [&](const PhotonResult& result) {
        require(result.extTriggers && result.extTriggers->size() == data.get_tdc1Triggers().size());
        for (std::size_t k = 1; k < result.photonEvents.size(); ++k) {
            require(result.photonEvents[k - 1].toa <= result.photonEvents[k].toa);
        }
    };
    checkPhotons(reconstruct_photonEvents_fullChain_direct(data, parameters, CountingObserver{&seen}));
    checkPartition();
    checkPhotons(reconstruct_photonEvents_checkNextOnly(data, parameters, CountingObserver{&seen}));
    checkPartition();
    checkPhotons(reconstruct_photonEvents_forwardChain_pixelBuildup(data, parameters, CountingObserver{&seen}));
    checkPartition();
}

/// A .tpx3 stream, decoded in both time modes; whatever decodes must be ordered and clustered consistently.
inline int tpx3(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint64_t> words(size / 8);
    if (!words.empty()) {
        std::memcpy(words.data(), data, words.size() * 8);
    }
    decodeAndCluster<true>(words);
    decodeAndCluster<false>(words);
    return 0;
}

/// A parameter file named with -f.
inline int paramsFile(const std::uint8_t* data, std::size_t size) {
    const std::string path = scratchPath("params.json");
    writeBytes(path, data, size);
    std::string program = "vundrel";
    std::string option = "-f";
    std::string file = path;
    char* argv[] = {program.data(), option.data(), file.data(), nullptr};
    try {
        const Parameters parameters(3, argv);
        require(!parameters.exitEarly);
    } catch (const std::invalid_argument&) {
    }
    return 0;
}

/// A photon event file: what reads back must write and read back to the same lists.
inline int kavotphot(const std::uint8_t* data, std::size_t size) {
    const std::string path = scratchPath("in.kavotphot");
    writeBytes(path, data, size);
    std::optional<PhotonFile::Data_type> read;
    try {
        read.emplace(PhotonFile().read_fromFile(path));
    } catch (const std::invalid_argument&) {
        return 0;
    }
    const std::string again = scratchPath("again.kavotphot");
    {
        std::vector<std::unique_ptr<PhotonFile::IO_Block>> blocks;
        blocks.push_back(std::make_unique<PhotonFile::IO_PhotonEvents>(read->photonEvents));
        if (read->extTriggers) {
            blocks.push_back(std::make_unique<PhotonFile::IO_ExtTriggers>(*read->extTriggers));
        }
        std::ofstream stream(again, std::ios::out | std::ios::binary | std::ios::trunc);
        PhotonFile::IO_File(std::move(blocks)).write(stream);
    }
    const auto reread = PhotonFile().read_fromFile(again);
    require(reread.photonEvents == read->photonEvents);
    require(reread.extTriggers == read->extTriggers);
    return 0;
}

/// A command line: the input split at zero bytes into at most 32 arguments.
inline int commandLine(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> args{"vundrel"};
    std::string current;
    for (std::size_t i = 0; i < size && args.size() < 32; ++i) {
        if (data[i] == 0) {
            args.push_back(current);
            current.clear();
        } else {
            current.push_back(static_cast<char>(data[i]));
        }
    }
    if (!current.empty() && args.size() < 32) {
        args.push_back(current);
    }
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    const std::int32_t savedLevel = logLevel;
    try {
        const Parameters parameters(static_cast<int>(args.size()), argv.data());
        (void)parameters;
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
    }
    logLevel = savedLevel;
    return 0;
}

} // namespace fuzztargets

#pragma once

// Generated recordings shared by the benchmarks, made once per process and size.

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <unistd.h>

#include "Data_Tpx3Spidr.hpp"
#include "Tpx3Generator.hpp"

namespace benchdata {

enum class Shape { ordered, disordered, reversed };

inline const tpx3gen::Generated& recording(std::size_t hits, Shape shape = Shape::ordered) {
    static std::map<std::tuple<std::size_t, Shape>, tpx3gen::Generated> cache;
    auto found = cache.find({hits, shape});
    if (found == cache.end()) {
        tpx3gen::Settings settings;
        settings.hits = hits;
        settings.disorder_seconds = shape == Shape::disordered ? 2e-6 : 1e-7;
        settings.reverse = shape == Shape::reversed;
        found = cache.emplace(std::tuple{hits, shape}, tpx3gen::generate(settings)).first;
    }
    return found->second;
}

/// A generated recording written to a file below /tmp (removed at exit), with the file opened for reading.
class RecordingFile {
public:
    RecordingFile(std::size_t hits, Shape shape)
        : path("/tmp/vundrel_bench_" + std::to_string(::getpid()) + "_" + std::to_string(hits) + "_" +
               std::to_string(static_cast<int>(shape)) + ".tpx3") {
        const auto& words = recording(hits, shape).words;
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(words.data()), static_cast<std::streamsize>(words.size() * 8));
        file = std::make_unique<kavot_tpx3spidr::Tpx3InputFile>(path);
    }
    RecordingFile(const RecordingFile&) = delete;
    RecordingFile& operator=(const RecordingFile&) = delete;
    ~RecordingFile() { std::remove(path.c_str()); }
    [[nodiscard]] const kavot_tpx3spidr::Tpx3InputFile& input() const { return *file; }

private:
    std::string path;
    std::unique_ptr<kavot_tpx3spidr::Tpx3InputFile> file;
};

inline const RecordingFile& recordingFile(std::size_t hits, Shape shape = Shape::ordered) {
    static std::map<std::tuple<std::size_t, Shape>, std::unique_ptr<RecordingFile>> cache;
    auto& file = cache[{hits, shape}];
    if (!file) {
        file = std::make_unique<RecordingFile>(hits, shape);
    }
    return *file;
}

inline const kavot_tpx3spidr::Data_Tpx3Spidr& dataSet(std::size_t hits) {
    static std::map<std::size_t, kavot_tpx3spidr::Data_Tpx3Spidr> cache;
    auto found = cache.find(hits);
    if (found == cache.end()) {
        const auto& words = recording(hits).words;
        found = cache
                    .emplace(hits, kavot_tpx3spidr::Data_Tpx3Spidr::make_from_data_tpx3spidr<true>(words.data(),
                                                                                                   words.size()))
                    .first;
    }
    return found->second;
}

inline const kavot_tpx3spidr::ReconstructionParameters_PhotonEvents defaults{
    2.0, kavot_tpx3spidr::Time(64), 2, 200, 1.0, 5000.0, false};

} // namespace benchdata

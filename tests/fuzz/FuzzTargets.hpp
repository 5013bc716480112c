#pragma once

// What each fuzz target does with one input, for the libFuzzer entry points and the replay of regressions/ in the
// suite. A broken property aborts; refusals with the program's exceptions are expected outcomes.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

#include "ChipLayoutFile.hpp"
#include "ConvertOptions.hpp"
#include "Data_Tpx3Spidr.hpp"
#include "Parameters.hpp"
#include "PhotonEvents.hpp"
#include "Reconstruction_switch.hpp"

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
    // A new file each time: a file cut to zero and written again is flushed to disk on close by ext4, which
    // cost a fifth of every input's time.
    ::unlink(path.c_str());
    std::ofstream stream(path, std::ios::out | std::ios::binary | std::ios::trunc);
    stream.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

/// The stream the program reads (census, blocks decoded from the file and merged) against the data set in
/// memory: the same refusal or the same activations in the same order, and the same photons from every
/// algorithm, which come in ascending time.
template <bool useGlobalTime>
void decodeAndCluster(const std::vector<std::uint64_t>& words, const std::string& path) {
    std::optional<Data_Tpx3Spidr> decoded;
    std::string refusal;
    try {
        decoded.emplace(Data_Tpx3Spidr::make_from_data_tpx3spidr<useGlobalTime>(words.data(), words.size()));
    } catch (const std::logic_error& error) {
        refusal = error.what();
    }
    const Tpx3InputFile file(path);
    std::optional<Tpx3Census> census;
    try {
        census.emplace(census_tpx3<useGlobalTime>(file));
    } catch (const std::logic_error& error) {
        require(!decoded && refusal == error.what());
        return;
    }
    require(decoded.has_value());
    const Data_Tpx3Spidr& data = *decoded;
    require(census->tdcTriggers.to_vector() == data.get_tdc1Triggers());
    const ReconstructionParameters_PhotonEvents parameters{2.0, Time(64), 1, 200, 1.0, 1e9, true};
    for (const Algorithm algorithm :
         {Algorithm::fullChain_direct, Algorithm::checkNextOnly, Algorithm::forwardChain_pixelBuildup}) {
        Tpx3HitSource streamed(file, *census, Tpx3ScaleDecoding<useGlobalTime>(*census));
        DataSetSequence inMemory(data);
        VectorPhotonSink photons, streamedPhotons;
        reconstruct_photonEvents_into(algorithm, inMemory, parameters, photons);
        reconstruct_photonEvents_into(algorithm, streamed, parameters, streamedPhotons);
        require(streamedPhotons.photons == photons.photons);
        for (std::size_t k = 1; k < photons.photons.size(); ++k) {
            require(photons.photons[k - 1].toa <= photons.photons[k].toa);
        }
    }
    Tpx3HitSource streamed(file, *census, Tpx3ScaleDecoding<useGlobalTime>(*census));
    for (std::size_t k = 0; k < data.size(); ++k) {
        require(streamed.has(k) && streamed[k] == data[k]);
        require(data[k].get_x_px() >= 0 && data[k].get_x_px() <= 255 && data[k].get_y_px() <= 255);
        require(k == 0 || data[k - 1].get_toa() <= data[k].get_toa());
    }
    require(!streamed.has(data.size()));
}

/// A .tpx3 stream, decoded in both time modes.
inline int tpx3(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint64_t> words(size / 8);
    if (!words.empty()) {
        std::memcpy(words.data(), data, words.size() * 8);
    }
    const std::string path = scratchPath("in.tpx3");
    writeBytes(path, data, words.size() * 8);
    decodeAndCluster<true>(words, path);
    decodeAndCluster<false>(words, path);
    return 0;
}

/// The settings of a command line (`args` start with the program name).
inline Parameters parsed(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    std::int32_t threshold = 4;
    return Parameters(static_cast<int>(args.size()), argv.data(), threshold);
}

/// A parameter file named with -f.
inline int paramsFile(const std::uint8_t* data, std::size_t size) {
    const std::string path = scratchPath("params.json");
    writeBytes(path, data, size);
    try {
        require(!parsed({"vundrel", "-f", path}).exitEarly);
    } catch (const std::invalid_argument&) {
    }
    return 0;
}

/// A photon event file: the batch reader gives what the whole-file reader gives (or the same refusal), and
/// what reads back must write and read back to the same lists.
inline int kavotphot(const std::uint8_t* data, std::size_t size) {
    const std::string path = scratchPath("in.kavotphot");
    writeBytes(path, data, size);
    std::optional<PhotonFile::Data_type> read;
    std::string refusal;
    try {
        read.emplace(PhotonFile().read_fromFile(path));
    } catch (const std::invalid_argument& error) {
        refusal = error.what();
    }
    try {
        PhotonFile::Reader reader(path);
        require(read.has_value() && reader.photonCount() == read->photonEvents.size());
        std::size_t k = 0;
        reader.for_eachPhoton([&](const PhotonEvent_type& photon) { require(photon == read->photonEvents[k++]); });
        std::vector<Time> triggers;
        reader.for_eachTrigger([&](Time time) { triggers.push_back(time); });
        require(read->extTriggers.has_value() == reader.triggerCount().has_value());
        require(triggers == read->extTriggers.value_or(std::vector<Time>{}));
    } catch (const std::invalid_argument& error) {
        require(!read && refusal == error.what());
    }
    if (!read) {
        return 0;
    }
    const std::string again = scratchPath("again.kavotphot");
    std::vector<std::unique_ptr<PhotonFile::IO_Block>> blocks;
    blocks.push_back(std::make_unique<PhotonFile::IO_PhotonEvents>(read->photonEvents));
    if (read->extTriggers) {
        blocks.push_back(std::make_unique<PhotonFile::IO_ExtTriggers>(*read->extTriggers));
    }
    ::unlink(again.c_str()); // a new file, as in writeBytes
    std::ofstream stream(again, std::ios::out | std::ios::binary | std::ios::trunc);
    PhotonFile::IO_File(std::move(blocks)).write(stream);
    stream.close();
    const auto reread = PhotonFile().read_fromFile(again);
    require(reread.photonEvents == read->photonEvents);
    require(reread.extTriggers == read->extTriggers);
    return 0;
}

/// The input split at zero bytes into at most 32 arguments, after `first` when it is given.
inline std::vector<std::string> arguments(const std::uint8_t* data, std::size_t size, const char* first) {
    std::vector<std::string> args;
    if (first != nullptr) {
        args.emplace_back(first);
    }
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
    return args;
}

/// vundrel's command line.
inline int commandLine(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::string> args = arguments(data, size, "vundrel");
    try {
        (void)parsed(args);
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
    }
    return 0;
}

/// A layout file: refused with one std::invalid_argument, or a layout that puts every chip's corners on its
/// canvas and that reads back the same when its transforms are written out again.
inline int layout(const std::uint8_t* data, std::size_t size) {
    std::optional<ChipLayout> read;
    try {
        read.emplace(parse_chipLayout_json(std::string(reinterpret_cast<const char*>(data), size), "fuzz"));
    } catch (const std::invalid_argument&) {
        return 0;
    }
    const int width = read->width_px();
    const int height = read->height_px();
    require(width >= ChipLayout::chipSide_px && width <= ChipLayout::maxCanvas_px);
    require(height >= ChipLayout::chipSide_px && height <= ChipLayout::maxCanvas_px);
    std::string entries;
    for (const auto& [chip, t] : read->listed()) {
        for (const int px : {0, ChipLayout::chipSide_px - 1}) {
            for (const int py : {0, ChipLayout::chipSide_px - 1}) {
                require(t.x(px, py) >= 0 && t.x(px, py) < width && t.y(px, py) >= 0 && t.y(px, py) < height);
            }
        }
        entries += std::string(entries.empty() ? "" : ",") + "{\"chip_id\":" + std::to_string(chip) + ",\"matrix\":[[" +
                   std::to_string(t.a) + "," + std::to_string(t.b) + "," + std::to_string(t.tx) + "],[" +
                   std::to_string(t.c) + "," + std::to_string(t.d) + "," + std::to_string(t.ty) + "]]}";
    }
    const ChipLayout again =
        parse_chipLayout_json(R"({"detector":{"chip_transformations":[)" + entries + "]}}", "again");
    require(again.listed() == read->listed() && again.width_px() == width && again.height_px() == height);
    return 0;
}

/// kavot convert's command line: refused with one std::invalid_argument, or settings within what the options
/// accept.
inline int convertOptions(const std::uint8_t* data, std::size_t size) {
    std::optional<kavot_tool::ConvertCommandLine> line;
    try {
        line.emplace(kavot_tool::parse_convertOptions(arguments(data, size, nullptr)));
    } catch (const std::invalid_argument&) {
        return 0;
    }
    if (line->help) {
        return 0;
    }
    const auto& c = line->settings.clustering;
    require(!line->input.empty() && !line->output.empty());
    require(c.dTime.get_value() >= 0 && c.dTime.get_value() <= Time::make_from_seconds<true>(1.0).get_value());
    require(c.dSpace >= 0 && c.dSpace <= 4096);
    require(c.nPxMin >= 1 && c.nPxMin <= c.nPxMax && c.nPxMax <= 65535);
    require(c.weightMin >= 0 && c.weightMin <= c.weightMax);
    require(line->binsPerPixel >= 1 && line->binsPerPixel <= 64 && line->settings.threads <= 256);
    return 0;
}

} // namespace fuzztargets

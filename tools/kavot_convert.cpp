// kavot convert: photons as the experiment saw them, with continuous time, the chips in place and each trigger once.

#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ConversionOutputs.hpp"
#include "ConvertOptions.hpp"
#include "KavotCommand.hpp"
#include "ReplacingFile.hpp"
#include "RunResources.hpp"
#include "Tpx3InputFile.hpp"

namespace kavot_tool {

namespace {

double seconds(long ticks) {
    return kavot_tpx3spidr::Time(ticks).get_seconds();
}

/// Makes the folder of an output if it is missing, as vundrel does.
const std::string& inFolder(const std::string& path) {
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!folder.empty()) {
        std::filesystem::create_directories(folder);
    }
    return path;
}

/// The name of a file that a library writes by name.
const std::string& named(const ReplacingFile& file, const std::string& path) {
    if (file.writingPath().empty()) {
        throw std::invalid_argument("Unable to open output file \"" + path + "\" !");
    }
    return file.writingPath();
}

void report(const std::string& output, const ConversionFacts& facts) {
    std::printf("kavot convert: %llu photons from %llu hits into %s\n", static_cast<unsigned long long>(facts.photons),
                static_cast<unsigned long long>(facts.hits), output.c_str());
    std::string chips;
    for (const unsigned chip : facts.chips) {
        chips += (chips.empty() ? "" : ", ") + std::to_string(chip);
    }
    std::printf("canvas: %d x %d px, layout %s (chips in the recording: %s)\n", facts.layout.width_px(),
                facts.layout.height_px(), facts.layout.get_name().c_str(), chips.empty() ? "none" : chips.c_str());
    std::printf("time: %s", facts.followsData ? "no heartbeat, each chip's clock follows its data"
                                              : "each chip's clock follows its heartbeats");
    if (facts.photons > 0) {
        std::printf("; photons from %.6f s to %.6f s", seconds(facts.firstPhoton_ticks),
                    seconds(facts.lastPhoton_ticks));
    }
    std::printf("\ntriggers: %llu (from %llu TDC packets of the chosen edge); %llu photons before the first\n",
                static_cast<unsigned long long>(facts.triggers), static_cast<unsigned long long>(facts.triggerPackets),
                static_cast<unsigned long long>(facts.photonsBeforeFirstTrigger));
    if (facts.staleHeartbeats > 0) {
        std::printf("stale heartbeats: %llu, ignored (the clock was reset after them)\n",
                    static_cast<unsigned long long>(facts.staleHeartbeats));
    }
    for (const auto& gap : facts.gaps) {
        std::fprintf(stderr,
                     "kavot: warning: chip %u moved from %.6f s to %.6f s at once: times after such a gap may be off "
                     "by multiples of 26.8 s\n",
                     gap.chip, seconds(gap.from_ticks), seconds(gap.to_ticks));
    }
    if (facts.gapCount > facts.gaps.size()) {
        std::fprintf(stderr, "kavot: warning: %llu more such gaps\n",
                     static_cast<unsigned long long>(facts.gapCount - facts.gaps.size()));
    }
}

} // namespace

int run_convert(const std::vector<std::string>& words) {
    ConvertCommandLine line = parse_convertOptions(words);
    if (line.help) {
        std::fputs(help_convert, stdout);
        return 0;
    }
    line.settings.progress = true;
    // Opened here to know the input by its identity: no output may be written into it through a link.
    const kavot_tpx3spidr::Tpx3InputFile input(line.input);
    ReplacingFile output(inFolder(line.output), input.get_device(), input.get_inode());
    std::optional<ReplacingFile> imageFile;
    if (line.image) {
        imageFile.emplace(inFolder(*line.image), input.get_device(), input.get_inode());
    }
    std::unique_ptr<ConversionOutput> photons;
    if (has_suffix(line.output, ".kavotphot")) {
        photons = std::make_unique<PhotonFileOutput>(output.fd());
    } else {
        photons = std::make_unique<Hdf5PhotonOutput>(named(output, line.output), line.settings, line.compression);
    }
    std::vector<ConversionOutput*> outputs{photons.get()};
    std::unique_ptr<CanvasImageOutput> image;
    if (imageFile) {
        image = std::make_unique<CanvasImageOutput>(named(*imageFile, *line.image), line.binsPerPixel);
        outputs.push_back(image.get());
    }
    const ConversionFacts facts = convert_recording(line.input, line.settings, outputs, spillFolder(line.output));
    if (!output.commit()) {
        throw std::invalid_argument("Unable to write output file \"" + line.output + "\" completely; it was removed!");
    }
    if (imageFile && !imageFile->commit()) {
        throw std::invalid_argument("Unable to write image \"" + *line.image + "\" completely; it was removed!");
    }
    report(line.output, facts);
    return 0;
}

} // namespace kavot_tool

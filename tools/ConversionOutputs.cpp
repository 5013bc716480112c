#include "ConversionOutputs.hpp"

#include <cassert>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <utility>

#include <fcntl.h>

#include "CountTiff.hpp"
#include "Hdf5File.hpp"
#include "KavotCommand.hpp"
#include "ReplacingFile.hpp"
#include "RunResources.hpp"
#include "Tpx3InputFile.hpp"

namespace kavot_tool {

using kavot_tpx3spidr::ChipLayout;
using kavot_tpx3spidr::SpillingList;
using kavot_tpx3spidr::Time;

std::string layout_json(const ChipLayout& layout) {
    if (layout.listed().empty()) {
        return "{\"detector\": {\"chip_transformations\": []}, \"every_chip\": \"identity\"}";
    }
    std::string json = "{\"detector\": {\"chip_transformations\": [";
    const char* separator = "";
    for (const auto& [chip, t] : layout.listed()) {
        json += separator;
        json += "{\"chip_id\": " + std::to_string(chip) + ", \"matrix\": [[" + std::to_string(t.a) + ", " +
                std::to_string(t.b) + ", " + std::to_string(t.tx) + "], [" + std::to_string(t.c) + ", " +
                std::to_string(t.d) + ", " + std::to_string(t.ty) + "]]}";
        separator = ", ";
    }
    return json + "]}}";
}

namespace {

std::string seconds(long ticks) {
    char text[64];
    std::snprintf(text, sizeof text, "%.9f s", Time(ticks).get_seconds());
    return text;
}

const char* triggerName(kavot_tpx3spidr::tpx3::TdcKind kind) {
    constexpr const char* names[] = {"tdc1-rising", "tdc1-falling", "tdc2-rising", "tdc2-falling", "other"};
    return names[static_cast<std::size_t>(kind)];
}

} // namespace

const char* compressionName(Hdf5Compression compression) {
    constexpr const char* names[] = {"small: shuffle and deflate", "fast: scale-offset of the integer columns", "none"};
    return names[static_cast<std::size_t>(compression)];
}

std::vector<ConversionAttribute>
conversion_attributes(const ConversionFacts& facts, const ConversionSettings& settings, Hdf5Compression compression) {
    std::vector<ConversionAttribute> attributes;
    const auto text = [&](const char* name, std::string value) { attributes.emplace_back(name, std::move(value)); };
    const auto integer = [&](const char* name, std::uint64_t value) {
        attributes.emplace_back(name, static_cast<std::int64_t>(value));
    };
    const auto real = [&](const char* name, double value) { attributes.emplace_back(name, value); };
    text("program", "kavot convert");
    text("program_version", KAVOT_VERSION);
    text("source_file", std::filesystem::path(facts.input).filename().string());
    integer("source_size_bytes", facts.inputSize_bytes);
    real("tick_s", Time::tick_seconds);
    integer("canvas_width_px", static_cast<std::uint64_t>(facts.layout.width_px()));
    integer("canvas_height_px", static_cast<std::uint64_t>(facts.layout.height_px()));
    text("layout", facts.layout.get_name());
    text("layout_transforms", layout_json(facts.layout));
    text("time_model", facts.followsData ? "no heartbeat: each chip's clock follows its data"
                                         : "heartbeats: each chip's clock follows its latest valid heartbeat");
    text("compression", compressionName(compression));
    integer("stale_heartbeats", facts.staleHeartbeats);
    integer("time_gaps", facts.gapCount);
    std::string gaps;
    for (const auto& gap : facts.gaps) {
        gaps +=
            "chip " + std::to_string(gap.chip) + ": " + seconds(gap.from_ticks) + " to " + seconds(gap.to_ticks) + "\n";
    }
    text("time_gaps_found", gaps);
    const auto& c = settings.clustering;
    real("dtime_s", c.dTime.get_seconds());
    attributes.emplace_back("dtime_ticks", static_cast<std::int64_t>(c.dTime.get_value()));
    real("dspace_px", c.dSpace);
    integer("min_hits", c.nPxMin);
    integer("max_hits", c.nPxMax);
    real("min_weight", c.weightMin);
    real("max_weight", c.weightMax);
    text("algorithm", settings.algorithmName);
    text("trigger", triggerName(settings.trigger));
    integer("hits", facts.hits);
    integer("trigger_packets", facts.triggerPackets);
    integer("triggers", facts.triggers);
    integer("photons", facts.photons);
    integer("photons_before_first_trigger", facts.photonsBeforeFirstTrigger);
    return attributes;
}

namespace {

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

} // namespace

ConversionFacts convert_toFiles(const ConvertCommandLine& line, const ConversionHooks& hooks) {
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
        photons = std::make_unique<Hdf5PhotonOutput>(named(output, line.output), line.settings, line.compression,
                                                     output.fd());
    }
    std::vector<ConversionOutput*> outputs{photons.get()};
    std::unique_ptr<CanvasImageOutput> image;
    if (imageFile) {
        image = std::make_unique<CanvasImageOutput>(named(*imageFile, *line.image), line.binsPerPixel);
        outputs.push_back(image.get());
    }
    const ConversionFacts facts =
        convert_recording(line.input, line.settings, outputs, spillFolder(line.output), hooks);
    if (!output.commit()) {
        throw std::invalid_argument("Unable to write output file \"" + line.output + "\" completely; it was removed!");
    }
    if (imageFile && !imageFile->commit()) {
        throw std::invalid_argument("Unable to write image \"" + *line.image + "\" completely; it was removed!");
    }
    return facts;
}

/// The open file and its columns, from `begin` to `finish`.
struct Hdf5PhotonOutput::Open {
    Open(const std::string& path, Hdf5Compression c)
        : file(path), group(file.create_group("photons")), x(group.get(), "x", "px", {}, c),
          y(group.get(), "y", "px", {}, c), t(group.get(), "t", "ticks", {}, c),
          tof(group.get(), "tof", "ticks", {}, c), trigger(group.get(), "trigger", "index", {}, c),
          nHits(group.get(), "n_hits", "hits", {}, c), totSum(group.get(), "tot_sum", "25ns", {}, c),
          totMax(group.get(), "tot_max", "25ns", {}, c), chip(group.get(), "chip", "index", {}, c) {}

    Hdf5File file;
    Hdf5Id group;
    BatchedColumn<double> x;
    BatchedColumn<double> y;
    BatchedColumn<std::int64_t> t;
    BatchedColumn<std::int64_t> tof;
    BatchedColumn<std::int64_t> trigger;
    BatchedColumn<std::uint16_t> nHits;
    BatchedColumn<std::uint32_t> totSum;
    BatchedColumn<std::uint32_t> totMax;
    BatchedColumn<std::uint8_t> chip;
};

Hdf5PhotonOutput::Hdf5PhotonOutput(std::string path_,
                                   const ConversionSettings& settings_,
                                   Hdf5Compression compression_,
                                   int fd_)
    : path(std::move(path_)), settings(settings_), compression(compression_), fd(fd_) {}

Hdf5PhotonOutput::~Hdf5PhotonOutput() = default;

void Hdf5PhotonOutput::begin(const ConversionFacts& /*facts*/) {
    open = std::make_unique<Open>(path, compression);
}

void Hdf5PhotonOutput::photons(const ConvertedPhoton* first, std::size_t count) {
    Open& o = *open;
    for (std::size_t k = 0; k < count;) {
        // The columns are filled side by side, so each has the room of the others: one pass over the photons
        // fills them all (nine passes, one a column, read every photon nine times).
        const std::size_t n = std::min(count - k, o.x.room());
        double* x = o.x.next();
        double* y = o.y.next();
        std::int64_t* t = o.t.next();
        std::int64_t* tof = o.tof.next();
        std::int64_t* trigger = o.trigger.next();
        std::uint16_t* nHits = o.nHits.next();
        std::uint32_t* totSum = o.totSum.next();
        std::uint32_t* totMax = o.totMax.next();
        std::uint8_t* chip = o.chip.next();
        for (std::size_t i = 0; i < n; ++i) {
            const ConvertedPhoton& p = first[k + i];
            x[i] = p.measures.photon.x.get_px();
            y[i] = p.measures.photon.y.get_px();
            t[i] = p.measures.photon.toa.get_value();
            tof[i] = p.tof_ticks;
            trigger[i] = p.trigger;
            // A conversion's --max-hits is at most 65535.
            nHits[i] = static_cast<std::uint16_t>(p.measures.nHits);
            totSum[i] = p.measures.totSum;
            totMax[i] = p.measures.totMax;
            chip[i] = p.measures.chip;
        }
        for (auto* column : {&o.x, &o.y}) {
            column->advance(n);
        }
        for (auto* column : {&o.t, &o.tof, &o.trigger}) {
            column->advance(n);
        }
        o.nHits.advance(n);
        o.totSum.advance(n);
        o.totMax.advance(n);
        o.chip.advance(n);
        k += n;
    }
    // The file is flushed to disk before it replaces the destination; starting the disk writes of what is
    // written (about 7 MiB of columns) lets them run while the photons are still being found. Only a hint: its
    // failure changes nothing, and the final flush reports errors.
    sinceWriteBack += count;
    if (fd >= 0 && sinceWriteBack >= writeBack_photons) {
        ::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
        sinceWriteBack = 0;
    }
}

void Hdf5PhotonOutput::finish(const ConversionFacts& facts, const SpillingList<Time>& triggers) {
    Open& o = *open;
    write_attribute(o.tof.get(), "description",
                    std::string("time since the latest trigger at or before the photon; "
                                "-1 for photons before the first trigger"));
    write_attribute(o.trigger.get(), "description",
                    std::string("index in /triggers/t of the latest trigger at or before the photon; -1 for photons "
                                "before the first trigger"));
    write_attribute(o.chip.get(), "description", std::string("chip of the cluster's first hit (chunk header byte 4)"));
    for (auto* column : {&o.x, &o.y}) {
        column->close();
    }
    for (auto* column : {&o.t, &o.tof, &o.trigger}) {
        column->close();
    }
    o.nHits.close();
    o.totSum.close();
    o.totMax.close();
    o.chip.close();
    o.group.close_checked("close group photons");
    {
        Hdf5Id group = o.file.create_group("triggers");
        BatchedColumn<std::int64_t> t(group.get(), "t", "ticks", triggers.size(), compression);
        write_attribute(t.get(), "description", std::string("each trigger once, ascending"));
        triggers.for_each([&](Time time) { t.push(time.get_value()); });
        t.close();
        group.close_checked("close group triggers");
    }
    for (const auto& [name, value] : conversion_attributes(facts, settings, compression)) {
        std::visit([&, &attribute = name](const auto& v) { write_attribute(o.file.get(), attribute.c_str(), v); },
                   value);
    }
    o.file.close();
    open.reset();
}

void PhotonFileOutput::photons(const ConvertedPhoton* first, std::size_t count) {
    for (const ConvertedPhoton* p = first; p != first + count; ++p) {
        writer.push(p->measures.photon);
    }
}

void PhotonFileOutput::finish(const ConversionFacts& /*facts*/, const SpillingList<Time>& triggers) {
    writer.write_triggers(triggers);
    if (!writer.finish()) {
        throw std::invalid_argument("Unable to write the photon file completely!");
    }
}

void CanvasImageOutput::begin(const ConversionFacts& facts) {
    const std::uint64_t w = static_cast<std::uint64_t>(facts.layout.width_px()) * binsPerPixel;
    const std::uint64_t h = static_cast<std::uint64_t>(facts.layout.height_px()) * binsPerPixel;
    if (w * h > maxCounters) {
        throw std::invalid_argument("an image of the " + std::to_string(facts.layout.width_px()) + " x " +
                                    std::to_string(facts.layout.height_px()) + " pixel canvas with " +
                                    std::to_string(binsPerPixel) +
                                    " bins per pixel would take more than 256 MiB; "
                                    "choose a smaller --bin!");
    }
    width = static_cast<std::uint32_t>(w);
    height = static_cast<std::uint32_t>(h);
    counts.assign(static_cast<std::size_t>(w * h), 0);
}

void CanvasImageOutput::photons(const ConvertedPhoton* first, std::size_t count) {
    for (const ConvertedPhoton* p = first; p != first + count; ++p) {
        // Centroids lie on the canvas: from 0 up to (not including) its width and height, in 1/65536 pixel.
        const auto x = static_cast<std::uint64_t>(p->measures.photon.x.get_value()) * binsPerPixel >> 16;
        const auto y = static_cast<std::uint64_t>(p->measures.photon.y.get_value()) * binsPerPixel >> 16;
        assert(x < width && y < height);
        ++counts[static_cast<std::size_t>(y * width + x)];
    }
}

void CanvasImageOutput::finish(const ConversionFacts& facts, const SpillingList<Time>& /*triggers*/) {
    counttiff::write(path, counts, width, height,
                     "photon counts of " + std::filesystem::path(facts.input).filename().string() + ": canvas " +
                         std::to_string(facts.layout.width_px()) + " x " + std::to_string(facts.layout.height_px()) +
                         " px (layout " + facts.layout.get_name() + "), " + std::to_string(binsPerPixel) +
                         " bins per pixel; row 0 first");
    counts = {};
}

} // namespace kavot_tool

// kavot export: a photon file, or the decoded hits of a recording, as an HDF5 file that numpy and h5py read
// directly.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "CanvasHits.hpp"
#include "ConversionOutputs.hpp"
#include "ConvertOptions.hpp"
#include "Hdf5File.hpp"
#include "KavotCommand.hpp"
#include "OutputFile.hpp"
#include "PhotonEvents.hpp"
#include "Tpx3HitSource.hpp"

namespace kavot_tool {

const char* const help_export =
    "Usage: kavot export FILE.kavotphot|FILE.tpx3 OUT.h5 [--layout LAYOUT] [--vundrel [--globalTime_ignore]]\n"
    "\n"
    "From a photon file, writes the photons (and the trigger times, when the file holds them):\n"
    "  /photons/x, /photons/y   float64, pixels (the stored fixed-point value / 65536)\n"
    "  /photons/toa             int64, time of arrival in ticks of 1.5625 ns, exact\n"
    "  /triggers/toa            int64 ticks; only when the file was converted with -T\n"
    "From a recording, writes its decoded pixel hits in time order as kavot convert sees them before it\n"
    "clusters them: each chip's clock followed with its heartbeats, the chips placed on one canvas, and each\n"
    "trigger (TDC1 rising edge) once, though several chips carry it:\n"
    "  /hits/x, /hits/y         uint16, canvas pixels\n"
    "  /hits/t                  int64 ticks, continuous over the whole recording\n"
    "  /hits/tot                uint16, time over threshold in units of 25 ns\n"
    "  /hits/chip               uint8, the chip the hit came from (chunk header byte 4)\n"
    "  /triggers/t              int64 ticks, ascending\n"
    "with the canvas and the layout as attributes. --layout LAYOUT places the chips as kavot convert's option\n"
    "of that name does (single, quad, overlay or FILE.json; default: quad when chips 1 to 3 appear).\n"
    "--vundrel writes the hits as vundrel sees them instead: chip pixels (every chip on one frame) in the\n"
    "time order vundrel clusters them in, after the first global timestamp, and every TDC1 packet:\n"
    "  /hits/x, /hits/y, /hits/tot (uint16), /hits/toa (int64 ticks), /triggers/toa (int64 ticks)\n"
    "--globalTime_ignore (with --vundrel) uses the pixels' own clock, as vundrel's option of that name does\n"
    "(needed for a recording without a global timestamp).\n"
    "Each dataset carries the attribute \"units\" (\"px\", \"ticks\", \"25ns\" or \"index\"); the time datasets\n"
    "also \"tick_s\" (1.5625e-9). The file carries \"program\", \"program_version\" and \"source_file\" (the\n"
    "input's name). Datasets are chunked and compressed losslessly, and written a batch at a time: memory does\n"
    "not grow with the input (hits far out of time order wait in temporary files beside OUT.h5). OUT.h5\n"
    "appears complete or not at all: it is written under a temporary name beside it and renamed at the end.\n"
    "In Python:\n"
    "  h5py.File(\"OUT.h5\")[\"hits/x\"][:]\n";

namespace {

using kavot_tpx3spidr::PhotonEvent_type;
using kavot_tpx3spidr::PhotonFile;
using kavot_tpx3spidr::Time;

void write_provenance(const Hdf5File& file, const std::string& input) {
    write_attribute(file.get(), "program", std::string("kavot"));
    write_attribute(file.get(), "program_version", std::string(KAVOT_VERSION));
    write_attribute(file.get(), "source_file", std::filesystem::path(input).filename().string());
}

void export_photons(const std::string& input, const std::string& output) {
    PhotonFile::Reader reader(input);
    OutputFile target(output);
    Hdf5File file(target.writingPath());
    write_provenance(file, input);
    {
        Hdf5Id group = file.create_group("photons");
        BatchedColumn<double> x(group.get(), "x", "px", reader.photonCount());
        BatchedColumn<double> y(group.get(), "y", "px", reader.photonCount());
        BatchedColumn<std::int64_t> toa(group.get(), "toa", "ticks", reader.photonCount());
        reader.for_eachPhoton([&](const PhotonEvent_type& photon) {
            x.push(photon.x.get_px());
            y.push(photon.y.get_px());
            toa.push(photon.toa.get_value());
        });
        x.close();
        y.close();
        toa.close();
        group.close_checked("close group photons");
    }
    if (const auto triggers = reader.triggerCount()) {
        Hdf5Id group = file.create_group("triggers");
        BatchedColumn<std::int64_t> toa(group.get(), "toa", "ticks", *triggers);
        reader.for_eachTrigger([&](Time trigger) { toa.push(trigger.get_value()); });
        toa.close();
        group.close_checked("close group triggers");
    }
    file.close();
    target.commit();
}

/// Hits that wait in memory for their place in the time order, as in vundrel's run; the rest waits in
/// temporary files beside the output.
constexpr std::size_t waitingHits_limit = std::size_t{1} << 21;

/// The hits of a recording as kavot convert clusters them: the same census, clocks, canvas and time order.
void export_canvasHits(const std::string& input,
                       const std::string& output,
                       std::optional<kavot_tpx3spidr::ChipLayout> layout) {
    CanvasHitReader hits(input, std::move(layout), std::filesystem::absolute(output).parent_path().string());
    OutputFile target(output);
    Hdf5File file(target.writingPath());
    write_provenance(file, input);
    const kavot_tpx3spidr::ChipLayout& canvas = hits.get_layout();
    write_attribute(file.get(), "canvas_width_px", std::int64_t{canvas.width_px()});
    write_attribute(file.get(), "canvas_height_px", std::int64_t{canvas.height_px()});
    write_attribute(file.get(), "layout", canvas.get_name());
    write_attribute(file.get(), "layout_transforms", layout_json(canvas));
    {
        const auto fast = Hdf5Compression::fast;
        Hdf5Id group = file.create_group("hits");
        BatchedColumn<std::uint16_t> x(group.get(), "x", "px", hits.total(), fast);
        BatchedColumn<std::uint16_t> y(group.get(), "y", "px", hits.total(), fast);
        BatchedColumn<std::int64_t> t(group.get(), "t", "ticks", hits.total(), fast);
        BatchedColumn<std::uint16_t> tot(group.get(), "tot", "25ns", hits.total(), fast);
        BatchedColumn<std::uint8_t> chip(group.get(), "chip", "index", hits.total(), fast);
        std::vector<kavot_tpx3spidr::PixelActivation> batch(BatchedColumn<std::int64_t>::batch_values,
                                                            {0, 0, Time(0), 0});
        for (std::size_t count; (count = hits.read(batch.data(), batch.size())) > 0;) {
            for (std::size_t k = 0; k < count; ++k) {
                // Canvas coordinates lie from 0 to 4095: a layout refuses a wider canvas.
                x.push(static_cast<std::uint16_t>(batch[k].get_x_px()));
                y.push(static_cast<std::uint16_t>(batch[k].get_y_px()));
                t.push(batch[k].get_toa().get_value());
                tot.push(batch[k].get_tot());
                chip.push(batch[k].get_chip());
            }
        }
        for (auto* column : {&x, &y, &tot}) {
            column->close();
        }
        t.close();
        chip.close();
        group.close_checked("close group hits");
    }
    {
        const kavot_tpx3spidr::SpillingList<Time> triggers = hits.triggers();
        Hdf5Id group = file.create_group("triggers");
        BatchedColumn<std::int64_t> t(group.get(), "t", "ticks", triggers.size(), Hdf5Compression::fast);
        write_attribute(t.get(), "description", std::string("each trigger once, ascending"));
        triggers.for_each([&](Time trigger) { t.push(trigger.get_value()); });
        t.close();
        group.close_checked("close group triggers");
    }
    file.close();
    target.commit();
}

/// The hits of a recording in the time order of vundrel's run: the same census and the same hit source.
template <bool useGlobalTime>
void export_vundrelHits(const std::string& input, const std::string& output) {
    const kavot_tpx3spidr::Tpx3InputFile recording(input);
    const std::string spillFolder = std::filesystem::absolute(output).parent_path().string();
    const kavot_tpx3spidr::Tpx3Census census = kavot_tpx3spidr::census_tpx3<useGlobalTime>(recording, spillFolder);
    OutputFile target(output);
    Hdf5File file(target.writingPath());
    write_provenance(file, input);
    {
        Hdf5Id group = file.create_group("hits");
        BatchedColumn<std::uint16_t> x(group.get(), "x", "px", census.pixelCount);
        BatchedColumn<std::uint16_t> y(group.get(), "y", "px", census.pixelCount);
        BatchedColumn<std::int64_t> toa(group.get(), "toa", "ticks", census.pixelCount);
        BatchedColumn<std::uint16_t> tot(group.get(), "tot", "25ns", census.pixelCount);
        kavot_tpx3spidr::Tpx3HitSource hits(recording, census,
                                            kavot_tpx3spidr::Tpx3ScaleDecoding<useGlobalTime>(census), spillFolder,
                                            waitingHits_limit);
        for (std::size_t k = 0; hits.has(k); ++k) {
            const auto& hit = hits[k];
            x.push(static_cast<std::uint16_t>(hit.get_x_px()));
            y.push(static_cast<std::uint16_t>(hit.get_y_px()));
            toa.push(hit.get_toa().get_value());
            tot.push(hit.get_tot());
            hits.discardBefore(k + 1);
        }
        recording.check_unchanged();
        x.close();
        y.close();
        toa.close();
        tot.close();
        group.close_checked("close group hits");
    }
    {
        Hdf5Id group = file.create_group("triggers");
        BatchedColumn<std::int64_t> toa(group.get(), "toa", "ticks", census.tdcTriggers.size());
        census.tdcTriggers.for_each([&](Time trigger) { toa.push(trigger.get_value()); });
        toa.close();
        group.close_checked("close group triggers");
    }
    file.close();
    target.commit();
}

} // namespace

int run_export(const Arguments& arguments) {
    const std::string& input = arguments.operands[0];
    const std::string& output = arguments.operands[1];
    if (has_suffix(input, ".kavotphot")) {
        export_photons(input, output);
    } else if (has_suffix(input, ".tpx3")) {
        const std::optional<std::string> layout = arguments.value("layout");
        if (arguments.has("vundrel") && layout) {
            throw std::invalid_argument("--layout places chips on a canvas, which --vundrel does not use!");
        }
        if (arguments.has("globalTime_ignore") && !arguments.has("vundrel")) {
            throw std::invalid_argument("--globalTime_ignore applies to vundrel's time scale: give --vundrel too!");
        }
        if (arguments.has("vundrel") && arguments.has("globalTime_ignore")) {
            export_vundrelHits<false>(input, output);
        } else if (arguments.has("vundrel")) {
            export_vundrelHits<true>(input, output);
        } else {
            ConvertCommandLine line;
            set_convertOption(line, "layout", layout.value_or("auto"), OptionNames{"--", false});
            export_canvasHits(input, output, line.settings.layout);
        }
    } else {
        throw std::invalid_argument("\"" + input + "\" is neither a .kavotphot photon file nor a .tpx3 recording!");
    }
    return 0;
}

} // namespace kavot_tool

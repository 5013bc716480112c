// kavot export: a photon file, or the decoded hits of a recording, as an HDF5 file that numpy and h5py read
// directly.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "Hdf5File.hpp"
#include "KavotCommand.hpp"
#include "OutputFile.hpp"
#include "PhotonEvents.hpp"
#include "Tpx3HitSource.hpp"

namespace kavot_tool {

const char* const help_export =
    "Usage: kavot export FILE.kavotphot|FILE.tpx3 OUT.h5 [--globalTime_ignore]\n"
    "\n"
    "From a photon file, writes the photons (and the trigger times, when the file holds them):\n"
    "  /photons/x, /photons/y   float64, pixels (the stored fixed-point value / 65536)\n"
    "  /photons/toa             int64, time of arrival in ticks of 1.5625 ns, exact\n"
    "  /triggers/toa            int64 ticks; only when the file was converted with -T\n"
    "From a recording, writes its decoded pixel hits in the time order vundrel clusters them in, and the\n"
    "times of its TDC1 triggers (rising edges):\n"
    "  /hits/x, /hits/y         uint16, pixel column and row\n"
    "  /hits/toa                int64 ticks, after the first global timestamp (as vundrel counts time)\n"
    "  /hits/tot                uint16, time over threshold in units of 25 ns\n"
    "  /triggers/toa            int64 ticks\n"
    "--globalTime_ignore uses the pixels' own clock, as vundrel's option of that name does (needed for a\n"
    "recording without a global timestamp).\n"
    "Each dataset carries the attribute \"units\" (\"px\", \"ticks\" or \"25ns\"); the time datasets also\n"
    "\"tick_s\" (1.5625e-9). The file carries \"program\", \"program_version\" and \"source_file\" (the\n"
    "input's name). Datasets are chunked and deflate-compressed, and written a batch at a time: memory does\n"
    "not grow with the input (hits far out of time order wait in temporary files beside OUT.h5). OUT.h5\n"
    "appears complete or not at all: it is written under a temporary name beside it and renamed at the end.\n"
    "In Python:\n"
    "  h5py.File(\"OUT.h5\")[\"photons/x\"][:]\n";

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

/// The hits of a recording in the time order of vundrel's run: the same census and the same hit source.
template <bool useGlobalTime>
void export_hits(const std::string& input, const std::string& output) {
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
        if (arguments.has("globalTime_ignore")) {
            export_hits<false>(input, output);
        } else {
            export_hits<true>(input, output);
        }
    } else {
        throw std::invalid_argument("\"" + input + "\" is neither a .kavotphot photon file nor a .tpx3 recording!");
    }
    return 0;
}

} // namespace kavot_tool

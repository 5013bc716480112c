// kavot export: a photon file (or, later, a recording) as an HDF5 file that numpy and h5py read directly.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "Hdf5File.hpp"
#include "KavotCommand.hpp"
#include "OutputFile.hpp"
#include "PhotonEvents.hpp"

namespace kavot_tool {

const char* const help_export =
    "Usage: kavot export FILE.kavotphot OUT.h5\n"
    "\n"
    "Writes the photons (and the trigger times, when the file holds them) to an HDF5 file:\n"
    "  /photons/x, /photons/y   float64, pixels (the stored fixed-point value / 65536)\n"
    "  /photons/toa             int64, time of arrival in ticks of 1.5625 ns, exact\n"
    "  /triggers/toa            int64 ticks; only when the file was converted with -T\n"
    "Each dataset carries the attribute \"units\" (\"px\" or \"ticks\"); the time datasets also \"tick_s\"\n"
    "(1.5625e-9). The file carries \"program\", \"program_version\" and \"source_file\" (the input's name).\n"
    "Datasets are chunked and deflate-compressed; the photons are read and written a batch at a time, so\n"
    "memory does not grow with the file. OUT.h5 appears complete or not at all: it is written under a\n"
    "temporary name beside it and renamed at the end. In Python:\n"
    "  h5py.File(\"OUT.h5\")[\"photons/x\"][:]\n";

namespace {

using kavot_tpx3spidr::PhotonEvent_type;
using kavot_tpx3spidr::PhotonFile;
using kavot_tpx3spidr::Time;

constexpr std::size_t batch_values = 65536;

void write_timeAttributes(hid_t dataset) {
    write_attribute(dataset, "units", std::string("ticks"));
    write_attribute(dataset, "tick_s", Time::tick_seconds);
}

void export_photons(const std::string& input, const std::string& output) {
    PhotonFile::Reader reader(input);
    OutputFile target(output);
    Hdf5File file(target.writingPath());
    write_attribute(file.get(), "program", std::string("kavot"));
    write_attribute(file.get(), "program_version", std::string(KAVOT_VERSION));
    write_attribute(file.get(), "source_file", std::filesystem::path(input).filename().string());
    {
        Hdf5Id group = file.create_group("photons");
        Hdf5Column<double> x(group.get(), "x", reader.photonCount());
        Hdf5Column<double> y(group.get(), "y", reader.photonCount());
        Hdf5Column<std::int64_t> toa(group.get(), "toa", reader.photonCount());
        write_attribute(x.get(), "units", std::string("px"));
        write_attribute(y.get(), "units", std::string("px"));
        write_timeAttributes(toa.get());
        std::vector<double> xs, ys;
        std::vector<std::int64_t> toas;
        const auto flush = [&] {
            x.append(xs.data(), xs.size());
            y.append(ys.data(), ys.size());
            toa.append(toas.data(), toas.size());
            xs.clear();
            ys.clear();
            toas.clear();
        };
        reader.for_eachPhoton([&](const PhotonEvent_type& photon) {
            xs.push_back(photon.x.get_px());
            ys.push_back(photon.y.get_px());
            toas.push_back(photon.toa.get_value());
            if (toas.size() == batch_values) {
                flush();
            }
        });
        flush();
        x.close();
        y.close();
        toa.close();
        group.close_checked("close group photons");
    }
    if (const auto triggers = reader.triggerCount()) {
        Hdf5Id group = file.create_group("triggers");
        Hdf5Column<std::int64_t> toa(group.get(), "toa", *triggers);
        write_timeAttributes(toa.get());
        std::vector<std::int64_t> toas;
        reader.for_eachTrigger([&](Time trigger) {
            toas.push_back(trigger.get_value());
            if (toas.size() == batch_values) {
                toa.append(toas.data(), toas.size());
                toas.clear();
            }
        });
        toa.append(toas.data(), toas.size());
        toa.close();
        group.close_checked("close group triggers");
    }
    file.close();
    target.commit();
}

/// The hits of a recording in time order. This needs the streaming decoder; until it is there, a recording
/// is refused here, and only here.
void export_recording(const std::string&, const std::string&) {
    throw std::invalid_argument("exporting .tpx3 recordings is not available yet");
}

} // namespace

int run_export(const Arguments& arguments) {
    const std::string& input = arguments.operands[0];
    const std::string& output = arguments.operands[1];
    if (has_suffix(input, ".kavotphot")) {
        export_photons(input, output);
    } else if (has_suffix(input, ".tpx3")) {
        export_recording(input, output);
    } else {
        throw std::invalid_argument("\"" + input + "\" is neither a .kavotphot photon file nor a .tpx3 recording!");
    }
    return 0;
}

} // namespace kavot_tool

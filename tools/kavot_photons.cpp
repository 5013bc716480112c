// kavot summary and kavot csv: a photon file as numbers and as a table, read a batch at a time.

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string>

#include "KavotCommand.hpp"
#include "PhotonEvents.hpp"

namespace kavot_tool {

const char* const help_summary =
    "Usage: kavot summary FILE.kavotphot\n"
    "\n"
    "Prints the number of photons and of trigger times (\"none recorded\" when the file was converted without\n"
    "-T), and the range of the photons' times (seconds and ticks of 1.5625 ns) and positions (pixels). Reads\n"
    "the file a batch at a time: memory does not grow with the file.\n";

const char* const help_csv = "Usage: kavot csv FILE.kavotphot [--triggers]\n"
                             "\n"
                             "Prints the photons as CSV on standard output, one line per photon in file order:\n"
                             "  x_px,y_px,toa_s,toa_ticks\n"
                             "positions in pixels, the time of arrival in seconds and in ticks of 1.5625 ns.\n"
                             "\n"
                             "  --triggers   print the trigger times instead, one line per trigger:\n"
                             "                 toa_s,toa_ticks\n"
                             "               A file converted without -T holds none: that is an error.\n";

namespace {

using kavot_tpx3spidr::PhotonEvent_type;
using kavot_tpx3spidr::PhotonFile;
using kavot_tpx3spidr::Time;

} // namespace

int run_summary(const Arguments& arguments) {
    PhotonFile::Reader reader(arguments.operands[0]);
    std::printf("photons: %" PRIu64 "\n", reader.photonCount());
    if (const auto triggers = reader.triggerCount()) {
        std::printf("triggers: %" PRIu64 "\n", *triggers);
    } else {
        std::printf("triggers: none recorded\n");
    }
    if (reader.photonCount() == 0) {
        return 0;
    }
    PhotonEvent_type lowest(kavot_tpx3spidr::Length(0), kavot_tpx3spidr::Length(0), Time(0));
    PhotonEvent_type highest = lowest;
    bool first = true;
    reader.for_eachPhoton([&](const PhotonEvent_type& photon) {
        if (first) {
            lowest = highest = photon;
            first = false;
        }
        lowest = PhotonEvent_type(std::min(lowest.x, photon.x), std::min(lowest.y, photon.y),
                                  std::min(lowest.toa, photon.toa));
        highest = PhotonEvent_type(std::max(highest.x, photon.x), std::max(highest.y, photon.y),
                                   std::max(highest.toa, photon.toa));
    });
    std::printf("time: %.9f s .. %.9f s (%ld .. %ld ticks)\n", lowest.toa.get_seconds(), highest.toa.get_seconds(),
                lowest.toa.get_value(), highest.toa.get_value());
    std::printf("x: %.5f .. %.5f px\n", lowest.x.get_px(), highest.x.get_px());
    std::printf("y: %.5f .. %.5f px\n", lowest.y.get_px(), highest.y.get_px());
    return 0;
}

int run_csv(const Arguments& arguments) {
    const std::string& path = arguments.operands[0];
    PhotonFile::Reader reader(path);
    if (arguments.has("triggers")) {
        if (!reader.triggerCount()) {
            throw std::invalid_argument("\"" + path + "\" holds no trigger times (it was converted without -T)!");
        }
        std::printf("toa_s,toa_ticks\n");
        reader.for_eachTrigger(
            [](Time trigger) { std::printf("%.10f,%ld\n", trigger.get_seconds(), trigger.get_value()); });
    } else {
        std::printf("x_px,y_px,toa_s,toa_ticks\n");
        reader.for_eachPhoton([](const PhotonEvent_type& photon) {
            std::printf("%.6f,%.6f,%.10f,%ld\n", photon.x.get_px(), photon.y.get_px(), photon.toa.get_seconds(),
                        photon.toa.get_value());
        });
    }
    if (std::fflush(stdout) != 0) {
        throw std::invalid_argument("Unable to write the table to standard output!");
    }
    return 0;
}

} // namespace kavot_tool

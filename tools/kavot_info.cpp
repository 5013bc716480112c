// kavot info: what a recording holds and where vundrel's result would not mean what the user expects.

#include <cinttypes>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "InfoReport.hpp"
#include "KavotCommand.hpp"

namespace kavot_tool {

const char* const help_info =
    "Usage: kavot info FILE.tpx3 [--json]\n"
    "\n"
    "Reads a recording once, in bounded memory, without converting it, and prints its size and chunks, the\n"
    "chips present (chunk header byte 4) and, per chip, its hits, heartbeats and TDC packets, the packets by\n"
    "type (pixel hits; TDC packets by channel and edge, and those with an invalid stamp, fine time 0; global\n"
    "time; other), the global timestamps and the first of them, the span of the pixel times and the\n"
    "rollovers of the pixel clock in it, the share of hits out of time order and the largest lag, the TDC\n"
    "rate, the canvas kavot convert places the chips on when given no --layout, and the ten busiest pixels.\n"
    "It warns where vundrel's result would not mean what you may expect: hits outside the times vundrel can\n"
    "place, several chips on one frame, no global timestamp.\n"
    "\n"
    "Pixel times are followed across every rollover of the 34-bit pixel clock (26.8 s): each hit is placed\n"
    "within 13.4 s of the latest hit before it in the file, and on the clock of the first global timestamp\n"
    "once that is known, as vundrel places it. A hit is out of time order when it is earlier than the latest\n"
    "hit before it in the file; its lag is how much earlier. vundrel orders the hits itself: the share and\n"
    "the lag tell how disordered the readout was. The TDC rate counts TDC packets of every kind per second\n"
    "between the first and the last TDC time.\n"
    "\n"
    "Per chip, a heartbeat is stale when it is later than the chip's next one; the interval is the mean step\n"
    "between consecutive heartbeats where the clock did not go backwards. A TDC packet is a copy when another\n"
    "chip carried the same edge and time just before; the first chip to carry a trigger holds the original.\n"
    "\n"
    "  --json   print one JSON object instead, with the keys file, file_size_bytes, chunks, chips,\n"
    "           chip_details, pixel_hits, tdc_packets, tdc_by_kind, invalid_tdc_packets,\n"
    "           global_time_packets, global_timestamps, other_packets, first_global_timestamp_ticks,\n"
    "           first_global_timestamp_s, time_span_s, hits_from_s, hits_to_s, pixel_clock_rollovers,\n"
    "           out_of_order_hits, out_of_order_share, largest_lag_ticks, largest_lag_s, tdc_rate_hz,\n"
    "           busiest_pixels, convert_canvas, warnings and error (times in seconds; hits_from_s and\n"
    "           hits_to_s from the first global timestamp; null where there is nothing to tell)\n"
    "\n"
    "Exit status 1 when the file cannot be read, or when vundrel, run with its defaults, would refuse it: a\n"
    "broken structure (\"File contains incomplete lines!\", \"Invalid header entry!\", \"End of data reached\n"
    "before block is complete!\"; what was seen before it is printed) or no global timestamp (\"Supplied file\n"
    "does not contain a global timestamp!\"). The message goes to standard error.\n";

namespace {

using namespace info;

constexpr const char* tdcKindWords[] = {"TDC1 rising", "TDC1 falling", "TDC2 rising", "TDC2 falling", "other"};

void print_chip(std::size_t chip, const kavot_tpx3spidr::ChipSurvey& of) {
    std::printf("  chip %zu: %" PRIu64 " hits, %" PRIu64 " heartbeats", chip, of.hits, of.heartbeats);
    if (const auto interval = heartbeatInterval_s(of)) {
        std::printf(" every %.3f s", *interval);
    }
    std::printf(" (%" PRIu64 " stale), %" PRIu64 " TDC (%" PRIu64 " copies of another chip's)\n", of.staleHeartbeats,
                of.tdcPackets, of.tdcCopies);
}

void print_canvas(const Tpx3Survey& found) {
    std::string line = "canvas for kavot convert: " + canvasName(found.defaultLayout());
    const std::vector<unsigned> beyond = found.chipsBeyond_defaultLayout();
    for (std::size_t k = 0; k < beyond.size(); ++k) {
        line += (k == 0 ? beyond.size() == 1 ? "; chip " : "; chips " : ", ") + std::to_string(beyond[k]);
    }
    if (!beyond.empty()) {
        line += std::string(beyond.size() == 1 ? " has" : " have") +
                " no place on it: give kavot convert --layout FILE.json";
    }
    std::printf("%s\n", line.c_str());
}

void print_text(const std::string& path, const Tpx3Survey& found) {
    std::printf("file: %s\n", path.c_str());
    std::printf("size: %" PRIu64 " bytes, %" PRIu64 " chunks\n", found.size_bytes, found.chunks);
    std::printf("chips:");
    const char* separator = "";
    for (std::size_t chip = 0; chip < found.chunks_byChip.size(); ++chip) {
        if (found.chunks_byChip[chip] > 0) {
            std::printf("%s %zu (%" PRIu64 " chunks)", separator, chip, found.chunks_byChip[chip]);
            separator = ",";
        }
    }
    std::printf("%s\n", found.chips() == 0 ? " none" : "");
    for (std::size_t chip = 0; chip < found.chunks_byChip.size(); ++chip) {
        if (found.chunks_byChip[chip] > 0) {
            print_chip(chip, found.byChip[chip]);
        }
    }
    print_canvas(found);
    std::printf("packets: %" PRIu64 " pixel hits, %" PRIu64 " TDC, %" PRIu64 " global time, %" PRIu64 " other\n",
                found.pixelHits, found.tdcPackets, found.globalTimePackets, found.otherPackets);
    std::printf("TDC:");
    for (std::size_t kind = 0; kind < found.tdcPackets_byKind.size(); ++kind) {
        std::printf("%s %" PRIu64 " %s", kind == 0 ? "" : ",", found.tdcPackets_byKind[kind], tdcKindWords[kind]);
    }
    std::printf("; %" PRIu64 " invalid (fine time 0)\n", found.invalidTdcPackets);
    if (found.firstGlobalTimestamp_ticks) {
        std::printf("global timestamps: %" PRIu64 ", the first at %.9f s (%" PRIu64 " ticks)\n", found.globalTimestamps,
                    seconds(static_cast<long>(*found.firstGlobalTimestamp_ticks)), *found.firstGlobalTimestamp_ticks);
    } else {
        std::printf("global timestamps: none\n");
    }
    if (found.earliestHit_ticks) {
        std::printf("pixel times: span %.6f s, %ld rollovers of the pixel clock; from %.6f s to %.6f s %s\n",
                    seconds(found.timeSpan_ticks()), found.pixelClockRollovers(),
                    seconds(relative(found, *found.earliestHit_ticks)),
                    seconds(relative(found, *found.latestHit_ticks)),
                    found.firstGlobalTimestamp_ticks ? "around the first global timestamp" : "on the raw pixel clock");
        std::printf("out of time order: %" PRIu64 " hits (%.2f %%), largest lag %.9f s (%ld ticks)\n",
                    found.outOfOrderHits,
                    100.0 * static_cast<double>(found.outOfOrderHits) / static_cast<double>(found.pixelHits),
                    seconds(found.largestLag_ticks), found.largestLag_ticks);
    } else {
        std::printf("pixel times: no hits\n");
    }
    if (const auto rate = tdcRate_hz(found)) {
        std::printf("TDC rate: %.3f Hz over %.6f s\n", *rate,
                    seconds(*found.latestTdc_ticks - *found.earliestTdc_ticks));
    }
    if (!found.busiestPixels.empty()) {
        std::printf("busiest pixels:\n");
        for (const auto& pixel : found.busiestPixels) {
            std::printf("  x %3d  y %3d  %" PRIu64 " hits\n", pixel.x, pixel.y, pixel.hits);
        }
    }
    for (const auto& warning : warnings(found)) {
        std::printf("warning: %s\n", warning.c_str());
    }
}

} // namespace

int run_info(const Arguments& arguments) {
    const std::string& path = arguments.operands[0];
    const Tpx3Survey found = kavot_tpx3spidr::survey_tpx3(kavot_tpx3spidr::Tpx3InputFile(path));
    if (arguments.has("json")) {
        std::printf("%s\n", info_json(path, found).c_str());
    } else {
        print_text(path, found);
    }
    const std::string error = refusal(found);
    if (!error.empty()) {
        std::fflush(stdout);
        std::fprintf(stderr, "kavot: %s\n", error.c_str());
        return 1;
    }
    return 0;
}

} // namespace kavot_tool

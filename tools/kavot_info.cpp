// kavot info: what a recording holds and where vundrel's result would not mean what the user expects.

#include <cinttypes>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "KavotCommand.hpp"
#include "Tpx3Survey.hpp"
#include "Units.hpp"

namespace kavot_tool {

const char* const help_info =
    "Usage: kavot info FILE.tpx3 [--json]\n"
    "\n"
    "Reads a recording once, in bounded memory, without converting it, and prints its size and chunks, the\n"
    "chips present (chunk header byte 4), the packets by type (pixel hits; TDC packets by channel and edge;\n"
    "global time; other), the global timestamps and the first of them, the span of the pixel times and the\n"
    "rollovers of the pixel clock in it, the share of hits out of time order and the largest lag, the TDC\n"
    "rate and the ten busiest pixels. It warns where vundrel's result would not mean what you may expect:\n"
    "hits outside the times vundrel can place, several chips on one frame, no global timestamp.\n"
    "\n"
    "Pixel times are followed across every rollover of the 34-bit pixel clock (26.8 s): each hit is placed\n"
    "within 13.4 s of the latest hit before it in the file, and on the clock of the first global timestamp\n"
    "once that is known, as vundrel places it. A hit is out of time order when it is earlier than the latest\n"
    "hit before it in the file; its lag is how much earlier. vundrel orders the hits itself: the share and\n"
    "the lag tell how disordered the readout was. The TDC rate counts TDC packets of every kind per second\n"
    "between the first and the last TDC time.\n"
    "\n"
    "  --json   print one JSON object instead, with the keys file, file_size_bytes, chunks, chips,\n"
    "           pixel_hits, tdc_packets, tdc_by_kind, global_time_packets, global_timestamps, other_packets,\n"
    "           first_global_timestamp_ticks, first_global_timestamp_s, time_span_s, hits_from_s, hits_to_s,\n"
    "           pixel_clock_rollovers, out_of_order_hits, out_of_order_share, largest_lag_ticks,\n"
    "           largest_lag_s, tdc_rate_hz, busiest_pixels, warnings and error (times in seconds; hits_from_s\n"
    "           and hits_to_s from the first global timestamp; null where there is nothing to tell)\n"
    "\n"
    "Exit status 1 when the file cannot be read, or when vundrel, run with its defaults, would refuse it: a\n"
    "broken structure (\"File contains incomplete lines!\", \"Invalid header entry!\", \"End of data reached\n"
    "before block is complete!\"; what was seen before it is printed) or no global timestamp (\"Supplied file\n"
    "does not contain a global timestamp!\"). The message goes to standard error.\n";

namespace {

using kavot_tpx3spidr::Tpx3Survey;

constexpr const char* noGlobalTimestamp = "Supplied file does not contain a global timestamp!";
constexpr const char* tdcKindNames[] = {"tdc1_rising", "tdc1_falling", "tdc2_rising", "tdc2_falling", "other"};
constexpr const char* tdcKindWords[] = {"TDC1 rising", "TDC1 falling", "TDC2 rising", "TDC2 falling", "other"};

double seconds(long ticks) {
    return kavot_tpx3spidr::Time(ticks).get_seconds();
}

/// Hit times relative to the first global timestamp, or as the raw clock counts them when there is none.
long relative(const Tpx3Survey& found, long ticks) {
    return ticks - static_cast<long>(found.firstGlobalTimestamp_ticks.value_or(0));
}

/// The error vundrel would report first, or nothing.
std::string refusal(const Tpx3Survey& found) {
    if (!found.structureError.empty()) {
        return found.structureError;
    }
    return found.firstGlobalTimestamp_ticks ? "" : noGlobalTimestamp;
}

/// TDC packets per second between the first and the last TDC time; none for fewer than two or no span.
std::optional<double> tdcRate_hz(const Tpx3Survey& found) {
    if (found.tdcPackets < 2 || *found.latestTdc_ticks == *found.earliestTdc_ticks) {
        return std::nullopt;
    }
    return static_cast<double>(found.tdcPackets - 1) / seconds(*found.latestTdc_ticks - *found.earliestTdc_ticks);
}

std::string chipList(const Tpx3Survey& found) {
    std::string list;
    for (std::size_t chip = 0; chip < found.chunks_byChip.size(); ++chip) {
        if (found.chunks_byChip[chip] > 0) {
            list += (list.empty() ? "" : ", ") + std::to_string(chip);
        }
    }
    return list;
}

std::vector<std::string> warnings(const Tpx3Survey& found) {
    std::vector<std::string> said;
    if (found.exceeds_timeModel()) {
        const auto model = found.timeModel();
        char text[640];
        if (found.firstGlobalTimestamp_ticks) {
            std::snprintf(text, sizeof text,
                          "the hits run from %.3f s to %.3f s around the first global timestamp, but vundrel places "
                          "pixel times correctly only from %.3f s to %.3f s around it (it follows the 26.8 s pixel "
                          "clock through one rollover); hits outside that range get times off by multiples of "
                          "26.8 s, so their photons are misplaced in time and may be clustered with unrelated hits",
                          seconds(relative(found, *found.earliestHit_ticks)),
                          seconds(relative(found, *found.latestHit_ticks)), seconds(relative(found, model.first_ticks)),
                          seconds(relative(found, model.end_ticks)));
        } else {
            std::snprintf(text, sizeof text,
                          "the hits span %.3f s with %ld rollovers of the 26.8 s pixel clock; with "
                          "--globalTime_ignore vundrel uses the raw clock and follows one rollover only, so later "
                          "hits get times off by multiples of 26.8 s and may be clustered with unrelated hits",
                          seconds(found.timeSpan_ticks()), found.pixelClockRollovers());
        }
        said.emplace_back(text);
    }
    if (found.chips() > 1) {
        said.push_back("the recording holds the chunks of " + std::to_string(found.chips()) + " chips (" +
                       chipList(found) +
                       "); vundrel does not tell chips apart and places the pixels of all of them on one 256 x 256 "
                       "frame, so their hits mix in the photons and in the image");
    }
    if (!found.firstGlobalTimestamp_ticks && found.structureError.empty()) {
        said.emplace_back("the recording holds no global timestamp; vundrel refuses it unless run with "
                          "--globalTime_ignore, and then uses the raw pixel clock, which starts over every 26.8 s");
    }
    return said;
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
    std::printf("packets: %" PRIu64 " pixel hits, %" PRIu64 " TDC, %" PRIu64 " global time, %" PRIu64 " other\n",
                found.pixelHits, found.tdcPackets, found.globalTimePackets, found.otherPackets);
    std::printf("TDC:");
    for (std::size_t kind = 0; kind < found.tdcPackets_byKind.size(); ++kind) {
        std::printf("%s %" PRIu64 " %s", kind == 0 ? "" : ",", found.tdcPackets_byKind[kind], tdcKindWords[kind]);
    }
    std::printf("\n");
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

void print_json(const std::string& path, const Tpx3Survey& found) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> json(buffer);
    const auto optionalNumber = [&](bool present, double value) { present ? json.Double(value) : json.Null(); };
    json.StartObject();
    json.Key("file");
    json.String(path.c_str());
    json.Key("file_size_bytes");
    json.Uint64(found.size_bytes);
    json.Key("chunks");
    json.Uint64(found.chunks);
    json.Key("chips");
    json.StartArray();
    for (std::size_t chip = 0; chip < found.chunks_byChip.size(); ++chip) {
        if (found.chunks_byChip[chip] > 0) {
            json.StartObject();
            json.Key("chip");
            json.Uint64(chip);
            json.Key("chunks");
            json.Uint64(found.chunks_byChip[chip]);
            json.EndObject();
        }
    }
    json.EndArray();
    json.Key("pixel_hits");
    json.Uint64(found.pixelHits);
    json.Key("tdc_packets");
    json.Uint64(found.tdcPackets);
    json.Key("tdc_by_kind");
    json.StartObject();
    for (std::size_t kind = 0; kind < found.tdcPackets_byKind.size(); ++kind) {
        json.Key(tdcKindNames[kind]);
        json.Uint64(found.tdcPackets_byKind[kind]);
    }
    json.EndObject();
    json.Key("global_time_packets");
    json.Uint64(found.globalTimePackets);
    json.Key("global_timestamps");
    json.Uint64(found.globalTimestamps);
    json.Key("other_packets");
    json.Uint64(found.otherPackets);
    json.Key("first_global_timestamp_ticks");
    found.firstGlobalTimestamp_ticks ? json.Uint64(*found.firstGlobalTimestamp_ticks) : json.Null();
    json.Key("first_global_timestamp_s");
    optionalNumber(found.firstGlobalTimestamp_ticks.has_value(),
                   seconds(static_cast<long>(found.firstGlobalTimestamp_ticks.value_or(0))));
    json.Key("time_span_s");
    json.Double(seconds(found.timeSpan_ticks()));
    json.Key("hits_from_s");
    optionalNumber(found.earliestHit_ticks.has_value(), seconds(relative(found, found.earliestHit_ticks.value_or(0))));
    json.Key("hits_to_s");
    optionalNumber(found.latestHit_ticks.has_value(), seconds(relative(found, found.latestHit_ticks.value_or(0))));
    json.Key("pixel_clock_rollovers");
    json.Int64(found.pixelClockRollovers());
    json.Key("out_of_order_hits");
    json.Uint64(found.outOfOrderHits);
    json.Key("out_of_order_share");
    json.Double(
        found.pixelHits == 0 ? 0.0 : static_cast<double>(found.outOfOrderHits) / static_cast<double>(found.pixelHits));
    json.Key("largest_lag_ticks");
    json.Int64(found.largestLag_ticks);
    json.Key("largest_lag_s");
    json.Double(seconds(found.largestLag_ticks));
    json.Key("tdc_rate_hz");
    const auto rate = tdcRate_hz(found);
    optionalNumber(rate.has_value(), rate.value_or(0));
    json.Key("busiest_pixels");
    json.StartArray();
    for (const auto& pixel : found.busiestPixels) {
        json.StartObject();
        json.Key("x");
        json.Int(pixel.x);
        json.Key("y");
        json.Int(pixel.y);
        json.Key("hits");
        json.Uint64(pixel.hits);
        json.EndObject();
    }
    json.EndArray();
    json.Key("warnings");
    json.StartArray();
    for (const auto& warning : warnings(found)) {
        json.String(warning.c_str());
    }
    json.EndArray();
    json.Key("error");
    const std::string error = refusal(found);
    error.empty() ? json.Null() : json.String(error.c_str());
    json.EndObject();
    std::printf("%s\n", buffer.GetString());
}

} // namespace

int run_info(const Arguments& arguments) {
    const std::string& path = arguments.operands[0];
    const Tpx3Survey found = kavot_tpx3spidr::survey_tpx3(kavot_tpx3spidr::Tpx3InputFile(path));
    if (arguments.has("json")) {
        print_json(path, found);
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

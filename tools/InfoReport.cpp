#include "InfoReport.hpp"

#include <cmath>
#include <cstdio>

#include "Units.hpp"

namespace kavot_tool::info {

namespace {

constexpr const char* noGlobalTimestamp = "Supplied file does not contain a global timestamp!";

std::string chipList(const Tpx3Survey& found) {
    std::string list;
    for (std::size_t chip = 0; chip < found.chunks_byChip.size(); ++chip) {
        if (found.chunks_byChip[chip] > 0) {
            list += (list.empty() ? "" : ", ") + std::to_string(chip);
        }
    }
    return list;
}

} // namespace

double seconds(long ticks) {
    return kavot_tpx3spidr::Time(ticks).get_seconds();
}

long relative(const Tpx3Survey& found, long ticks) {
    return ticks - static_cast<long>(found.firstGlobalTimestamp_ticks.value_or(0));
}

std::string refusal(const Tpx3Survey& found) {
    if (!found.structureError.empty()) {
        return found.structureError;
    }
    return found.firstGlobalTimestamp_ticks ? "" : noGlobalTimestamp;
}

std::optional<double> heartbeatInterval_s(const kavot_tpx3spidr::ChipSurvey& chip) {
    const auto interval = chip.heartbeatInterval_ticks();
    return interval ? std::optional(seconds(std::lround(*interval))) : std::nullopt;
}

std::string canvasName(const kavot_tpx3spidr::ChipLayout& layout) {
    return layout.get_name() + ", " + std::to_string(layout.width_px()) + " x " + std::to_string(layout.height_px()) +
           " px";
}

std::optional<double> tdcRate_hz(const Tpx3Survey& found) {
    if (found.tdcPackets < 2 || *found.latestTdc_ticks == *found.earliestTdc_ticks) {
        return std::nullopt;
    }
    return static_cast<double>(found.tdcPackets - 1) / seconds(*found.latestTdc_ticks - *found.earliestTdc_ticks);
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
        said.back() += found.firstGlobalTimestamp_ticks
                           ? "; kavot convert follows every chip's heartbeats instead and places a hit correctly "
                             "within 13.4 s of its chip's latest heartbeat, in a recording of any length"
                           : "; kavot convert follows every chip's own packets instead, across any number of "
                             "rollovers, as long as no chip stays silent for more than 13.4 s";
    }
    if (found.chips() > 1) {
        const std::string canvas = canvasName(found.defaultLayout());
        const std::string whichCanvas =
            found.chipsBeyond_defaultLayout().empty()
                ? "by default " + canvas
                : "here one given by --layout FILE.json, as the default, " + canvas + ", does not hold them all";
        said.push_back("the recording holds the chunks of " + std::to_string(found.chips()) + " chips (" +
                       chipList(found) +
                       "); vundrel does not tell chips apart and places the pixels of all of them on one 256 x 256 "
                       "frame, so their hits mix in the photons and in the image; kavot convert places each chip on "
                       "its own part of a canvas (" +
                       whichCanvas + ") and follows each chip's " +
                       (found.firstGlobalTimestamp_ticks ? "heartbeats" : "own packets"));
    }
    if (!found.firstGlobalTimestamp_ticks && found.structureError.empty()) {
        said.emplace_back("the recording holds no global timestamp; vundrel refuses it unless run with "
                          "--globalTime_ignore, and then uses the raw pixel clock, which starts over every 26.8 s");
    }
    return said;
}

} // namespace kavot_tool::info

// kavot info --json: the survey of a recording as one JSON object.

#include <string>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "InfoReport.hpp"

namespace kavot_tool::info {

namespace {

constexpr const char* tdcKindNames[] = {"tdc1_rising", "tdc1_falling", "tdc2_rising", "tdc2_falling", "other"};

} // namespace

std::string info_json(const std::string& path, const Tpx3Survey& found) {
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
    json.Key("chip_details");
    json.StartArray();
    for (std::size_t chip = 0; chip < found.chunks_byChip.size(); ++chip) {
        if (found.chunks_byChip[chip] > 0) {
            const kavot_tpx3spidr::ChipSurvey& of = found.byChip[chip];
            const auto interval = heartbeatInterval_s(of);
            json.StartObject();
            json.Key("chip");
            json.Uint64(chip);
            json.Key("chunks");
            json.Uint64(found.chunks_byChip[chip]);
            json.Key("hits");
            json.Uint64(of.hits);
            json.Key("heartbeats");
            json.Uint64(of.heartbeats);
            json.Key("heartbeat_interval_s");
            optionalNumber(interval.has_value(), interval.value_or(0));
            json.Key("stale_heartbeats");
            json.Uint64(of.staleHeartbeats);
            json.Key("tdc_packets");
            json.Uint64(of.tdcPackets);
            json.Key("tdc_copies");
            json.Uint64(of.tdcCopies);
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
    json.Key("invalid_tdc_packets");
    json.Uint64(found.invalidTdcPackets);
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
    const kavot_tpx3spidr::ChipLayout canvas = found.defaultLayout();
    json.Key("convert_canvas");
    json.StartObject();
    json.Key("layout");
    json.String(canvas.get_name().c_str());
    json.Key("width_px");
    json.Int(canvas.width_px());
    json.Key("height_px");
    json.Int(canvas.height_px());
    json.Key("unplaced_chips");
    json.StartArray();
    for (const unsigned chip : found.chipsBeyond_defaultLayout()) {
        json.Uint(chip);
    }
    json.EndArray();
    json.EndObject();
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
    return buffer.GetString();
}

} // namespace kavot_tool::info

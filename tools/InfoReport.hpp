#pragma once

// What kavot info makes of a survey, shared by its text and its JSON output: times in seconds, the error vundrel
// would report and the warnings.

#include <optional>
#include <string>
#include <vector>

#include "Tpx3Survey.hpp"

namespace kavot_tool::info {

using kavot_tpx3spidr::Tpx3Survey;

double seconds(long ticks);

/// Hit times relative to the first global timestamp, or as the raw clock counts them when there is none.
long relative(const Tpx3Survey& found, long ticks);

/// The error vundrel would report first, or nothing.
std::string refusal(const Tpx3Survey& found);

/// The usual step between a chip's heartbeats; none without two that do not go backwards.
std::optional<double> heartbeatInterval_s(const kavot_tpx3spidr::ChipSurvey& chip);

/// A canvas as the user names it: "quad, 514 x 514 px".
std::string canvasName(const kavot_tpx3spidr::ChipLayout& layout);

/// TDC packets per second between the first and the last TDC time; none for fewer than two or no span.
std::optional<double> tdcRate_hz(const Tpx3Survey& found);

/// Where vundrel's result would not mean what the user may expect, one sentence each.
std::vector<std::string> warnings(const Tpx3Survey& found);

/// The survey as one JSON object, as `kavot info --json` prints it.
std::string info_json(const std::string& path, const Tpx3Survey& found);

} // namespace kavot_tool::info

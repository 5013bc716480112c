#include "ConvertOptions.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <CLI/CLI.hpp>

#include "ChipLayoutFile.hpp"
#include "KavotCommand.hpp"

namespace kavot_tool {

const char* const help_convert =
    "Usage: kavot convert INPUT.tpx3 OUTPUT.h5|OUTPUT.kavotphot [OPTIONS]\n"
    "\n"
    "Turns a recording into photons as the experiment saw them, with the clustering vundrel runs:\n"
    "  - continuous time over a recording of any length: each chip's 26.8 s pixel clock is followed with the\n"
    "    heartbeats (global time packets) of that chip, so a hit is placed right while it lies within 13.4 s of\n"
    "    its chip's latest heartbeat; stale heartbeats from an earlier acquisition are ignored. Without any\n"
    "    heartbeat each chip's clock follows its own hits (gaps of more than 6.7 s are reported).\n"
    "  - the chips placed on one canvas by a layout (quad: 514 x 514 with a 2-pixel gap); clustering, centroids\n"
    "    and images work on the canvas.\n"
    "  - each trigger once, though several chips carry it; every photon gets its time since the latest trigger.\n"
    "\n"
    "OUTPUT.h5: /photons/x, y (float64, canvas pixels), t (int64 ticks of 1.5625 ns, the first hit's time), tof\n"
    "(int64 ticks since the latest trigger, -1 before the first), trigger (int64 index into /triggers/t, -1\n"
    "before the first), n_hits (uint16), tot_sum, tot_max (uint32, ToT in 25 ns), chip (uint8, of the first hit),\n"
    "and /triggers/t (int64 ticks, ascending, each trigger once); attributes hold the units, the canvas, the\n"
    "layout, every setting, the program and the source. OUTPUT.kavotphot: the photon file vundrel writes (x, y\n"
    "on the canvas, t, the triggers), which kavot summary, csv, image and the Python reader read.\n"
    "\n"
    "  --dtime TIME          distance in time, with its unit: ns, us, ms or s (default 100ns)\n"
    "  --dspace PIXELS       distance in space (default 2)\n"
    "  --min-hits N          fewest hits in a photon, 1 to 65535 (default 2)\n"
    "  --max-hits N          most hits in a photon, 1 to 65535 (default 200)\n"
    "  --min-weight W        lower bound of a cluster's weight, the sum of ToT + 1 (default 1)\n"
    "  --max-weight W        upper bound of that weight (default 5000)\n"
    "  --algorithm NAME      default (= fullChain_direct), checkNextOnly or forwardChain_pixelBuildup\n"
    "  --layout LAYOUT       single, quad, overlay (every chip on one 256 x 256 frame, as vundrel) or a layout\n"
    "                        file FILE.json ({\"detector\": {\"chip_transformations\": [{\"chip_id\": 0,\n"
    "                        \"matrix\": [[1,0,258],[0,1,0]]}, ...]}}); default: quad when chips 1 to 3 appear,\n"
    "                        single otherwise\n"
    "  --trigger EDGE        tdc1-rising (default), tdc1-falling, tdc2-rising or tdc2-falling\n"
    "  --image OUT.tiff      also write the photon counts on the canvas as a 32-bit TIFF\n"
    "  --bin N               bins per pixel of that image, 1 to 64 (default 8)\n"
    "  --threads N           CPUs to use, 1 to 256 (default: every CPU the process may run on, at most 16)\n"
    "  --compression KIND    of OUTPUT.h5, lossless: fast (default; the integer columns packed to the bits their\n"
    "                        values need, about half the size), small (every column shuffled and deflated, about\n"
    "                        a quarter, several times the time) or none\n"
    "\n"
    "Outputs appear complete or not at all. A progress line is shown while standard error is a terminal.\n";

namespace {

using kavot_tpx3spidr::Time;
using kavot_tpx3spidr::tpx3::TdcKind;

[[noreturn]] void refuse(const std::string& option, const std::string& text, const std::string& accepted) {
    throw std::invalid_argument(option + " \"" + text + "\": " + accepted + "!");
}

/// The whole of `text` as a number, or nothing.
std::optional<double> number(const std::string& text) {
    double value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

unsigned whole(const std::string& option, const std::string& text, unsigned lowest, unsigned highest) {
    unsigned value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < lowest || value > highest) {
        refuse(option, text, "give a whole number from " + std::to_string(lowest) + " to " + std::to_string(highest));
    }
    return value;
}

double nonNegative(const std::string& option, const std::string& text, double highest, const std::string& what) {
    const std::optional<double> value = number(text);
    if (!value || *value < 0 || *value > highest) {
        refuse(option, text, "give " + what);
    }
    return *value;
}

std::optional<kavot_tpx3spidr::ChipLayout> layoutFor(const std::string& option, const std::string& text) {
    if (text == "auto") {
        return std::nullopt;
    }
    if (text == "single") {
        return kavot_tpx3spidr::ChipLayout::single();
    }
    if (text == "quad") {
        return kavot_tpx3spidr::ChipLayout::quad();
    }
    if (text == "overlay") {
        return kavot_tpx3spidr::ChipLayout::overlay();
    }
    if (!has_suffix(text, ".json")) {
        refuse(option, text, "give single, quad, overlay or a layout file FILE.json");
    }
    try {
        return read_chipLayout_file(text);
    } catch (const std::invalid_argument& error) {
        throw std::invalid_argument(option + ": " + error.what());
    }
}

} // namespace

Time parse_duration(const std::string& option, const std::string& text) {
    struct Unit {
        const char* name;
        double seconds;
    };
    constexpr Unit units[] = {{"ns", 1e-9}, {"us", 1e-6}, {"\u00b5s", 1e-6}, {"ms", 1e-3}, {"s", 1.0}};
    const char* const accepted = "give a time from 0 to 1 s with its unit: ns, us, ms or s (such as 100ns)";
    for (const Unit& unit : units) {
        const std::string suffix = unit.name;
        if (text.size() > suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0) {
            const std::optional<double> value = number(text.substr(0, text.size() - suffix.size()));
            if (!value || *value < 0 || *value * unit.seconds > 1.0) {
                refuse(option, text, accepted);
            }
            return Time::make_from_seconds<true>(*value * unit.seconds);
        }
    }
    refuse(option, text,
           number(text) ? std::string("a time needs its unit: ns, us, ms or s (such as 100ns)") : accepted);
}

std::string OptionNames::operator()(const std::string& name) const {
    std::string shown = prefix + name;
    if (underscores) {
        std::replace(shown.begin(), shown.end(), '-', '_');
    }
    return shown;
}

void set_convertOption(ConvertCommandLine& line,
                       const std::string& name,
                       const std::string& value,
                       const OptionNames& names) {
    auto& c = line.settings.clustering;
    const std::string shown = names(name);
    const double largest = std::numeric_limits<double>::max();
    if (name == "dtime") {
        c.dTime = parse_duration(shown, value);
    } else if (name == "dspace") {
        c.dSpace = nonNegative(shown, value, 4096, "a distance in pixels from 0 to 4096 (such as 2)");
    } else if (name == "min-hits") {
        c.nPxMin = whole(shown, value, 1, 65535);
    } else if (name == "max-hits") {
        c.nPxMax = whole(shown, value, 1, 65535);
    } else if (name == "min-weight") {
        c.weightMin = nonNegative(shown, value, largest, "a weight of 0 or more (such as 1)");
    } else if (name == "max-weight") {
        c.weightMax = nonNegative(shown, value, largest, "a weight of 0 or more (such as 5000)");
    } else if (name == "algorithm") {
        try {
            line.settings.algorithm = algorithm_fromName(value);
        } catch (const std::invalid_argument&) {
            refuse(shown, value, "give default, fullChain_direct, checkNextOnly or forwardChain_pixelBuildup");
        }
        line.settings.algorithmName = value;
    } else if (name == "layout") {
        line.layoutArgument = value;
        line.settings.layout = layoutFor(shown, value);
    } else if (name == "trigger") {
        constexpr std::pair<const char*, TdcKind> edges[] = {{"tdc1-rising", TdcKind::tdc1Rising},
                                                             {"tdc1-falling", TdcKind::tdc1Falling},
                                                             {"tdc2-rising", TdcKind::tdc2Rising},
                                                             {"tdc2-falling", TdcKind::tdc2Falling}};
        const auto* found =
            std::find_if(std::begin(edges), std::end(edges), [&](const auto& edge) { return value == edge.first; });
        if (found == std::end(edges)) {
            refuse(shown, value, "give tdc1-rising, tdc1-falling, tdc2-rising or tdc2-falling");
        }
        line.settings.trigger = found->second;
    } else if (name == "image") {
        if (!has_suffix(value, ".tiff") && !has_suffix(value, ".tif")) {
            refuse(shown, value, "give a file name ending in .tiff or .tif");
        }
        line.image = value;
    } else if (name == "bin") {
        line.binsPerPixel = whole(shown, value, 1, 64);
    } else if (name == "threads") {
        line.settings.threads = whole(shown, value, 1, 256);
    } else if (name == "compression") {
        constexpr std::pair<const char*, Hdf5Compression> kinds[] = {
            {"fast", Hdf5Compression::fast}, {"small", Hdf5Compression::small}, {"none", Hdf5Compression::none}};
        const auto* found =
            std::find_if(std::begin(kinds), std::end(kinds), [&](const auto& kind) { return value == kind.first; });
        if (found == std::end(kinds)) {
            refuse(shown, value, "give fast, small or none");
        }
        line.compression = found->second;
    } else {
        throw std::invalid_argument("unknown option " + shown + "!");
    }
}

void check_convertOptions(const ConvertCommandLine& line, const OptionNames& names) {
    const auto& c = line.settings.clustering;
    if (c.nPxMin > c.nPxMax) {
        throw std::invalid_argument(names("min-hits") + " " + std::to_string(c.nPxMin) + " is above " +
                                    names("max-hits") + " " + std::to_string(c.nPxMax) +
                                    ": no photon could be accepted!");
    }
    if (c.weightMin > c.weightMax) {
        throw std::invalid_argument(names("min-weight") + " is above " + names("max-weight") +
                                    ": no photon could be accepted!");
    }
}

void check_paths(const std::string& input, const std::string& output, const OptionNames& names) {
    if (!has_suffix(input, ".tpx3")) {
        refuse(names.underscores ? "path" : "INPUT", input, "give a .tpx3 recording");
    }
    if (!has_suffix(output, ".h5") && !has_suffix(output, ".hdf5") && !has_suffix(output, ".kavotphot")) {
        refuse(names.underscores ? "output" : "OUTPUT", output, "give a file name ending in .h5 or .kavotphot");
    }
}

ConvertCommandLine parse_convertOptions(const std::vector<std::string>& args) {
    ConvertCommandLine line;
    CLI::App app("kavot convert", "kavot convert");
    app.set_help_flag();
    app.allow_extras(false);
    std::vector<std::string> operands;
    app.add_flag("-h,--help", line.help);
    app.add_option("operands", operands);
    const char* const names[] = {"dtime",  "dspace",  "min-hits", "max-hits", "min-weight", "max-weight", "algorithm",
                                 "layout", "trigger", "image",    "bin",      "threads",    "compression"};
    std::vector<std::pair<std::string, std::optional<std::string>>> given;
    given.reserve(std::size(names));
    for (const char* name : names) {
        given.emplace_back(name, std::nullopt);
        app.add_option(std::string("--") + name, given.back().second);
    }
    try {
        // CLI11 takes the arguments in reverse order.
        std::vector<std::string> reversed(args.rbegin(), args.rend());
        app.parse(reversed);
    } catch (const CLI::ParseError& error) {
        throw std::invalid_argument(std::string(error.what()) + " (see kavot convert --help)");
    }
    if (line.help) {
        return line;
    }
    if (operands.size() != 2) {
        throw std::invalid_argument(
            std::string(operands.size() < 2 ? "missing" : "extra") +
            " arguments (usage: kavot convert INPUT.tpx3 OUTPUT.h5|OUTPUT.kavotphot [OPTIONS])");
    }
    line.input = operands[0];
    line.output = operands[1];
    const OptionNames commandLine{"--", false};
    check_paths(line.input, line.output, commandLine);
    for (const auto& [name, value] : given) {
        if (value) {
            set_convertOption(line, name, *value, commandLine);
        }
    }
    check_convertOptions(line, commandLine);
    return line;
}

} // namespace kavot_tool

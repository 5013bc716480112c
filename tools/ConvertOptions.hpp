#pragma once

// The command line of kavot convert: options that say their units, parsed with CLI11, every value checked with one
// line that names the option and what it accepts.

#include <optional>
#include <string>
#include <vector>

#include "Conversion.hpp"
#include "Hdf5File.hpp"

namespace kavot_tool {

/// What kavot convert is asked to do.
struct ConvertCommandLine {
    bool help = false;
    std::string input;
    std::string output;
    std::string layoutArgument = "auto"; ///< as given: auto, single, quad, overlay or a file
    ConversionSettings settings;
    std::optional<std::string> image;
    unsigned binsPerPixel = 8;
    Hdf5Compression compression = Hdf5Compression::fast;
};

/// The command line after `kavot convert`. Throws `std::invalid_argument` with one line for any bad value,
/// before anything is read or written.
ConvertCommandLine parse_convertOptions(const std::vector<std::string>& args);

/// How messages name the options: "--min-hits" on the command line, "min_hits" as a Python argument.
struct OptionNames {
    std::string prefix;
    bool underscores;
    [[nodiscard]] std::string operator()(const std::string& name) const;
};

/// Sets the option `name` (as on the command line, without dashes: dtime, dspace, min-hits, max-hits, min-weight,
/// max-weight, algorithm, layout, trigger, image, bin, threads, compression) from its text. Throws
/// `std::invalid_argument` with one line naming the option as `names` shows it and what it accepts.
void set_convertOption(ConvertCommandLine& line,
                       const std::string& name,
                       const std::string& value,
                       const OptionNames& names);

/// Refuses bounds that exclude each other, once every option is set.
void check_convertOptions(const ConvertCommandLine& line, const OptionNames& names);

/// Refuses an input that is no .tpx3 recording and an output of no known kind.
void check_paths(const std::string& input, const std::string& output, const OptionNames& names);

/// A time with its unit (ns, us, ms or s), as ticks of 1.5625 ns, from 0 to 1 s. `option` names it in messages.
kavot_tpx3spidr::Time parse_duration(const std::string& option, const std::string& text);

extern const char* const help_convert;

} // namespace kavot_tool

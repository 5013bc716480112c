#pragma once

// The subcommands of kavot and the command line they share: operands, a few switches and --help.

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace kavot_tool {

/// A subcommand's command line after parsing. `help` set means: print the help text and do nothing else.
struct Arguments {
    bool help = false;
    std::vector<std::string> operands;
    std::set<std::string> switches;            ///< long switches given, without the dashes
    std::map<std::string, std::string> values; ///< long options given with a value; the last one wins

    [[nodiscard]] bool has(const std::string& name) const { return switches.count(name) != 0; }
    [[nodiscard]] std::optional<std::string> value(const std::string& name) const {
        const auto found = values.find(name);
        return found == values.end() ? std::nullopt : std::optional<std::string>(found->second);
    }
};

/// One subcommand: its name, its help text (the first line is its usage) and what it accepts.
struct Command {
    const char* name;
    const char* help;
    std::vector<std::string> switchNames; ///< a name ending in "=" takes a value (`--layout=quad`, `--layout quad`)
    std::size_t minOperands;
    std::size_t maxOperands;
    int (*run)(const Arguments&);
    /// For a command that parses its own options: the words after its name.
    int (*runWords)(const std::vector<std::string>&) = nullptr;
};

/// Parses `args` (the words after the subcommand's name) with getopt_long; switches may stand anywhere.
/// Throws `std::invalid_argument` with a one-line message naming the problem.
Arguments parse_arguments(const Command& command, const std::vector<std::string>& args);

int run_info(const Arguments& arguments);
int run_summary(const Arguments& arguments);
int run_csv(const Arguments& arguments);
int run_export(const Arguments& arguments);
int run_image(const Arguments& arguments);
int run_convert(const std::vector<std::string>& words);

extern const char* const help_info;
extern const char* const help_summary;
extern const char* const help_csv;
extern const char* const help_export;
extern const char* const help_image;
extern const char* const help_convert;

/// True when `path` ends in `suffix`, letters compared without regard to case (`RUN.TIFF` is a TIFF).
inline bool has_suffix(const std::string& path, const std::string& suffix) {
    return path.size() >= suffix.size() &&
           std::equal(suffix.begin(), suffix.end(), path.end() - static_cast<std::ptrdiff_t>(suffix.size()),
                      [](char a, char b) {
                          return std::tolower(static_cast<unsigned char>(a)) ==
                                 std::tolower(static_cast<unsigned char>(b));
                      });
}

} // namespace kavot_tool

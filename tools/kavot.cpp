// kavot: looks into .tpx3 recordings before they are converted, and into the .kavotphot photon files and raw
// count images that vundrel writes, and hands them on to other programs (CSV, HDF5, PNG, TIFF).

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <getopt.h>

#include "KavotCommand.hpp"
#include "RunResources.hpp"

namespace kavot_tool {

namespace {

const char* const usage =
    "Usage: kavot COMMAND ARGUMENTS...\n"
    "\n"
    "  kavot info FILE.tpx3 [--json]                  inspect a recording before converting it\n"
    "  kavot convert FILE.tpx3 OUT.h5|OUT.kavotphot   photons with continuous time, chips in place\n"
    "  kavot summary FILE.kavotphot                   photon and trigger counts and ranges\n"
    "  kavot csv FILE.kavotphot [--triggers]          photons (or trigger times) as CSV\n"
    "  kavot export FILE.kavotphot|FILE.tpx3 OUT.h5   photons, or a recording's hits on the canvas, as HDF5\n"
    "  kavot image INPUT OUT.png|OUT.tiff [BIN]       photon counts as a picture or a TIFF\n"
    "  kavot --version                                the program's version\n"
    "\n"
    "\"kavot COMMAND --help\" explains a command. Errors go to standard error as one line;\n"
    "the exit status is 0 on success and 1 on failure.\n";

const Command commands[] = {
    {"info", help_info, {"json"}, 1, 1, run_info},
    {"summary", help_summary, {}, 1, 1, run_summary},
    {"csv", help_csv, {"triggers"}, 1, 1, run_csv},
    {"export", help_export, {"vundrel", "globalTime_ignore", "layout="}, 2, 2, run_export},
    {"image", help_image, {}, 2, 3, run_image},
    {"convert", help_convert, {}, 2, 2, nullptr, run_convert},
};

} // namespace

Arguments parse_arguments(const Command& command, const std::vector<std::string>& args) {
    std::vector<std::string> names;
    std::vector<option> options;
    for (const auto& name : command.switchNames) {
        names.push_back(name.back() == '=' ? name.substr(0, name.size() - 1) : name);
    }
    options.push_back({"help", no_argument, nullptr, 'h'});
    for (std::size_t k = 0; k < names.size(); ++k) {
        options.push_back(
            {names[k].c_str(), command.switchNames[k].back() == '=' ? required_argument : no_argument, nullptr, 0});
    }
    options.push_back({nullptr, 0, nullptr, 0});

    std::vector<std::string> words{std::string("kavot ") + command.name};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    Arguments arguments;
    const std::string seeHelp = std::string(" (see kavot ") + command.name + " --help)";
    optind = 0; // restart getopt's scan: each command line is parsed from its beginning
    opterr = 0; // its own messages do not have our form; ours are thrown below
    int index = 0;
    // The leading ":" makes a missing value its own case.
    for (int c;
         (c = getopt_long(static_cast<int>(argv.size() - 1), argv.data(), ":h", options.data(), &index)) != -1;) {
        if (c == 'h') {
            arguments.help = true;
        } else if (c == 0 && options[static_cast<std::size_t>(index)].has_arg == required_argument) {
            arguments.values[options[static_cast<std::size_t>(index)].name] = optarg;
        } else if (c == 0) {
            arguments.switches.insert(options[static_cast<std::size_t>(index)].name);
        } else if (c == ':') {
            throw std::invalid_argument(std::string("option ") + argv[static_cast<std::size_t>(optind) - 1] +
                                        " needs a value" + seeHelp);
        } else {
            throw std::invalid_argument(std::string("unknown option ") + argv[static_cast<std::size_t>(optind) - 1] +
                                        seeHelp);
        }
    }
    // getopt_long has moved the operands behind the options, in argv, not in `words`.
    arguments.operands.assign(argv.begin() + optind, argv.end() - 1);
    if (!arguments.help &&
        (arguments.operands.size() < command.minOperands || arguments.operands.size() > command.maxOperands)) {
        // The first line of the help text is the usage, "Usage: kavot ...".
        const std::string help = command.help;
        const std::string usage = help.substr(7, help.find('\n') - 7);
        throw std::invalid_argument(std::string(arguments.operands.size() < command.minOperands ? "missing" : "extra") +
                                    " arguments (usage: " + usage + ")");
    }
    return arguments;
}

} // namespace kavot_tool

int main(int argc, char** argv) {
    using namespace kavot_tool;
    keepFreedMemory();
    const std::vector<std::string> args(argv + 1, argv + argc);
    const std::string first = args.empty() ? "" : args[0];
    if (first == "--help" || first == "-h") {
        std::fputs(usage, stdout);
        return 0;
    }
    if (first == "--version") {
        std::printf("kavot %s\n", KAVOT_VERSION);
        return 0;
    }
    try {
        if (args.empty()) {
            throw std::invalid_argument("missing command (see kavot --help)");
        }
        const auto command = std::find_if(std::begin(commands), std::end(commands),
                                          [&](const Command& candidate) { return first == candidate.name; });
        if (command == std::end(commands)) {
            throw std::invalid_argument("unknown command \"" + first + "\" (see kavot --help)");
        }
        if (command->runWords != nullptr) {
            return command->runWords({args.begin() + 1, args.end()});
        }
        const Arguments arguments = parse_arguments(*command, {args.begin() + 1, args.end()});
        if (arguments.help) {
            std::fputs(command->help, stdout);
            return 0;
        }
        return command->run(arguments);
    } catch (const std::exception& error) {
        std::fflush(stdout);
        std::fprintf(stderr, "kavot: %s\n", error.what());
        return 1;
    }
}

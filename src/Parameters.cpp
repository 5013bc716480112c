#include "Parameters.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

const option Parameters::long_options[] = {
    {"help", no_argument, nullptr, 'h'},
    {"license", no_argument, nullptr, 0},
    {"version", no_argument, nullptr, 0},
    {"paramsFile", required_argument, nullptr, 'f'},
    {"inputFile", required_argument, nullptr, 'i'},
    {"outputFile", required_argument, nullptr, 'o'},
    {"dSpace", required_argument, nullptr, 's'},
    {"dTime", required_argument, nullptr, 't'},
    {"nPxMin", required_argument, nullptr, 'k'},
    {"nPxMax", required_argument, nullptr, 'K'},
    {"TDC1", no_argument, nullptr, 'T'},
    {"photImgPath", required_argument, nullptr, 0},
    {"algorithm", required_argument, nullptr, 0},
    {"globalTime_ignore", no_argument, nullptr, 0},
    {"verbose", required_argument, nullptr, 0},
    {nullptr, 0, nullptr, 0},
};

Parameters::Parameters(int argc, char** argv, std::int32_t& logThreshold) {
    // A fresh scan of argv: the parser's position is process-wide, and 0 makes it start over completely.
    optind = 0;
    int index = 0;
    while (true) {
        const int value = getopt_long(argc, argv, "hf:i:o:s:t:k:K:m:M:T", long_options, &index);
        if (value == -1) {
            break;
        }
        switch (value) {
        case 'h':
            print_help(argv[0]);
            exitEarly = true;
            break;
        case 'f':
            read_parameterSettings_file(optarg);
            break;
        case 'i':
            inputFile = optarg;
            break;
        case 'o':
            outputFile = optarg;
            break;
        case 's':
            dSpace = std::stod(optarg);
            break;
        case 't':
            dTime = std::stod(optarg);
            break;
        case 'm':
            weightMin = std::stod(optarg);
            break;
        case 'M':
            weightMax = std::stod(optarg);
            break;
        case 'k':
            nPxMin = std::stoul(optarg, nullptr, 10);
            break;
        case 'K':
            nPxMax = std::stoul(optarg, nullptr, 10);
            break;
        case 'T':
            TDC1 = true;
            break;
        case 0: {
            const char* name = long_options[index].name;
            if (std::strcmp(name, "license") == 0) {
                print_license();
                exitEarly = true;
            } else if (std::strcmp(name, "version") == 0) {
                std::fputs(VUNDREL_VERSION "\n", stderr);
                exitEarly = true;
            } else if (std::strcmp(name, "photImgPath") == 0) {
                photImgPath = optarg;
            } else if (std::strcmp(name, "algorithm") == 0) {
                algorithm = optarg;
            } else if (std::strcmp(name, "globalTime_ignore") == 0) {
                useGlobalTime = false;
            } else if (std::strcmp(name, "verbose") == 0) {
                logThreshold = std::stoi(optarg, nullptr, 10);
            }
            break;
        }
        default:
            // Unknown option, missing argument or an argument where none is taken: getopt_long has written
            // its diagnostic; the run ends without processing, but parsing goes on.
            exitEarly = true;
            break;
        }
    }
    if (optind < argc) {
        throw std::invalid_argument(std::string("excess argument: ") + argv[optind] + " !");
    }
}

void Parameters::print_help(const char* programName) const {
    std::fprintf(stderr,
                 "Tamsel - Quillon Vundrel for Timepix3 SPIDR\n"
                 "Usage: %s [OPTIONS]\n"
                 "Example: %s -s 10 -t 1e-6 -i filename.tpx3 -o filename.kavotphot\n"
                 "\n"
                 "OPTIONS\n"
                 "  -h, --help               Print out this help\n"
                 "      --license            Summary license information\n"
                 "      --version            Version number\n"
                 "\n"
                 "  -i, --inputFile          Path to the input file, must not contain commas\n"
                 "  -o, --outputFile         Path (including file name) under which the oputput should be saved, "
                 "must not contain commas\n"
                 "  -f, --paramsFile         Path to a .json file where processing parameters are defined  "
                 "-s, --dspace             Distance in space for pixel search [px] (default: %g)\n"
                 "  -t, --dtime              Distance in time for pixel search [s] (default: %g)\n"
                 "  -k, --nPxMin             Minimum number of pixels in a photon event (default: %ld)\n"
                 "\n"
                 "  -T, --TDC1               Use TDC1 as trigger input (TDC1 is ignored by default)\n"
                 "\n",
                 programName, programName, dSpace, dTime, static_cast<long>(nPxMin));
}

void Parameters::print_license() const {
    std::fputs("Tamsel - Quillon Vundrel for Timepix3 SPIDR\n"
               "Copyright (c) 2026 the vundrel developers.\n"
               "Released under the MIT License: use, copy, modify, merge, publish and distribute it freely, with\n"
               "this notice kept in all copies. It comes without any warranty; the authors are not liable for\n"
               "any damage arising from its use.\n",
               stderr);
}

namespace {

constexpr std::size_t maxNesting_levels = 1000;

/// The deepest nesting of arrays and objects in a JSON text, brackets inside strings not counted. Used only to
/// refuse absurd nesting before parsing: it does not validate the text, the parser does.
std::size_t nestingDepth(const std::string& json) {
    std::size_t depth = 0;
    std::size_t deepest = 0;
    bool inString = false;
    for (std::size_t i = 0; i < json.size(); ++i) {
        const char c = json[i];
        if (inString) {
            if (c == '\\') {
                ++i; // the escaped character cannot end the string
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return deepest;
}

} // namespace

void Parameters::read_parameterSettings_file(const std::string& path) {
    // A parameter file is a small regular file. A stream without end (a device, a pipe that never closes) or a
    // giant file would otherwise be read until memory runs out.
    constexpr std::uintmax_t maxSize_bytes = std::uintmax_t{64} << 20;
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        throw std::invalid_argument("Unable to open parameter file \"" + path + "\" !");
    }
    const std::uintmax_t size_bytes = std::filesystem::file_size(path, error);
    if (error || size_bytes > maxSize_bytes) {
        throw std::invalid_argument("Parameter file \"" + path + "\" is larger than 64 MiB!");
    }
    std::ifstream stream(path, std::ios::in | std::ios::binary);
    if (!stream.is_open()) {
        throw std::invalid_argument("Unable to open parameter file \"" + path + "\" !");
    }
    std::string json(static_cast<std::size_t>(size_bytes), '\0');
    stream.read(json.data(), static_cast<std::streamsize>(json.size()));
    if (stream.bad()) {
        throw std::invalid_argument("Unable to read parameter file \"" + path + "\" !");
    }
    json.resize(static_cast<std::size_t>(stream.gcount())); // the file may have shrunk since its size was taken

    // The parser descends recursively; a file nested thousands of levels deep would exhaust the stack first.
    if (nestingDepth(json) > maxNesting_levels) {
        throw std::invalid_argument("Parameter file \"" + path + "\" is nested more than " +
                                    std::to_string(maxNesting_levels) + " levels deep!");
    }
    rapidjson::Document document;
    document.Parse(json.c_str(), json.size());
    if (document.HasParseError()) {
        throw std::invalid_argument("Parameter file \"" + path +
                                    "\" is not valid JSON: " + rapidjson::GetParseError_En(document.GetParseError()) +
                                    " (at byte " + std::to_string(document.GetErrorOffset()) + ")!");
    }
    if (!document.IsObject()) {
        throw std::invalid_argument("Parameter file \"" + path + "\" does not hold a JSON object at its root!");
    }
    const auto settings = document.FindMember("vundrel");
    if (settings == document.MemberEnd()) {
        throw std::invalid_argument("Key \"vundrel\" missing!");
    }
    if (!settings->value.IsObject()) {
        throw std::invalid_argument("Key \"vundrel\" expected to be a JSON Object!");
    }
    auto& object = settings->value;
    if (object.HasMember("dSpace")) {
        dSpace = json_getValue_helper<double>(object, "dSpace");
    }
    if (object.HasMember("dTime")) {
        dTime = json_getValue_helper<double>(object, "dTime");
    }
    if (object.HasMember("nPxMin")) {
        nPxMin = json_getValue_helper<unsigned long>(object, "nPxMin");
    }
    if (object.HasMember("nPxMax")) {
        nPxMax = json_getValue_helper<unsigned long>(object, "nPxMax");
    }
    if (object.HasMember("TDC1")) {
        TDC1 = json_getValue_helper<bool>(object, "TDC1");
    }
    if (object.HasMember("algorithm")) {
        algorithm = json_getValue_helper<std::string>(object, "algorithm");
    }
}

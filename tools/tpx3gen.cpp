// Writes a synthetic .tpx3 file; see --help.

#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>

#include <getopt.h>

#include "Tpx3Generator.hpp"

namespace {

const char* const usage =
    "Usage: tpx3gen -o FILE.tpx3 [OPTIONS]\n"
    "Writes a synthetic Timepix3 SPIDR recording of an intensified photon-counting camera.\n"
    "  -o, --output FILE        file to write (required)\n"
    "  -n, --hits N             number of pixel hits (default 1000000)\n"
    "  -r, --rate HZ            hit rate in hits per second (default 1e7)\n"
    "  -s, --seed N             random seed; the same seed gives the same file (default 1)\n"
    "  -c, --cluster-size N     mean hits per photon, 1 to 20 (default 6)\n"
    "      --noise F            share of uncorrelated noise hits, 0 to 1 (default 0.05)\n"
    "  -d, --disorder SECONDS   readout delay of each hit, up to this much: out-of-order arrival (default 0)\n"
    "      --reverse            write the hits in reverse time order\n"
    "      --tdc-rate HZ        TDC1 trigger rate (default 1000)\n"
    "      --global-interval S  seconds between global time packets (default 0.01)\n"
    "      --start SECONDS      global time of the first timestamp (default 1)\n"
    "      --max-chunk N        largest chunk in packets, 1 to 8191 (default 1000)\n"
    "      --pattern NAME       camera (photon clusters and noise, default), chain (one pixel firing every\n"
    "                           --interval ticks) or spot (a 3 x 2 spot firing in turn, around)\n"
    "      --interval TICKS     ticks of 1.5625 ns between the hits of a chain or a spot (default 60)\n"
    "  -h, --help               print this text\n";

} // namespace

int main(int argc, char** argv) {
    tpx3gen::Settings settings;
    std::string output;
    const option options[] = {
        {"output", required_argument, nullptr, 'o'},
        {"hits", required_argument, nullptr, 'n'},
        {"rate", required_argument, nullptr, 'r'},
        {"seed", required_argument, nullptr, 's'},
        {"cluster-size", required_argument, nullptr, 'c'},
        {"noise", required_argument, nullptr, 'N'},
        {"disorder", required_argument, nullptr, 'd'},
        {"reverse", no_argument, nullptr, 'R'},
        {"tdc-rate", required_argument, nullptr, 'T'},
        {"global-interval", required_argument, nullptr, 'G'},
        {"start", required_argument, nullptr, 'S'},
        {"max-chunk", required_argument, nullptr, 'C'},
        {"pattern", required_argument, nullptr, 'P'},
        {"interval", required_argument, nullptr, 'I'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    try {
        int value = 0;
        while ((value = getopt_long(argc, argv, "o:n:r:s:c:d:h", options, nullptr)) != -1) {
            switch (value) {
            case 'o':
                output = optarg;
                break;
            case 'n':
                settings.hits = std::stoull(optarg);
                break;
            case 'r':
                settings.hitRate_perSecond = std::stod(optarg);
                break;
            case 's':
                settings.seed = std::stoull(optarg);
                break;
            case 'c':
                settings.meanClusterSize = std::stod(optarg);
                break;
            case 'N':
                settings.noiseFraction = std::stod(optarg);
                break;
            case 'd':
                settings.disorder_seconds = std::stod(optarg);
                break;
            case 'R':
                settings.reverse = true;
                break;
            case 'T':
                settings.tdcRate_perSecond = std::stod(optarg);
                break;
            case 'G':
                settings.globalTimeInterval_seconds = std::stod(optarg);
                break;
            case 'S':
                settings.startTime_seconds = std::stod(optarg);
                break;
            case 'C':
                settings.maxChunkPackets = static_cast<unsigned>(std::stoul(optarg));
                break;
            case 'P': {
                const std::string name = optarg;
                if (name != "camera" && name != "chain" && name != "spot") {
                    throw std::invalid_argument("unknown pattern " + name);
                }
                settings.pattern = name == "chain"  ? tpx3gen::Pattern::chain
                                   : name == "spot" ? tpx3gen::Pattern::spot
                                                    : tpx3gen::Pattern::camera;
                break;
            }
            case 'I':
                settings.chainInterval_ticks = std::stoll(optarg);
                break;
            case 'h':
                std::fputs(usage, stdout);
                return 0;
            default:
                std::fputs(usage, stderr);
                return 1;
            }
        }
        if (output.empty() || optind < argc) {
            std::fputs(usage, stderr);
            return 1;
        }
        const tpx3gen::Generated generated = tpx3gen::generate(settings);
        std::ofstream stream(output, std::ios::out | std::ios::binary | std::ios::trunc);
        stream.write(reinterpret_cast<const char*>(generated.words.data()),
                     static_cast<std::streamsize>(generated.words.size() * 8));
        stream.close();
        if (!stream) {
            std::cerr << "tpx3gen: cannot write " << output << "\n";
            return 1;
        }
        std::cout << "tpx3gen: wrote " << generated.hits.size() << " hits in " << generated.words.size() * 8
                  << " bytes to " << output << "\n";
    } catch (const std::exception& error) {
        std::cerr << "tpx3gen: " << error.what() << "\n";
        return 1;
    }
    return 0;
}

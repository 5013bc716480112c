// Writes a synthetic .tpx3 file; see --help.

#include <cinttypes>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>

#include <getopt.h>

#include "AcquisitionGenerator.hpp"
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
    "Whole detector recordings, streamed in time order (any of the options below): each chip in chunks of its\n"
    "own with its own heartbeats, every trigger (periodic at --tdc-rate) copied into each chip's stream,\n"
    "--disorder delaying TDC packets too; --hits counts the hits drawn, those that fall on no pixel included.\n"
    "      --chips N            1 (256 x 256), or 4: a quad on a 514 x 514 canvas around a 2-pixel gap; photons\n"
    "                           fall anywhere on the canvas, and hits over the gap are lost (default 1)\n"
    "      --duration SECONDS   length of the acquisition: rate x duration hits, in place of --hits\n"
    "      --heartbeat SECONDS  seconds between the global time packets of each chip, staggered between chips\n"
    "                           by up to 1 ms; 0 writes none (default 1)\n"
    "      --stale N            first N heartbeats per chip from an earlier acquisition, 61000 s ahead (default 0)\n"
    "      --lag-tail           readout lags as a busy chip has them: most hits a hundredth of --disorder\n"
    "                           late on average (exponentially), one in a thousand up to --disorder\n"
    "      --truth              photons at least 1 us apart and no noise; also writes FILE.truth.csv, one row\n"
    "                           per photon (centroid, time, trigger, ToF, hits, ToT, chip, centre), and\n"
    "                           FILE.triggers.csv. The hits of a photon come nearest first, a tick apart:\n"
    "                           clustering with dTime 100 ns and dSpace 3 recovers every photon (dSpace 3\n"
    "                           links its hits on both sides of the gap)\n"
    "  -h, --help               print this text\n";

/// The recording and, with --truth, the photons and triggers as the generator drew them.
class RecordingFiles {
public:
    RecordingFiles(const std::string& path, bool truth) : tpx3(open(path)) {
        if (truth) {
            photons = open(path + ".truth.csv");
            triggers = open(path + ".triggers.csv");
            std::fputs("x_raw,y_raw,t_ticks,trigger,tof_ticks,n_hits,tot_sum,tot_max,chip,cx_px,cy_px\n", photons);
            std::fputs("t_ticks\n", triggers);
        }
    }
    RecordingFiles(const RecordingFiles&) = delete;
    RecordingFiles& operator=(const RecordingFiles&) = delete;
    ~RecordingFiles() {
        for (std::FILE* file : {tpx3, photons, triggers}) {
            if (file != nullptr) {
                std::fclose(file);
            }
        }
    }

    void words(const std::uint64_t* data, std::size_t count) {
        std::fwrite(data, 8, count, tpx3);
        bytes += count * 8;
    }
    void trigger(std::int64_t t_ticks) {
        if (triggers != nullptr) {
            std::fprintf(triggers, "%" PRId64 "\n", t_ticks);
        }
    }
    void photon(const tpx3gen::TruthPhoton& p) {
        std::fprintf(photons, "%" PRIu64 ",%" PRIu64 ",%" PRId64 ",%" PRId64 ",%" PRId64 ",%u,%u,%u,%u,%.4f,%.4f\n",
                     p.x_raw, p.y_raw, p.t_ticks, p.trigger, p.tof_ticks, p.nHits, p.totSum, p.totMax, p.chip, p.cx_px,
                     p.cy_px);
    }
    /// Closes every file; false if any of them could not be written completely.
    bool close() {
        bool written = true;
        for (std::FILE** file : {&tpx3, &photons, &triggers}) {
            if (*file != nullptr) {
                written = std::ferror(*file) == 0 && std::fclose(*file) == 0 && written;
                *file = nullptr;
            }
        }
        return written;
    }
    std::uint64_t bytes = 0;

private:
    static std::FILE* open(const std::string& path) {
        std::FILE* file = std::fopen(path.c_str(), "wb");
        if (file == nullptr) {
            throw std::invalid_argument("cannot write " + path);
        }
        return file;
    }
    std::FILE* tpx3 = nullptr;
    std::FILE* photons = nullptr;
    std::FILE* triggers = nullptr;
};

int writeAcquisition(const tpx3gen::AcquisitionSettings& settings, const std::string& output) {
    tpx3gen::AcquisitionGenerator generator(settings); // refuses bad settings before any file is made
    RecordingFiles files(output, settings.truth);
    const tpx3gen::AcquisitionSummary summary = generator.run(files);
    if (!files.close()) {
        std::cerr << "tpx3gen: cannot write " << output << "\n";
        return 1;
    }
    std::cout << "tpx3gen: wrote " << summary.hitsWritten << " hits (" << summary.hitsLost
              << " more fell on no pixel) and " << summary.triggers << " triggers in " << files.bytes << " bytes to "
              << output << "\n";
    if (settings.truth) {
        std::cout << "tpx3gen: wrote " << summary.photons << " photons to " << output << ".truth.csv\n";
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    tpx3gen::AcquisitionSettings acquisition;
    tpx3gen::Settings& settings = acquisition.camera;
    std::string output;
    bool wholeDetector = false; // any option of the whole-detector recordings given
    bool oneStreamOnly = false; // any option the whole-detector recordings do not take
    bool hitsGiven = false;
    bool noiseGiven = false;
    std::optional<double> duration_seconds;
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
        {"chips", required_argument, nullptr, 'K'},
        {"duration", required_argument, nullptr, 'D'},
        {"heartbeat", required_argument, nullptr, 'H'},
        {"stale", required_argument, nullptr, 'A'},
        {"truth", no_argument, nullptr, 'U'},
        {"lag-tail", no_argument, nullptr, 'L'},
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
                hitsGiven = true;
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
                noiseGiven = true;
                break;
            case 'd':
                settings.disorder_seconds = std::stod(optarg);
                break;
            case 'R':
                settings.reverse = true;
                oneStreamOnly = true;
                break;
            case 'T':
                settings.tdcRate_perSecond = std::stod(optarg);
                break;
            case 'G':
                settings.globalTimeInterval_seconds = std::stod(optarg);
                oneStreamOnly = true;
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
                oneStreamOnly = true;
                break;
            }
            case 'I':
                settings.chainInterval_ticks = std::stoll(optarg);
                oneStreamOnly = true;
                break;
            case 'K':
                acquisition.chips = static_cast<unsigned>(std::stoul(optarg));
                wholeDetector = true;
                break;
            case 'D':
                duration_seconds = std::stod(optarg);
                wholeDetector = true;
                break;
            case 'H':
                acquisition.heartbeat_seconds = std::stod(optarg);
                wholeDetector = true;
                break;
            case 'A':
                acquisition.staleHeartbeats = static_cast<unsigned>(std::stoul(optarg));
                wholeDetector = true;
                break;
            case 'U':
                acquisition.truth = true;
                wholeDetector = true;
                break;
            case 'L':
                acquisition.lagTail = true;
                wholeDetector = true;
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
        if (wholeDetector) {
            if (oneStreamOnly) {
                throw std::invalid_argument("--reverse, --pattern, --interval and --global-interval write one chip's "
                                            "stream; whole-detector recordings take --heartbeat instead");
            }
            if ((duration_seconds && hitsGiven) || (duration_seconds && !(*duration_seconds > 0))) {
                throw std::invalid_argument("--duration takes a positive number of seconds, in place of --hits");
            }
            if (acquisition.truth && noiseGiven && settings.noiseFraction > 0) {
                throw std::invalid_argument("--truth writes photons alone: no --noise");
            }
            if (duration_seconds) {
                settings.hits =
                    static_cast<std::uint64_t>(std::llround(settings.hitRate_perSecond * *duration_seconds));
            }
            if (acquisition.truth) {
                settings.noiseFraction = 0;
            }
            return writeAcquisition(acquisition, output);
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

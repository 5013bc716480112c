// kavot convert: photons as the experiment saw them, with continuous time, the chips in place and each trigger once.

#include <cstdio>
#include <string>
#include <vector>

#include "ConversionOutputs.hpp"
#include "ConvertOptions.hpp"
#include "KavotCommand.hpp"

namespace kavot_tool {

namespace {

double seconds(long ticks) {
    return kavot_tpx3spidr::Time(ticks).get_seconds();
}

void report(const std::string& output, const ConversionFacts& facts) {
    std::printf("kavot convert: %llu photons from %llu hits into %s\n", static_cast<unsigned long long>(facts.photons),
                static_cast<unsigned long long>(facts.hits), output.c_str());
    std::string chips;
    for (const unsigned chip : facts.chips) {
        chips += (chips.empty() ? "" : ", ") + std::to_string(chip);
    }
    std::printf("canvas: %d x %d px, layout %s (chips in the recording: %s)\n", facts.layout.width_px(),
                facts.layout.height_px(), facts.layout.get_name().c_str(), chips.empty() ? "none" : chips.c_str());
    std::printf("time: %s", facts.followsData ? "no heartbeat, each chip's clock follows its data"
                                              : "each chip's clock follows its heartbeats");
    if (facts.photons > 0) {
        std::printf("; photons from %.6f s to %.6f s", seconds(facts.firstPhoton_ticks),
                    seconds(facts.lastPhoton_ticks));
    }
    std::printf("\ntriggers: %llu (from %llu TDC packets of the chosen edge); %llu photons before the first\n",
                static_cast<unsigned long long>(facts.triggers), static_cast<unsigned long long>(facts.triggerPackets),
                static_cast<unsigned long long>(facts.photonsBeforeFirstTrigger));
    if (facts.staleHeartbeats > 0) {
        std::printf("stale heartbeats: %llu, ignored (the clock was reset after them)\n",
                    static_cast<unsigned long long>(facts.staleHeartbeats));
    }
    for (const auto& gap : facts.gaps) {
        std::fprintf(stderr,
                     "kavot: warning: chip %u moved from %.6f s to %.6f s at once: times after such a gap may be off "
                     "by multiples of 26.8 s\n",
                     gap.chip, seconds(gap.from_ticks), seconds(gap.to_ticks));
    }
    if (facts.gapCount > facts.gaps.size()) {
        std::fprintf(stderr, "kavot: warning: %llu more such gaps\n",
                     static_cast<unsigned long long>(facts.gapCount - facts.gaps.size()));
    }
}

} // namespace

int run_convert(const std::vector<std::string>& words) {
    ConvertCommandLine line = parse_convertOptions(words);
    if (line.help) {
        std::fputs(help_convert, stdout);
        return 0;
    }
    line.settings.progress = true;
    const ConversionFacts facts = convert_toFiles(line);
    report(line.output, facts);
    return 0;
}

} // namespace kavot_tool

#include "Conversion.hpp"

#include <chrono>
#include <optional>
#include <utility>

#include <unistd.h>

#include "ProgressLine.hpp"
#include "RunResources.hpp"
#include "Tpx3CanvasDecoding.hpp"
#include "Tpx3ChipClockCensus.hpp"
#include "Tpx3Parts.hpp"
#include "TriggerTimes.hpp"

namespace kavot_tool {

namespace {

using namespace kavot_tpx3spidr;

/// Takes the photons in time order on the calling thread, gives each its time since the latest trigger, and
/// hands them to the outputs a batch at a time.
class ConversionSink {
public:
    using Record = PhotonMeasures;

    ConversionSink(const SpillingList<Time>& triggers,
                   const std::vector<ConversionOutput*>& outputs_,
                   ConversionFacts& facts_,
                   ProgressLine* progress_,
                   const HitsBehind& behind_,
                   const ConversionHooks& hooks_)
        : latest(triggers), outputs(outputs_), facts(facts_), progress(progress_), behind(behind_), hooks(hooks_) {
        batch.reserve(batch_photons);
    }

    void push(const PhotonMeasures& measures) {
        const long time = measures.photon.toa.get_value();
        const auto trigger = latest.at(time);
        if (trigger) {
            batch.push_back({measures, time - trigger->second, static_cast<long>(trigger->first)});
        } else {
            batch.push_back({measures, -1, -1});
            ++facts.photonsBeforeFirstTrigger;
        }
        if (batch.size() == batch_photons) {
            flush();
        }
    }

    void flush() {
        if (!batch.empty()) {
            if (facts.photons == 0) {
                facts.firstPhoton_ticks = batch.front().measures.photon.toa.get_value();
            }
            facts.lastPhoton_ticks = batch.back().measures.photon.toa.get_value();
        }
        facts.photons += batch.size();
        for (ConversionOutput* output : outputs) {
            output->photons(batch.data(), batch.size());
        }
        if (!batch.empty()) {
            const long toa = batch.back().measures.photon.toa.get_value();
            if (progress != nullptr) {
                progress->photonAt(toa, ProgressLine::Clock::now());
            }
            if (hooks.progress) {
                hooks.progress(behind.at(toa), behind.total());
            }
        }
        batch.clear();
        if (hooks.checkpoint) {
            hooks.checkpoint();
        }
    }

private:
    static constexpr std::size_t batch_photons = 4096;

    LatestTrigger latest;
    const std::vector<ConversionOutput*>& outputs;
    ConversionFacts& facts;
    ProgressLine* progress;
    const HitsBehind& behind;
    const ConversionHooks& hooks;
    std::vector<ConvertedPhoton> batch;
};

} // namespace

ConversionFacts convert_recording(const std::string& input,
                                  const ConversionSettings& settings,
                                  const std::vector<ConversionOutput*>& outputs,
                                  const std::string& spillFolder,
                                  const ConversionHooks& hooks) {
    const Tpx3InputFile file(input);
    Tpx3ChipClockCensus clock(settings.trigger);
    const unsigned workers = settings.threads > 0 ? settings.threads : usableCpus();
    const Tpx3Census census = census_tpx3(clock, file, spillFolder, hooks.checkpoint, workers > 1);
    ConversionFacts facts;
    facts.input = input;
    facts.inputSize_bytes = file.size_bytes();
    facts.hits = census.pixelCount;
    facts.triggerPackets = census.tdcCount;
    facts.layout = settings.layout ? *settings.layout : ChipLayout::for_chips(census.chipsSeen);
    for (unsigned chip = 0; chip < census.chipsSeen.size(); ++chip) {
        if (census.chipsSeen[chip]) {
            facts.chips.push_back(chip);
        }
    }
    facts.followsData = census.clocks.followsData;
    facts.staleHeartbeats = census.clocks.staleHeartbeats.size();
    facts.gaps = census.clocks.gaps;
    facts.gapCount = census.clocks.gapCount;
    const Tpx3CanvasDecoding decoding(census, facts.layout);
    const SpillingList<Time> triggers = sorted_triggers(census.tdcTriggers, spillFolder);
    facts.triggers = triggers.size();
    for (ConversionOutput* output : outputs) {
        output->begin(facts);
    }

    // Only a terminal shows the progress line; it is gone before anything else is written.
    std::optional<ProgressLine> progress;
    if (settings.progress && isatty(STDERR_FILENO) == 1) {
        progress.emplace(STDERR_FILENO, census, ProgressLine::Clock::now(), "kavot convert");
    }
    const HitsBehind behind(census);
    ConversionSink sink(triggers, outputs, facts, progress ? &*progress : nullptr, behind, hooks);
    const std::vector<Tpx3Part> parts = workers > 1 ? plan_parts(census, partSize_hits(census)) : Tpx3Part::whole();
    cluster_inParts(
        file, census, decoding, parts, settings.clustering.dTime.get_value(), workers, spillFolder, waitingHits_limit,
        [&](auto& sequence, auto& photons) {
            reconstruct_photonEvents_into(settings.algorithm, sequence, settings.clustering, photons);
        },
        sink, hooks.checkpoint);
    sink.flush();
    progress.reset();
    file.check_unchanged();
    for (ConversionOutput* output : outputs) {
        output->finish(facts, triggers);
    }
    return facts;
}

} // namespace kavot_tool

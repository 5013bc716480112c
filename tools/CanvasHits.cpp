#include "CanvasHits.hpp"

#include <algorithm>
#include <functional>
#include <utility>

#include "InOrderWorkers.hpp"
#include "Reconstruction_switch.hpp"
#include "RunResources.hpp"
#include "Tpx3CanvasDecoding.hpp"
#include "Tpx3ChipClockCensus.hpp"
#include "Tpx3HitSource.hpp"
#include "Tpx3Parts.hpp"
#include "TriggerTimes.hpp"

namespace kavot_tool {

using namespace kavot_tpx3spidr;

namespace {

/// The hits of a recording in parts decoded side by side, in order.
///
/// The parts are those a conversion plans (`plan_parts`), read as `cluster_inParts` reads them, with one
/// difference: a part is cut exactly at its nominal start. A distance of -1 makes any two consecutive hits lie
/// apart, so `PartSequence` ends a part at the first hit at or after the next part's start, where that part
/// begins. Each part's sequence is exact from its start on (see `Tpx3Parts.hpp`), and the time order is stable
/// (equal times in file order), so the parts one after the other are the time order of the whole recording.
class PartsInOrder {
public:
    PartsInOrder(const Tpx3InputFile& file,
                 const Tpx3Census& census,
                 const Tpx3CanvasDecoding& decoding,
                 std::vector<Tpx3Part> parts_,
                 unsigned workers,
                 const std::string& spillFolder)
        : parts(std::move(parts_)),
          run(
              parts.size(),
              workers,
              [&file, &census, &decoding, workers, spillFolder, this](std::size_t p,
                                                                      kavot::TaskOutput<PixelActivation>& output) {
                  Tpx3HitSource source(file, census, decoding, spillFolder, waitingHits_limit / 2 / workers,
                                       parts[p].firstBlock);
                  const std::optional<long> end = p + 1 < parts.size() ? parts[p + 1].start : std::nullopt;
                  PartSequence sequence(source, parts[p], end, -1, [&output] { output.checkpoint(); });
                  for (std::size_t k = 0; sequence.has(k); sequence.discardBefore(k)) {
                      for (const std::size_t stretch = sequence.readableEnd(); k < stretch; ++k) {
                          output.push(sequence[k]);
                      }
                  }
              },
              waitingHits_limit,
              std::size_t{1} << 16) {}

    /// Puts the next hits, at most `most`, at `out`; 0 at the end. Calls `checkpoint` (if any) now and then,
    /// also while it waits; it may throw.
    std::size_t read(PixelActivation* out, std::size_t most, const std::function<void()>& checkpoint) {
        std::size_t count = 0;
        while (count < most) {
            if (frontAt == front.size()) {
                if (checkpoint) {
                    checkpoint();
                }
                if (!run.next(front, checkpoint)) {
                    break;
                }
                frontAt = 0;
            }
            const std::size_t stretch = std::min(most - count, front.size() - frontAt);
            std::copy_n(front.data() + frontAt, stretch, out + count);
            count += stretch;
            frontAt += stretch;
        }
        return count;
    }

private:
    std::vector<Tpx3Part> parts;
    kavot::InOrderRun<PixelActivation> run;
    std::vector<PixelActivation> front; ///< the batch being read, from `frontAt` on
    std::size_t frontAt = 0;
};

} // namespace

struct CanvasHitReader::Open {
    Open(const std::string& path,
         std::optional<ChipLayout> chosen,
         const std::string& spillFolder_,
         std::function<void()> checkpoint_,
         unsigned threads)
        : file(path), clock(tpx3::TdcKind::tdc1Rising), census(census_tpx3(clock, file, spillFolder_, checkpoint_)),
          layout(chosen ? std::move(*chosen) : ChipLayout::for_chips(census.chipsSeen)), decoding(census, layout),
          spillFolder(spillFolder_), checkpoint(std::move(checkpoint_)) {
        const unsigned workers = threads > 0 ? threads : usableCpus();
        const std::vector<Tpx3Part> parts = workers > 1 ? plan_parts(census, partSize_hits(census)) : Tpx3Part::whole();
        if (parts.size() > 1) {
            inParts.emplace(file, census, decoding, parts, workers, spillFolder);
        } else {
            source.emplace(file, census, decoding, spillFolder, waitingHits_limit);
            source->set_checkpoint(checkpoint);
        }
    }

    Tpx3InputFile file;
    Tpx3ChipClockCensus clock;
    Tpx3Census census;
    ChipLayout layout;
    Tpx3CanvasDecoding decoding;
    std::string spillFolder;
    std::function<void()> checkpoint;
    std::optional<Tpx3HitSource<Tpx3CanvasDecoding>> source; ///< the recording as one part
    std::size_t next = 0;                                    ///< its next position
    std::optional<PartsInOrder> inParts;                     ///< or in parts side by side
};

CanvasHitReader::CanvasHitReader(const std::string& path,
                                 std::optional<ChipLayout> layout,
                                 const std::string& spillFolder,
                                 std::function<void()> checkpoint,
                                 unsigned threads)
    : open(std::make_unique<Open>(path, std::move(layout), spillFolder, std::move(checkpoint), threads)) {}

CanvasHitReader::~CanvasHitReader() = default;

std::size_t CanvasHitReader::read(PixelActivation* out, std::size_t most) {
    std::size_t count = 0;
    Open& o = *open;
    if (o.inParts) {
        count = o.inParts->read(out, most, o.checkpoint);
    }
    while (o.source && count < most && o.source->has(o.next)) {
        // The positions read so far lie next to each other up to readableEnd: taken a stretch at a time.
        const std::size_t stretch = std::min(most - count, o.source->readableEnd() - o.next);
        std::copy_n(&(*o.source)[o.next], stretch, out + count);
        count += stretch;
        o.next += stretch;
        o.source->discardBefore(o.next);
    }
    if (count == 0) {
        o.file.check_unchanged();
    }
    return count;
}

const ChipLayout& CanvasHitReader::get_layout() const noexcept {
    return open->layout;
}

std::uint64_t CanvasHitReader::total() const noexcept {
    return open->census.pixelCount;
}

SpillingList<Time> CanvasHitReader::triggers() const {
    return sorted_triggers(open->census.tdcTriggers, open->spillFolder);
}

namespace {

/// Collects the photons with their times since the latest trigger.
struct CollectingSink {
    using Record = PhotonMeasures;

    void push(const PhotonMeasures& measures) {
        const long time = measures.photon.toa.get_value();
        while (nextTrigger < triggers.size() && triggers[nextTrigger] <= time) {
            ++nextTrigger;
        }
        if (nextTrigger == 0) {
            photons.push_back({measures, -1, -1});
        } else {
            photons.push_back({measures, time - triggers[nextTrigger - 1], static_cast<long>(nextTrigger - 1)});
        }
    }

    const std::vector<long>& triggers;
    std::size_t nextTrigger = 0;
    std::vector<ConvertedPhoton> photons;
};

} // namespace

std::vector<ConvertedPhoton> cluster_hits(const std::vector<PixelActivation>& hits,
                                          const ConversionSettings& settings,
                                          const std::vector<long>& triggers) {
    ArraySequence sequence(hits.data(), hits.size());
    CollectingSink sink{triggers, 0, {}};
    reconstruct_photonEvents_into(settings.algorithm, sequence, settings.clustering, sink);
    return std::move(sink.photons);
}

} // namespace kavot_tool

#include "CanvasHits.hpp"

#include <algorithm>
#include <utility>

#include "Reconstruction_switch.hpp"
#include "Tpx3CanvasDecoding.hpp"
#include "Tpx3ChipClockCensus.hpp"
#include "Tpx3HitSource.hpp"

namespace kavot_tool {

using namespace kavot_tpx3spidr;

struct CanvasHitReader::Open {
    Open(const std::string& path,
         std::optional<ChipLayout> chosen,
         const std::string& spillFolder,
         std::function<void()> checkpoint)
        : file(path), clock(tpx3::TdcKind::tdc1Rising), census(census_tpx3(clock, file, spillFolder, checkpoint)),
          layout(chosen ? std::move(*chosen) : ChipLayout::for_chips(census.chipsSeen)),
          source(file, census, Tpx3CanvasDecoding(census, layout), spillFolder) {
        source.set_checkpoint(std::move(checkpoint));
    }

    Tpx3InputFile file;
    Tpx3ChipClockCensus clock;
    Tpx3Census census;
    ChipLayout layout;
    Tpx3HitSource<Tpx3CanvasDecoding> source;
    std::size_t next = 0;
};

CanvasHitReader::CanvasHitReader(const std::string& path,
                                 std::optional<ChipLayout> layout,
                                 const std::string& spillFolder,
                                 std::function<void()> checkpoint)
    : open(std::make_unique<Open>(path, std::move(layout), spillFolder, std::move(checkpoint))) {}

CanvasHitReader::~CanvasHitReader() = default;

std::size_t CanvasHitReader::read(PixelActivation* out, std::size_t most) {
    std::size_t count = 0;
    Open& o = *open;
    while (count < most && o.source.has(o.next)) {
        // The positions read so far lie next to each other up to readableEnd: taken a stretch at a time.
        const std::size_t stretch = std::min(most - count, o.source.readableEnd() - o.next);
        std::copy_n(&o.source[o.next], stretch, out + count);
        count += stretch;
        o.next += stretch;
        o.source.discardBefore(o.next);
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

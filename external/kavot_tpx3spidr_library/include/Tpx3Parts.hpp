#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "InOrderWorkers.hpp"
#include "PhotonEvents.hpp"
#include "PixelActivation.hpp"
#include "TimeOrder.hpp"
#include "Tpx3Census.hpp"
#include "Tpx3HitSource.hpp"
#include "Tpx3InputFile.hpp"

namespace kavot_tpx3spidr {

// A recording in parts that can be clustered each on its own, side by side, with the photons of all parts, put
// one after the other, exactly those of the whole.
//
// Why that holds: in every algorithm, no link, no cluster and no horizon crosses a gap of more than dTime
// between consecutive activations of the time order (a link and a horizon reach at most dTime; the full-chain
// search's marks of a rejected cluster lie within its scan, which the gap ends). So cutting the time order at
// such gaps cuts nothing any algorithm joins, and the photons of the pieces, in order, are the photons of the
// whole; which cluster gets which number does not show in the photons.
//
// Where to cut: part p has a nominal start time S (from the census, so that the parts hold about as many
// activations each). Its cut is the first activation h of the time order with t(h) >= S whose predecessor p(h)
// lies more than dTime before it (or that has none); the part begins at h and ends just before the cut of the
// next part. Both neighbouring parts find the same cut: each reads the time order of its blocks, which holds
// every activation at or after its own nominal start and is exact there, and takes the time of the predecessor
// as the larger of the previous activation it read and the latest time the census found before its first block
// (every activation of the blocks before lies there). As the gap has a positive width, every activation with
// the time of h comes after p(h): the cut is a time, and the part holds the activations in [cut, next cut).

/// A part of a recording: nominal start (none for the first part), the first block that can hold its
/// activations, and the latest time before that block.
struct Tpx3Part {
    std::optional<long> start;
    std::size_t firstBlock;
    long latestBefore;

    /// The plan of a recording clustered as one part.
    [[nodiscard]] static std::vector<Tpx3Part> whole() { return {{std::nullopt, 0, noTime_ticks}}; }
};

/// Parts large enough that starting one costs little next to clustering it: at least 1 M activations and 8
/// blocks.
[[nodiscard]] inline std::uint64_t partSize_hits(const Tpx3Census& census) noexcept {
    const std::uint64_t perBlock = census.blocks.empty() ? 0 : census.pixelCount / census.blocks.size();
    return std::max<std::uint64_t>(std::uint64_t{1} << 20, 8 * perBlock);
}

namespace detail {

/// Parts of `hitsPerPart` activations each (see `plan_parts`), those of the last `2 * hitsPerPart` a quarter as
/// large, or none where they would decode the recording more than about one and a quarter times. The workers
/// take the parts in turn, and the last one to finish runs alone for about half a part: short last parts keep
/// that short (20 M hits on two CPUs: about 11 ms alone with parts of 1 M hits).
[[nodiscard]] inline std::optional<std::vector<Tpx3Part>> plan_partsOf(const Tpx3Census& census,
                                                                       std::uint64_t hitsPerPart) {
    const std::vector<Tpx3Block>& blocks = census.blocks;
    std::vector<Tpx3Part> parts = Tpx3Part::whole();
    std::uint64_t inPart = 0;
    std::uint64_t left = census.pixelCount; // after block b
    for (std::size_t b = 0; b + 1 < blocks.size(); ++b) {
        inPart += blocks[b].pixelCount;
        left -= std::min(left, blocks[b].pixelCount);
        const std::uint64_t size = left < 2 * hitsPerPart ? std::max<std::uint64_t>(hitsPerPart / 4, 1) : hitsPerPart;
        const long start = blocks[b].minAfter;
        // A start no later than the one before would make an empty part.
        if (inPart < size || start == std::numeric_limits<long>::max() ||
            (parts.back().start && start <= *parts.back().start)) {
            continue;
        }
        // The first block whose activations can reach the start: the latest times only grow.
        const auto first = std::partition_point(blocks.begin(), blocks.end(),
                                                [start](const Tpx3Block& block) { return block.latestAfter < start; });
        const auto firstBlock = static_cast<std::size_t>(first - blocks.begin());
        parts.push_back({start, firstBlock, blocks[firstBlock].latestBefore});
        inPart = 0;
    }
    std::size_t decoded = 0;
    for (std::size_t p = 0; p < parts.size(); ++p) {
        std::size_t last = blocks.empty() ? 0 : blocks.size() - 1;
        if (p + 1 < parts.size()) {
            // The smallest times of later blocks only grow too. An activation at the end is certain once a
            // block is decoded after which all are later.
            const long end = *parts[p + 1].start;
            last = static_cast<std::size_t>(
                std::partition_point(blocks.begin(), blocks.end(),
                                     [end](const Tpx3Block& block) { return block.minAfter <= end; }) -
                blocks.begin());
            last = std::min(last, blocks.size() - 1);
        }
        decoded += last + 1 - std::min(last + 1, parts[p].firstBlock);
    }
    if (decoded > blocks.size() + blocks.size() / 4 + 2 * parts.size()) {
        return std::nullopt;
    }
    return parts;
}

} // namespace detail

/// Parts of about `hitsPerPart` activations each, as the census's blocks allow: part boundaries at blocks, with
/// the smallest time of the blocks from the boundary on as the nominal start.
///
/// A part decodes its blocks from the first one that can hold activations at its start up to the one after
/// which the next part's start is certain. Where the time order is far from the file's order (a readout lag
/// of many blocks), these ranges overlap so much that the parts would decode the recording several times over:
/// then the parts are made larger (a lag of a few blocks overlaps little with parts of many), and where even
/// two halves would overlap that much (a recording in reverse time order), the recording is one part.
[[nodiscard]] inline std::vector<Tpx3Part> plan_parts(const Tpx3Census& census, std::uint64_t hitsPerPart) {
    for (std::uint64_t size = std::max<std::uint64_t>(hitsPerPart, 1);; size *= 2) {
        std::optional<std::vector<Tpx3Part>> parts = detail::plan_partsOf(census, size);
        if (parts || size >= census.pixelCount) {
            return parts ? std::move(*parts) : Tpx3Part::whole();
        }
    }
}

/// The activations of one part, read from a sequence of the time order of the part's blocks (see above), as a
/// sequence for the clustering algorithms (see `HitSequence.hpp`): positions from 0, up to the next part's cut.
template <typename Source, typename Checkpoint>
class PartSequence {
public:
    /// `end` is the next part's nominal start (none for the last part). `checkpoint()` is called before each
    /// step of the source, and may throw to end the part early.
    PartSequence(Source& source_, const Tpx3Part& part, std::optional<long> end_, long dT_, Checkpoint checkpoint_)
        : source(source_), end(end_), dT(dT_), previous(part.latestBefore), checkpoint(std::move(checkpoint_)) {
        if (part.start) {
            // Up to the cut: activations before the start, and those after it up to the first gap. When an
            // activation at or after the next part's start comes first, the cut is the next part's too (no
            // activation before it in the order can be one), and this part is empty.
            std::size_t k = 0;
            for (;; ++k) {
                checkpoint();
                if (!source.has(k)) {
                    break;
                }
                const long time = source[k].get_toa().get_value();
                if (time >= *part.start && cutBefore(time)) {
                    break;
                }
                if (end && time >= *end) {
                    stop = true;
                    break;
                }
                previous = std::max(previous, time);
                source.discardBefore(k);
            }
            offset = k;
        }
        checked = offset;
    }

    [[nodiscard]] bool has(std::size_t position) {
        while (offset + position >= checked) {
            if (stop) {
                return false;
            }
            checkpoint();
            if (!source.has(checked)) {
                return false;
            }
            check(source.readableEnd());
        }
        return true;
    }
    [[nodiscard]] const PixelActivation& operator[](std::size_t position) const { return source[offset + position]; }
    [[nodiscard]] std::size_t readableEnd() const noexcept { return checked - offset; }
    void discardBefore(std::size_t position) { source.discardBefore(offset + position); }

private:
    /// Whether an activation at `time` lies after a gap of more than dTime (or has no predecessor).
    [[nodiscard]] bool cutBefore(long time) const noexcept {
        return previous == noTime_ticks || wrapping_sub(time, previous) > dT;
    }

    /// Looks at the activations up to `available` (exclusive) for the next part's cut.
    void check(std::size_t available) {
        // The times only grow along the sequence: while the last one at hand lies before the next part's start,
        // none of them is a cut, and the loop below would only carry the time along to that last one. This
        // skips the look at every activation of the part (3 % of a run's instructions).
        if (checked < available && (!end || source[available - 1].get_toa().get_value() < *end)) {
            previous = source[available - 1].get_toa().get_value();
            checked = available;
            return;
        }
        for (; checked < available; ++checked) {
            const long time = source[checked].get_toa().get_value();
            if (end && time >= *end && cutBefore(time)) {
                stop = true;
                return;
            }
            previous = time;
        }
    }

    Source& source;
    std::optional<long> end;
    long dT;
    long previous;           ///< the time of the activation before the one looked at next
    std::size_t offset = 0;  ///< the source's position of the part's first activation
    std::size_t checked = 0; ///< positions before it lie before the next part's cut
    Checkpoint checkpoint;
    bool stop = false; ///< the next part's cut was found at `checked`
};

/// Clusters a recording with `cluster(sequence, sink)` (a clustering algorithm) and gives its photons to
/// `sink`, in order, on this thread. One part streams all activations through the algorithm here; more parts
/// run side by side on `workers` threads, each with its own stream of the part's blocks, and their photons
/// are put one after the other. The activations that wait for their place in the time order take at most about
/// `memoryLimit_hits` of memory in all; beyond that they go to temporary files in `spillFolder` (see
/// `Tpx3HitSource`). `checkpoint`, if given, is called on this thread before each block it decodes and while it
/// waits for the photons of parts; it may throw to end the clustering.
template <typename Decoding, typename Cluster, typename Sink>
void cluster_inParts(const Tpx3InputFile& file,
                     const Tpx3Census& census,
                     const Decoding& decoding,
                     const std::vector<Tpx3Part>& parts,
                     long dT,
                     unsigned workers,
                     const std::string& spillFolder,
                     std::size_t memoryLimit_hits,
                     Cluster cluster,
                     Sink& sink,
                     const std::function<void()>& checkpoint = {}) {
    if (parts.size() == 1) {
        Tpx3HitSource source(file, census, decoding, spillFolder, memoryLimit_hits);
        source.set_checkpoint(checkpoint);
        cluster(source, sink);
        return;
    }
    workers = std::max(workers, 1U);
    kavot::run_inOrder<typename Sink::Record>(
        parts.size(), workers,
        [&](std::size_t p, kavot::TaskOutput<typename Sink::Record>& output) {
            Tpx3HitSource source(file, census, decoding, spillFolder, memoryLimit_hits / workers, parts[p].firstBlock);
            const std::optional<long> end = p + 1 < parts.size() ? parts[p + 1].start : std::nullopt;
            PartSequence sequence(source, parts[p], end, dT, [&output] { output.checkpoint(); });
            cluster(sequence, output);
        },
        [&](std::span<const typename Sink::Record> photons) {
            // A sink that takes photons a batch at a time does less per photon on this thread.
            if constexpr (requires { sink.push_all(photons); }) {
                sink.push_all(photons);
            } else {
                for (const auto& photon : photons) {
                    sink.push(photon);
                }
            }
        },
        std::size_t{1} << 21, checkpoint);
}

} // namespace kavot_tpx3spidr

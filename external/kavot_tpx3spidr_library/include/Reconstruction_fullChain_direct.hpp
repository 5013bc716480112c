#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "ClusterSteps.hpp"
#include "LinkLanes.hpp"
#include "LinkWindow.hpp"
#include "MarkedReader.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

namespace fullChainSearch {

/// Where the scan of one cluster stands.
struct Scan {
    std::size_t j;          ///< the next position to look at
    long horizon;           ///< a candidate later than this ends the scan
    std::size_t firstFree;  ///< the first candidate left unmarked (0: none; no seed after the first is at 0)
    std::size_t lastMarked; ///< the last position the cluster marked (its seed before any)
    std::size_t ahead;      ///< the next position the window has not looked at for marks of c
};

/// Scans on from `scan.j` with `window` holding the members that can link; `scan.j` ends at the position that
/// ended the scan.
template <typename Reader>
void scan_inWindow(
    Reader& sequence, LinkWindow& window, Scan& scan, PixelActivationChain& chain, long dT, std::size_t carriedEnd) {
    auto [j, horizon, firstFree, lastMarked, ahead] = scan;
    bool scanning = true;
    // The inner loop runs over the positions at hand and calls nothing that can move them; the sequence
    // decodes more between its runs.
    while (scanning && sequence.has(j)) {
        const auto at = sequence.span();
        for (; j < at.end; ++j) {
            const PixelActivation candidate = at.activations[j - at.first];
            const long tj = candidate.get_toa().get_value();
            if (tj > horizon) {
                scanning = false;
                break;
            }
            if (at.marks[j - at.first] != Mark::free) {
                continue;
            }
            for (; ahead <= carriedEnd && at.activations[ahead - at.first].get_toa().get_value() <= tj + dT; ++ahead) {
                if (at.marks[ahead - at.first] == Mark::current) {
                    window.add_carried(at.activations[ahead - at.first], tj - dT);
                }
            }
            if (window.links(candidate.get_x_px(), candidate.get_y_px(), tj - dT)) {
                chain.add_pixelActivation_notFirst(candidate);
                at.marks[j - at.first] = Mark::current;
                window.add_linked(candidate, tj - dT);
                lastMarked = j;
                horizon = std::max(horizon, tj + dT);
            } else if (firstFree == 0) {
                firstFree = j;
            }
        }
        if (firstFree == 0) {
            sequence.discardBefore(j);
        }
    }
    scan = {j, horizon, firstFree, lastMarked, ahead};
}

/// The end of a cluster's scan: its photon when it is accepted, and where the search for the next seed starts.
template <typename Reader, typename Sink>
[[gnu::always_inline]] inline std::size_t finish_cluster(Reader& sequence,
                                                         const PixelActivationChain& chain,
                                                         const Scan& scan,
                                                         std::size_t& carriedEnd,
                                                         const ReconstructionParameters_PhotonEvents& parameters,
                                                         Sink& sink) {
    const std::size_t next = scan.firstFree != 0 ? scan.firstFree : scan.j;
    if (accept_chain(chain, static_cast<double>(chain.weightSum), parameters)) {
        emit_photon(sink, chain);
        // The number moves on: no position the search reads again may carry it. Those marked since the last
        // accepted cluster lie at or before lastMarked or carriedEnd; the next seed is the first position read
        // again.
        sequence.settle(next, std::max(scan.lastMarked, carriedEnd));
        carriedEnd = 0;
    } else {
        carriedEnd = std::max(carriedEnd, scan.lastMarked);
    }
    return next;
}

/// The first free position at or after `i`, into `i`; false when the sequence ends before one. Nothing before
/// the seed is read again: the sequence may let it go when it is next asked for more. Without that, a run of
/// clusters that each leave a candidate unmarked (clusters side by side in time) would keep every position.
template <typename Reader>
[[gnu::always_inline]] inline bool find_seed(Reader& sequence, std::size_t& i) {
    for (;;) {
        const auto at = sequence.span();
        for (; i < at.end; ++i) {
            if (at.marks[i - at.first] == Mark::free) {
                sequence.discardBefore(i);
                return true;
            }
        }
        sequence.discardBefore(i);
        if (!sequence.has(i)) {
            return false;
        }
    }
}

/// The search with the members that can link in a `LinkWindow`.
template <typename Sequence, typename Sink>
void search_inWindow(Sequence& activations, const ReconstructionParameters_PhotonEvents& parameters, Sink& sink) {
    MarkedReader<Sequence> sequence(activations);
    const long dT = parameters.dTime.get_value();
    LinkWindow window(spaceLimit_px(parameters.dSpace));
    // The last position marked by an earlier (rejected) cluster that carries c; 0 for none (position 0 can only be
    // the first seed, which no later cluster reaches). Only up to it can the window find marks of c ahead; it lies
    // within the positions read so far.
    std::size_t carriedEnd = 0;
    std::size_t i = 0;
    while (find_seed(sequence, i)) {
        const PixelActivation seed = sequence[i];
        PixelActivationChain chain(seed);
        window.clear();
        window.add_linked(seed, seed.get_toa().get_value() - dT);
        Scan scan{i + 1, seed.get_toa().get_value() + dT, 0, i, i + 1};
        scan_inWindow(sequence, window, scan, chain, dT, carriedEnd);
        i = finish_cluster(sequence, chain, scan, carriedEnd, parameters, sink);
    }
}

#ifdef KAVOT_LINK_LANES
/// The search with the members that can link in `LinkLanes` while they fit, in a `LinkWindow` for the rest of a
/// cluster where they do not, and for a cluster that may find marks of c ahead.
template <typename Sequence, typename Sink>
[[gnu::target("avx2")]] void
search_inLanes(Sequence& activations, const ReconstructionParameters_PhotonEvents& parameters, Sink& sink) {
    MarkedReader<Sequence> sequence(activations);
    const long dT = parameters.dTime.get_value();
    const std::int64_t d = std::abs(std::int64_t{spaceLimit_px(parameters.dSpace)});
    LinkLanes lanes(dT, d);
    LinkWindow window(d);
    std::size_t carriedEnd = 0; // as in `search_inWindow`
    std::size_t i = 0;
    while (find_seed(sequence, i)) {
        auto at = sequence.span();
        const PixelActivation seed = at.activations[i - at.first];
        PixelActivationChain chain(seed);
        std::size_t j = i + 1;
        long horizon = seed.get_toa().get_value() + dT;
        std::size_t firstFree = 0;
        std::size_t lastMarked = i;
        bool inLanes = carriedEnd <= i && lanes.start(seed);
        bool inWindow = !inLanes;
        if (inWindow) [[unlikely]] {
            window.clear();
            window.add_linked(seed, seed.get_toa().get_value() - dT);
        }
        // The candidate and its mark by pointer, its position only where one is kept.
        const PixelActivation* candidateAt = at.activations + (j - at.first);
        const PixelActivation* endAt = at.activations + (at.end - at.first);
        Mark* markAt = at.marks + (j - at.first);
        const PixelActivation* lastMarkedAt = nullptr; // the last member since the view was taken, if any
        const auto positionOf = [&](const PixelActivation* p) {
            return at.first + static_cast<std::size_t>(p - at.activations);
        };
        while (inLanes) {
            if (candidateAt == endAt) {
                j = positionOf(candidateAt);
                if (lastMarkedAt != nullptr) {
                    lastMarked = positionOf(lastMarkedAt);
                    lastMarkedAt = nullptr;
                }
                if (firstFree == 0) {
                    sequence.discardBefore(j);
                }
                if (!sequence.has(j)) {
                    break;
                }
                at = sequence.span();
                candidateAt = at.activations + (j - at.first);
                endAt = at.activations + (at.end - at.first);
                markAt = at.marks + (j - at.first);
            }
            const PixelActivation& candidate = *candidateAt;
            const long tj = candidate.get_toa().get_value();
            if (tj > horizon) {
                break;
            }
            if (*markAt == Mark::free) {
                if (lanes.links(candidate)) {
                    chain.add_pixelActivation_notFirst(candidate);
                    *markAt = Mark::current;
                    lastMarkedAt = candidateAt;
                    // Not earlier than any member, so its time + dTime is the horizon (dTime >= 0 here).
                    horizon = tj + dT;
                    if (!lanes.add()) [[unlikely]] {
                        lanes.handOver(window, tj);
                        window.add_linked(candidate, tj - dT);
                        inLanes = false;
                        inWindow = true;
                    }
                } else if (firstFree == 0) {
                    firstFree = positionOf(candidateAt);
                }
            }
            ++candidateAt;
            ++markAt;
        }
        j = positionOf(candidateAt);
        if (lastMarkedAt != nullptr) {
            lastMarked = positionOf(lastMarkedAt);
        }
        Scan scan{j, horizon, firstFree, lastMarked, i + 1};
        if (inWindow) [[unlikely]] {
            // On a copy: while the chain's address stays in this function, the scan above keeps its sums in
            // registers rather than in memory.
            PixelActivationChain inWindowChain = chain;
            scan_inWindow(sequence, window, scan, inWindowChain, dT, carriedEnd);
            chain = inWindowChain;
        }
        i = finish_cluster(sequence, chain, scan, carriedEnd, parameters, sink);
    }
}
#endif

} // namespace fullChainSearch

/// The full-chain search, with the same result as the step-by-step description below, but less work.
///
/// Described step by step: every position carries an optional cluster number; seeds are taken in ascending
/// position, skipping marked ones; a seed i opens cluster number c (the number of photons accepted so far, so a
/// rejected cluster leaves its number to the next one) and marks itself; each later unmarked candidate j up to
/// the first one later than the horizon (latest member's time + dTime) is linked when some position k in the
/// window [k0, kend) carries c and lies within d of it, where kend is the first position later than
/// t_j + dTime and k0 is found by stepping back from j - 1 while k > i and the position before k is not earlier
/// than t_j - dTime; a linked candidate is marked with c.
///
/// What this implementation does instead, and why it is the same:
///  - Only existence of such a k matters, so the positions that carry c are tested against the window's bounds
///    instead of walking the window: k >= k0 holds exactly when k >= i and (k >= j - 1 or t_k >= t_j - dTime),
///    since times do not decrease with the position; k < kend exactly when t_k <= t_j + dTime. The clause
///    k >= j - 1 adds nothing: a candidate is only tested while t_j <= horizon = t_m + dTime for the cluster's
///    latest member m, which lies before j, so t_(j-1) >= t_m >= t_j - dTime. So the positions that can link j
///    are those at or after the seed that carry c with a time in [t_j - dTime, t_j + dTime]: `LinkWindow`.
///    Those before j carry c because the scan linked them or because a rejected cluster before marked them;
///    those after j only for the second reason (the scan has not reached them). A position enters the window
///    when it is marked by the scan, or, carrying c already, when t_j + dTime reaches it (a pointer walks
///    ahead of the scan for that, as far as rejected clusters have marked positions with c); it leaves when
///    t_j - dTime passes it.
///  - The next seed is the first candidate of this scan that stayed unmarked, if any: every position between
///    lies in the scan and was marked before or by it. Otherwise the search for it starts at the position that
///    ended the scan.
///  - Positions before the seed are never read again, and while the scan has left no candidate unmarked, none
///    before the scan's position either (the next seed lies after it): only the rest is kept. So the seed is
///    not marked: nothing reads its mark.
///  - A mark is one byte: a position carries c exactly when it is marked `current` (`Mark`). Those marked
///    since the last accepted cluster carry c; when a cluster is accepted, the `current` marks from the next
///    seed on become `taken` (none before it is read again), which touches only positions this scan or the
///    rejected clusters since the last accepted one have marked: work they did already.
/// Chooses the search for the settings and the processor: `search_inLanes` where it can run.
template <typename Sequence, typename Sink>
void reconstruct_photonEvents_fullChain_direct(Sequence& activations,
                                               const ReconstructionParameters_PhotonEvents& parameters,
                                               Sink& sink) {
#ifdef KAVOT_LINK_LANES
    if (fullChainSearch::LinkLanes::usable(parameters.dTime.get_value(),
                                           std::abs(std::int64_t{spaceLimit_px(parameters.dSpace)})) &&
        fullChainSearch::linkLanes_supported()) {
        fullChainSearch::search_inLanes(activations, parameters, sink);
        return;
    }
#endif
    fullChainSearch::search_inWindow(activations, parameters, sink);
}

/// Grows one cluster at a time from its seed: a later activation joins when it lies within dTime and the
/// distance dSpace (truncated to whole pixels, inclusive) of an activation already marked with the cluster's
/// number, tested once when the scan reaches it.
inline PhotonResult reconstruct_photonEvents_fullChain_direct(const Data_Tpx3Spidr& data,
                                                              const ReconstructionParameters_PhotonEvents& parameters) {
    return reconstruct_dataSet(data, parameters, [&](auto& sequence, auto& sink) {
        reconstruct_photonEvents_fullChain_direct(sequence, parameters, sink);
    });
}

} // namespace kavot_tpx3spidr

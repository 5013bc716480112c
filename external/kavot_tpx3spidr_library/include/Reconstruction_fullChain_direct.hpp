#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "ClusterSteps.hpp"
#include "LinkWindow.hpp"
#include "MarkedReader.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

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
template <typename Sequence, typename Sink>
void reconstruct_photonEvents_fullChain_direct(Sequence& activations,
                                               const ReconstructionParameters_PhotonEvents& parameters,
                                               Sink& sink) {
    using namespace fullChainSearch;
    MarkedReader<Sequence> sequence(activations);
    const long dT = parameters.dTime.get_value();
    LinkWindow window(spaceLimit_px(parameters.dSpace));
    // The last position marked by an earlier (rejected) cluster that carries c; 0 for none (position 0 can only be
    // the first seed, which no later cluster reaches). Only up to it can the window find marks of c ahead; it lies
    // within the positions read so far.
    std::size_t carriedEnd = 0;
    std::size_t i = 0;
    for (;;) {
        sequence.discardBefore(i);
        while (sequence.has(i) && sequence.mark(i) != Mark::free) {
            ++i;
        }
        if (!sequence.has(i)) {
            break;
        }
        sequence.discardBefore(i);
        const PixelActivation seed = sequence[i];
        PixelActivationChain chain(seed);
        window.clear();
        window.add_linked(seed, seed.get_toa().get_value() - dT);
        std::size_t ahead = i + 1; // the next position the window has not looked at for marks of c
        std::size_t lastMarked = i;
        long horizon = seed.get_toa().get_value() + dT;
        std::size_t firstFree = 0; // the first candidate left unmarked (0: none; no seed after the first is at 0)
        std::size_t j = i + 1;
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
                for (; ahead <= carriedEnd && at.activations[ahead - at.first].get_toa().get_value() <= tj + dT;
                     ++ahead) {
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
        const std::size_t next = firstFree != 0 ? firstFree : j;
        if (accept_chain(chain, static_cast<double>(chain.weightSum), parameters)) {
            emit_photon(sink, chain);
            // The number moves on: no position the search reads again may carry it. Those marked since the
            // last accepted cluster lie at or before lastMarked or carriedEnd; the next seed is the first
            // position read again.
            sequence.settle(next, std::max(lastMarked, carriedEnd));
            carriedEnd = 0;
        } else {
            carriedEnd = std::max(carriedEnd, lastMarked);
        }
        i = next;
    }
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

#pragma once

#include <cstddef>
#include <deque>
#include <optional>

#include "ClusterSteps.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "SlidingTable.hpp"
#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

/// One forward pass: every activation joins the chain of the most recent earlier activation within dTime
/// (inclusive) and dSpace (truncated to whole pixels, inclusive), or opens a chain; chains never merge. Photons
/// come from the chains in the order in which they were opened.
///
/// A chain can only grow through a member at most dTime before the new activation, so once the activation at
/// hand is more than dTime after a chain's latest member, that chain is complete. The chains are therefore
/// emitted from the front of the list as they complete, instead of all at the end: the same photons in the
/// same order, with only the open chains held.
template <typename Sequence, typename Sink>
void reconstruct_photonEvents_forwardChain_pixelBuildup(Sequence& sequence,
                                                        const ReconstructionParameters_PhotonEvents& parameters,
                                                        Sink& sink) {
    const short d = spaceLimit_px(parameters.dSpace);
    const long dT = parameters.dTime.get_value();
    struct OpenChain {
        PixelActivationChain chain;
        long latest_ticks;
    };
    std::deque<OpenChain> chains; // from chain number `firstOpen` on
    std::size_t firstOpen = 0;
    SlidingTable<std::size_t> chainOfPixel(0);
    const auto emit = [&](const OpenChain& open) {
        if (accept_chain(open.chain, static_cast<double>(open.chain.weightSum), parameters)) {
            sink.push(photonEvent_fromChain(open.chain));
        }
    };
    std::size_t oldestNeeded = 0; // the backward search never reads before this position
    for (std::size_t i = 0; sequence.has(i); ++i) {
        const PixelActivation P = sequence[i];
        const long ti = P.get_toa().get_value();
        while (!chains.empty() && ti > chains.front().latest_ticks + dT) {
            emit(chains.front());
            chains.pop_front();
            ++firstOpen;
        }
        // The search stops at the first position more than dTime before P; earlier ones are not needed.
        while (oldestNeeded + 1 < i && ti - sequence[oldestNeeded + 1].get_toa().get_value() > dT) {
            ++oldestNeeded;
        }
        sequence.discardBefore(oldestNeeded);
        chainOfPixel.discardBefore(oldestNeeded);

        std::optional<std::size_t> neighbour;
        for (std::size_t k = i; k-- > 0;) {
            const PixelActivation& Q = sequence[k];
            if (ti - Q.get_toa().get_value() > dT) {
                break;
            }
            if (PixelActivation::distSpace_smallerEqualThan(P, Q, d)) {
                neighbour = k;
                break;
            }
        }
        std::size_t chainNumber = 0;
        if (neighbour) {
            chainNumber = chainOfPixel.get(*neighbour);
            OpenChain& open = chains[chainNumber - firstOpen];
            open.chain.add_pixelActivation_notFirst(P);
            open.latest_ticks = ti;
        } else {
            chainNumber = firstOpen + chains.size();
            chains.push_back({PixelActivationChain(P), ti});
        }
        chainOfPixel.at(i) = chainNumber;
    }
    for (const auto& open : chains) {
        emit(open);
    }
}

/// Builds all chains of a data set in one forward pass.
inline PhotonResult
reconstruct_photonEvents_forwardChain_pixelBuildup(const Data_Tpx3Spidr& data,
                                                   const ReconstructionParameters_PhotonEvents& parameters) {
    return reconstruct_dataSet(data, parameters, [&](auto& sequence, auto& sink) {
        reconstruct_photonEvents_forwardChain_pixelBuildup(sequence, parameters, sink);
    });
}

} // namespace kavot_tpx3spidr

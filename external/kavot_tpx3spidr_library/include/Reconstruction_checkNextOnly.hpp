#pragma once

#include <cstddef>

#include "ClusterSteps.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

/// Runs of positions in which every activation lies within dSpace of its predecessor in x and in y (strictly,
/// on the unrounded distance) and strictly less than dTime after it; the mean weight per activation is bounded.
/// Positions are counted in std::size_t, so data sets of any size are handled.
template <typename Sequence, typename Sink>
void reconstruct_photonEvents_checkNextOnly(Sequence& sequence,
                                            const ReconstructionParameters_PhotonEvents& parameters,
                                            Sink& sink) {
    const double dSpace = parameters.dSpace;
    const long dT = parameters.dTime.get_value();
    std::size_t s = 0;
    while (sequence.has(s)) {
        sequence.discardBefore(s);
        PixelActivation predecessor = sequence[s];
        PixelActivationChain chain(predecessor);
        std::size_t j = s + 1;
        for (; sequence.has(j); ++j) {
            const PixelActivation candidate = sequence[j];
            const bool linked = static_cast<double>(predecessor.calcDist_x_px(candidate)) < dSpace &&
                                static_cast<double>(predecessor.calcDist_y_px(candidate)) < dSpace &&
                                candidate.get_toa().get_value() - predecessor.get_toa().get_value() < dT;
            if (!linked) {
                break;
            }
            chain.add_pixelActivation_notFirst(candidate);
            predecessor = candidate;
            sequence.discardBefore(j);
        }
        const double meanWeight = static_cast<double>(chain.weightSum / chain.nPx);
        if (accept_chain(chain, meanWeight, parameters)) {
            emit_photon(sink, chain);
        }
        s = j;
    }
}

/// Cuts the time order of a data set into runs of close neighbours.
inline PhotonResult reconstruct_photonEvents_checkNextOnly(const Data_Tpx3Spidr& data,
                                                           const ReconstructionParameters_PhotonEvents& parameters) {
    return reconstruct_dataSet(data, parameters, [&](auto& sequence, auto& sink) {
        reconstruct_photonEvents_checkNextOnly(sequence, parameters, sink);
    });
}

} // namespace kavot_tpx3spidr

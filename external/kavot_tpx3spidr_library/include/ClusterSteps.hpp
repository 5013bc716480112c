#pragma once

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "HitSequence.hpp"
#include "PhotonEvents.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

// The steps every clustering algorithm takes once a cluster is complete.

/// Photon acceptance: the hit count within [nPxMin, nPxMax] and the bounded quantity (the weight sum, or the
/// mean weight for checkNextOnly) within [weightMin, weightMax], all inclusive; a NaN weight bound accepts
/// nothing.
[[nodiscard]] inline bool accept_chain(const PixelActivationChain& chain,
                                       double quantity,
                                       const ReconstructionParameters_PhotonEvents& parameters) noexcept {
    return parameters.nPxMin <= chain.nPx && chain.nPx <= parameters.nPxMax && parameters.weightMin <= quantity &&
           quantity <= parameters.weightMax;
}

/// The photon event of a chain: the weighted centroid in 1/65536 pixel (the sums shifted by 16 bits and divided
/// without sign, truncating; the low 32 bits of the quotient are the raw length) at the chain's time.
[[nodiscard]] inline PhotonEvent_type photonEvent_fromChain(const PixelActivationChain& chain) noexcept {
    const auto raw = [&](std::uint64_t weightedSum) {
        return Length(static_cast<int>(static_cast<std::uint32_t>((weightedSum << 16) / chain.weightSum)));
    };
    return PhotonEvent_type(raw(chain.xWeightedSum), raw(chain.yWeightedSum), chain.toa);
}

/// Result assembly around one algorithm over a whole data set: `search(sequence, sink)` finds the photons; the
/// result carries a copy of the trigger times when the settings ask for them, and no trigger list otherwise.
template <typename Search>
[[nodiscard]] PhotonResult reconstruct_dataSet(const Data_Tpx3Spidr& data,
                                               const ReconstructionParameters_PhotonEvents& parameters,
                                               Search&& search) {
    DataSetSequence sequence(data);
    VectorPhotonSink sink;
    // One photon per activation is the most any algorithm can produce: the list never grows during the run.
    sink.photons.reserve(data.size());
    search(sequence, sink);
    auto triggers = parameters.TDC1 ? std::optional<std::vector<Time>>(std::in_place, data.get_tdc1Triggers())
                                    : std::optional<std::vector<Time>>();
    return PhotonResult(std::move(sink.photons), std::move(triggers));
}

} // namespace kavot_tpx3spidr

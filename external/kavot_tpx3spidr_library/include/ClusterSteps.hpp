#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "HitSequence.hpp"
#include "PhotonEvents.hpp"
#include "PhotonMeasures.hpp"
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

/// What a sink keeps of an accepted chain, by the sink's `Record` type: the photon event alone, or the photon
/// with the measures of its cluster.
[[nodiscard]] inline PhotonEvent_type record_fromChain(const PixelActivationChain& chain,
                                                       std::type_identity<PhotonEvent_type> /*record*/) noexcept {
    return photonEvent_fromChain(chain);
}
[[nodiscard]] inline PhotonMeasures record_fromChain(const PixelActivationChain& chain,
                                                     std::type_identity<PhotonMeasures> /*record*/) noexcept {
    // A conversion bounds the hits of a photon far below 2^32 (its largest --max-hits is 65535), so the counts fit;
    // they saturate rather than wrap for any other use.
    const auto narrow = [](std::uint64_t value) {
        return static_cast<std::uint32_t>(std::min<std::uint64_t>(value, std::numeric_limits<std::uint32_t>::max()));
    };
    return {photonEvent_fromChain(chain), narrow(chain.nPx), narrow(chain.totSum()), chain.totMax, chain.chip};
}

/// Hands the photon of an accepted chain to `sink` as the record the sink keeps (`Sink::Record`). Inline, so
/// that the chain's sums go to the sink from registers: as a call it cost the run 3 % of its instructions.
template <typename Sink>
[[gnu::always_inline]] inline void emit_photon(Sink& sink, const PixelActivationChain& chain) {
    sink.push(record_fromChain(chain, std::type_identity<typename Sink::Record>{}));
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

#pragma once

#include <cstdint>

#include "PhotonEvents.hpp"

namespace kavot_tpx3spidr {

/// A photon event with the measures of its cluster, as a conversion reports them per photon.
struct PhotonMeasures {
    PhotonEvent_type photon; ///< the centroid and the time of the first activation, as in the photon file
    std::uint32_t nHits;
    std::uint32_t totSum; ///< raw ToT summed over the cluster, in 25 ns
    std::uint16_t totMax; ///< the largest raw ToT of the cluster
    std::uint8_t chip;    ///< the chip of the first activation

    friend bool operator==(const PhotonMeasures&, const PhotonMeasures&) = default;
};

} // namespace kavot_tpx3spidr

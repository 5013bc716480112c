#pragma once

// The three clustering algorithms and the library's default reconstruction.
#include "Reconstruction_checkNextOnly.hpp"
#include "Reconstruction_forwardChain_pixelBuildup.hpp"
#include "Reconstruction_fullChain_direct.hpp"

namespace kavot_tpx3spidr {

/// The library's default reconstruction: the full-chain search.
inline PhotonResult reconstruct_photonEvents(const Data_Tpx3Spidr& data,
                                             const ReconstructionParameters_PhotonEvents& parameters) {
    return reconstruct_photonEvents_fullChain_direct(data, parameters);
}

} // namespace kavot_tpx3spidr

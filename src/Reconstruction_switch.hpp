#pragma once

#include <stdexcept>
#include <string>

#include "Parameters.hpp"
#include "Reconstruction_PhotonEvents.hpp"

/// The clustering algorithms by name: "default" and "fullChain_direct" are one algorithm.
enum class Algorithm { fullChain_direct, checkNextOnly, forwardChain_pixelBuildup };

/// The algorithm a name stands for; any other name (compared byte for byte) is refused with
/// "Unrecognized algorithm" directly followed by the name and "!".
Algorithm algorithm_fromName(const std::string& name);

/// Runs the chosen algorithm over a sequence of activations in time order, into a photon sink.
template <typename Sequence, typename Sink>
void reconstruct_photonEvents_into(Algorithm algorithm,
                                   Sequence& sequence,
                                   const kavot_tpx3spidr::ReconstructionParameters_PhotonEvents& parameters,
                                   Sink& sink) {
    switch (algorithm) {
    case Algorithm::fullChain_direct:
        kavot_tpx3spidr::reconstruct_photonEvents_fullChain_direct(sequence, parameters, sink);
        break;
    case Algorithm::checkNextOnly:
        kavot_tpx3spidr::reconstruct_photonEvents_checkNextOnly(sequence, parameters, sink);
        break;
    case Algorithm::forwardChain_pixelBuildup:
        kavot_tpx3spidr::reconstruct_photonEvents_forwardChain_pixelBuildup(sequence, parameters, sink);
        break;
    }
}

/// Runs the clustering algorithm that `parameters.algorithm` names; an unknown name is refused before anything
/// runs.
kavot_tpx3spidr::PhotonResult reconstruct_photonEvents_switchAlgoritms(
    kavot_tpx3spidr::Data_Tpx3Spidr data,
    Parameters parameters,
    kavot_tpx3spidr::ReconstructionParameters_PhotonEvents reconstructionParameters);

/// The clustering settings of a run; dTime is converted from seconds to ticks with the range test.
kavot_tpx3spidr::ReconstructionParameters_PhotonEvents make_reconstructionParameters(const Parameters& parameters);

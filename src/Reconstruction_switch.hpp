#pragma once

#include "Data_Tpx3Spidr.hpp"
#include "Parameters.hpp"

/// Runs the clustering algorithm that `parameters.algorithm` names ("default" and "fullChain_direct",
/// "checkNextOnly", "forwardChain_pixelBuildup"); any other name is refused before anything runs.
kavot_tpx3spidr::PhotonResult reconstruct_photonEvents_switchAlgoritms(
    kavot_tpx3spidr::Data_Tpx3Spidr data,
    Parameters parameters,
    kavot_tpx3spidr::ReconstructionParameters_PhotonEvents reconstructionParameters);

/// The clustering settings of a run; dTime is converted from seconds to ticks with the range test.
kavot_tpx3spidr::ReconstructionParameters_PhotonEvents make_reconstructionParameters(const Parameters& parameters);

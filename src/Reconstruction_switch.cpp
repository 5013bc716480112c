#include "Reconstruction_switch.hpp"

#include <stdexcept>

using namespace kavot_tpx3spidr;

PhotonResult reconstruct_photonEvents_switchAlgoritms(Data_Tpx3Spidr data,
                                                      Parameters parameters,
                                                      ReconstructionParameters_PhotonEvents reconstructionParameters) {
    const std::string& name = parameters.algorithm;
    if (name == "default" || name == "fullChain_direct") {
        return reconstruct_photonEvents_fullChain_direct(data, reconstructionParameters);
    }
    if (name == "checkNextOnly") {
        return reconstruct_photonEvents_checkNextOnly(data, reconstructionParameters);
    }
    if (name == "forwardChain_pixelBuildup") {
        return reconstruct_photonEvents_forwardChain_pixelBuildup(data, reconstructionParameters);
    }
    throw std::invalid_argument("Unrecognized algorithm" + name + "!");
}

ReconstructionParameters_PhotonEvents make_reconstructionParameters(const Parameters& parameters) {
    return {
        parameters.dSpace,    Time::make_from_seconds<true>(parameters.dTime),
        parameters.nPxMin,    parameters.nPxMax,
        parameters.weightMin, parameters.weightMax,
        parameters.TDC1,
    };
}

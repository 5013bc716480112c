#include "Reconstruction_switch.hpp"

using namespace kavot_tpx3spidr;

Algorithm algorithm_fromName(const std::string& name) {
    if (name == "default" || name == "fullChain_direct") {
        return Algorithm::fullChain_direct;
    }
    if (name == "checkNextOnly") {
        return Algorithm::checkNextOnly;
    }
    if (name == "forwardChain_pixelBuildup") {
        return Algorithm::forwardChain_pixelBuildup;
    }
    throw std::invalid_argument("Unrecognized algorithm" + name + "!");
}

PhotonResult reconstruct_photonEvents_switchAlgoritms(Data_Tpx3Spidr data,
                                                      Parameters parameters,
                                                      ReconstructionParameters_PhotonEvents reconstructionParameters) {
    switch (algorithm_fromName(parameters.algorithm)) {
    case Algorithm::checkNextOnly:
        return reconstruct_photonEvents_checkNextOnly(data, reconstructionParameters);
    case Algorithm::forwardChain_pixelBuildup:
        return reconstruct_photonEvents_forwardChain_pixelBuildup(data, reconstructionParameters);
    case Algorithm::fullChain_direct:
        break;
    }
    return reconstruct_photonEvents_fullChain_direct(data, reconstructionParameters);
}

ReconstructionParameters_PhotonEvents make_reconstructionParameters(const Parameters& parameters) {
    return {
        parameters.dSpace,    Time::make_from_seconds<true>(parameters.dTime),
        parameters.nPxMin,    parameters.nPxMax,
        parameters.weightMin, parameters.weightMax,
        parameters.TDC1,
    };
}

#pragma once

// The detector library in one include: pixel activations, the recording's census, decoders and time order, the
// data set, the reconstruction parameters, chains and algorithms.
#include "PixelActivation.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "Reconstruction_PhotonEvents.hpp"
#include "Tpx3DataSet.hpp"
#include "Tpx3HitSource.hpp"

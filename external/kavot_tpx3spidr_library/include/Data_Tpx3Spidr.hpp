#pragma once

// The detector library in one include: pixel activations, the data set with its decoder, the reconstruction
// parameters, chains and algorithms.
#include "PixelActivation.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "Reconstruction_PhotonEvents.hpp"
#include "Tpx3DataSet.hpp"
#include "Tpx3HitStream.hpp"

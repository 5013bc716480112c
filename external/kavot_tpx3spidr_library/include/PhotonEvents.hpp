#pragma once

#include "Data_PhotonEvents.hpp"
#include "FileHandler_PhotonEvents.hpp"
#include "PhotonEvent.hpp"
#include "Units.hpp"

namespace kavot_tpx3spidr {

/// A photon event of this detector: position in 1/65536 pixel, time in ticks of 1.5625 ns.
using PhotonEvent_type = kavot::PhotonEvent<Length, Time>;
/// The photons of a run, with the TDC1 trigger times when the run asked for them.
using PhotonResult = kavot::Data_PhotonEvents<PhotonEvent_type>;
/// The photon event file: coordinates stored in 4 bytes, times in 8, file type 2.
using PhotonFile = kavot::FileHandler_PhotonEvents<Length, Time, 4, 8, 2>;

} // namespace kavot_tpx3spidr

#pragma once

#include "Length.hpp"
#include "Time.hpp"

namespace kavot_tpx3spidr {

/// Ticks of 1.5625 ns (25 ns / 16), the fine time step of the Timepix3 detector.
using Time = kavot::Time<long, 1.5625e-9>;
/// Positions in 1/65536 pixel.
using Length = kavot::Length<int, 65536>;

} // namespace kavot_tpx3spidr

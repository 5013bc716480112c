#pragma once

#include <cmath>
#include <cstdint>

#include "Units.hpp"

namespace kavot_tpx3spidr {

/// The clustering settings every algorithm receives. Nothing is validated: bounds that exclude each other
/// simply accept no cluster.
struct ReconstructionParameters_PhotonEvents {
    double dSpace;        ///< pixels
    Time dTime;           ///< ticks
    std::uint64_t nPxMin; ///< inclusive
    std::uint64_t nPxMax; ///< inclusive
    double weightMin;     ///< inclusive, on the quantity the algorithm bounds
    double weightMax;     ///< inclusive
    bool TDC1;            ///< carry the TDC1 trigger times into the result
};

/// `dSpace` as the whole-pixel distance of the circular space test: truncated toward zero. Values without a
/// 16-bit whole number are mapped the way a saturating conversion does: NaN to 0 (same pixel only), values
/// beyond the range to its ends (32767 or -32768 pixels; either already reaches across the whole detector,
/// so every larger magnitude behaves the same).
[[nodiscard]] inline short spaceLimit_px(double dSpace) noexcept {
    if (std::isnan(dSpace)) {
        return 0;
    }
    if (dSpace >= 32767.0) {
        return 32767;
    }
    if (dSpace <= -32768.0) {
        return -32768;
    }
    return static_cast<short>(dSpace);
}

} // namespace kavot_tpx3spidr

#pragma once

// The packets a SPIDR readout writes, encoded from true times in ticks of 1.5625 ns (25 ns / 16).

#include <cstdint>

namespace tpx3gen {

constexpr double tick_seconds = 1.5625e-9;

inline std::uint64_t pixelWord(std::uint64_t x, std::uint64_t y, std::uint64_t raw34, std::uint64_t tot) {
    // The readout reports columns 194 to 203 one 25 ns period late; the decoder takes it off again.
    if (x >= 194 && x <= 203) {
        raw34 = (raw34 + 16) & ((std::uint64_t{1} << 34) - 1);
    }
    const std::uint64_t spidr = raw34 >> 18;
    const std::uint64_t coarse = (raw34 >> 4) & 0x3FFF;
    const std::uint64_t ftoa = 15 - (raw34 & 15);
    const std::uint64_t dcol = x >> 1;
    const std::uint64_t spix = y >> 2;
    const std::uint64_t pix = ((x & 1) << 2) | (y & 3);
    return (std::uint64_t{0xB} << 60) | (dcol << 53) | (spix << 47) | (pix << 44) | (coarse << 30) |
           ((tot & 0x3FF) << 20) | (ftoa << 16) | spidr;
}

/// A TDC1 rising edge; its 35-bit time is (ticks >> 1) modulo 2^35, the heartbeat clock in 3.125 ns.
inline std::uint64_t tdcWord(std::uint64_t counter, std::uint64_t raw36) {
    const std::uint64_t coarse = (raw36 >> 1) & ((std::uint64_t{1} << 35) - 1);
    const std::uint64_t fine = (raw36 & 1) != 0 ? 7 : 1; // (12 coarse + fine - 1) / 6 gives back raw36
    return (std::uint64_t{0x6F} << 56) | ((counter & 0xFFF) << 44) | (coarse << 9) | (fine << 5);
}

inline std::uint64_t globalLowWord(std::uint64_t global25ns) {
    return (std::uint64_t{0x44} << 56) | ((global25ns & 0xFFFFFFFFULL) << 16);
}
inline std::uint64_t globalHighWord(std::uint64_t global25ns) {
    return (std::uint64_t{0x45} << 56) | (((global25ns >> 32) & 0xFFFF) << 16);
}

} // namespace tpx3gen

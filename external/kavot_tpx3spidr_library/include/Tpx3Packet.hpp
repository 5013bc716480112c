#pragma once

#include <cstdint>

namespace kavot_tpx3spidr::tpx3 {

// A .tpx3 file is a sequence of little-endian 64-bit words in chunks. Chunk header, by byte in file order:
//   0-3 "TPX3" | 4 chip index | 5 mode | 6-7 chunk size in bytes (u16 LE); size / 8 packet words follow.
constexpr std::uint64_t chunkMagic_mask = 0xFFFFFFFFULL;
constexpr std::uint64_t chunkMagic = 0x33585054ULL; // "TPX3" read little-endian
constexpr unsigned chunkSize_shift = 48;

[[nodiscard]] constexpr bool is_chunkHeader(std::uint64_t word) noexcept {
    return (word & chunkMagic_mask) == chunkMagic;
}
[[nodiscard]] constexpr std::uint64_t chunkWords(std::uint64_t header) noexcept {
    return (header >> chunkSize_shift) / 8;
}

constexpr unsigned chunkChip_shift = 32;

/// The chip index of a chunk, from byte 4 of its header.
[[nodiscard]] constexpr unsigned chunkChip(std::uint64_t header) noexcept {
    return static_cast<unsigned>((header >> chunkChip_shift) & 0xFF);
}

constexpr unsigned type_shift = 60;
constexpr std::uint64_t type_pixel = 0xB;
constexpr std::uint64_t type_tdc = 0x6;
constexpr std::uint64_t type_globalTime = 0x4;

[[nodiscard]] constexpr std::uint64_t packetType(std::uint64_t word) noexcept {
    return word >> type_shift;
}

// Pixel packet (type 0xB):
//   63-60 type | 59-53 dcol | 52-47 spix | 46-44 pix | 43-30 ToA | 29-20 ToT | 19-16 FToA | 15-0 spidr time
//   x = 2 dcol + pix bit 2, y = 4 spix + pix bits 1-0
//   time [1.5625 ns] = spidr << 18 + ToA << 4 + (15 - FToA), minus one 25 ns period in columns 194 to 203.
constexpr unsigned dcol_shift = 53;
constexpr std::uint64_t dcol_mask = 0x7F;
constexpr unsigned spix_shift = 47;
constexpr std::uint64_t spix_mask = 0x3F;
constexpr unsigned pix_shift = 44;
constexpr std::uint64_t pix_mask = 0x7;
constexpr unsigned toa_shift = 30;
constexpr std::uint64_t toa_mask = 0x3FFF;
constexpr unsigned tot_shift = 20;
constexpr std::uint64_t tot_mask = 0x3FF;
constexpr unsigned ftoa_shift = 16;
constexpr std::uint64_t ftoa_mask = 0xF;
constexpr std::uint64_t spidrTime_mask = 0xFFFF;
constexpr int delayedColumn_first = 194;
constexpr int delayedColumn_last = 203;
constexpr std::int64_t delayedColumn_correction_ticks = 16;

struct PixelFields {
    short x;
    short y;
    std::uint16_t tot;
    std::int64_t time_ticks; // -16 to 2^34 - 1
};

[[nodiscard]] constexpr PixelFields decode_pixel(std::uint64_t word) noexcept {
    const std::uint64_t dcol = (word >> dcol_shift) & dcol_mask;
    const std::uint64_t spix = (word >> spix_shift) & spix_mask;
    const std::uint64_t pix = (word >> pix_shift) & pix_mask;
    const int x = static_cast<int>(2 * dcol + (pix >> 2));
    const int y = static_cast<int>(4 * spix + (pix & 3));
    const std::uint64_t coarse = (word >> toa_shift) & toa_mask;
    const std::uint64_t fine = (word >> ftoa_shift) & ftoa_mask;
    const std::uint64_t spidr = word & spidrTime_mask;
    std::int64_t time = static_cast<std::int64_t>((spidr << 18) + (coarse << 4) + (15 - fine));
    if (x >= delayedColumn_first && x <= delayedColumn_last) {
        time -= delayedColumn_correction_ticks;
    }
    return {static_cast<short>(x), static_cast<short>(y), static_cast<std::uint16_t>((word >> tot_shift) & tot_mask),
            time};
}

// TDC packet (type 0x6):
//   63-60 type | 59-56 event type | 55-44 trigger counter | 43-9 coarse [3.125 ns] | 8-5 fine [3.125/12 ns] | 4-0
//   time [1.5625 ns] = (coarse * 12 + fine - 1) / 6, unsigned, rounding down.
constexpr unsigned tdcCoarse_shift = 9;
constexpr std::uint64_t tdcCoarse_mask = (std::uint64_t{1} << 35) - 1;
constexpr unsigned tdcFine_shift = 5;
constexpr std::uint64_t tdcFine_mask = 0xF;

[[nodiscard]] constexpr std::uint64_t decode_tdcTime(std::uint64_t word) noexcept {
    const std::uint64_t coarse = (word >> tdcCoarse_shift) & tdcCoarse_mask;
    const std::uint64_t fine = (word >> tdcFine_shift) & tdcFine_mask;
    const std::uint64_t units = coarse * 12 + fine;
    // Fine values run from 1 to 12 in valid data. Coarse 0 with fine 0 would wrap below zero to a time near
    // 2^61 ticks that no clock can produce; such a packet is read as the earliest time, 0.
    if (units == 0) {
        return 0;
    }
    return (units - 1) / 6;
}

/// The kinds of TDC packet, by the event type in bits 59-56: the channel and the edge it recorded.
enum class TdcKind : std::size_t { tdc1Rising, tdc1Falling, tdc2Rising, tdc2Falling, other };

[[nodiscard]] constexpr TdcKind tdcKind(std::uint64_t word) noexcept {
    switch ((word >> 56) & 0xF) {
    case 0xF:
        return TdcKind::tdc1Rising;
    case 0xA:
        return TdcKind::tdc1Falling;
    case 0xE:
        return TdcKind::tdc2Rising;
    case 0xB:
        return TdcKind::tdc2Falling;
    default:
        return TdcKind::other;
    }
}

/// The fine time of a TDC packet: 1 to 12 in a valid stamp, 0 in an invalid one.
[[nodiscard]] constexpr std::uint64_t tdcFine(std::uint64_t word) noexcept {
    return (word >> tdcFine_shift) & tdcFine_mask;
}

/// The TDC time on the 34-bit pixel clock: only the coarse time modulo 2^33 (bits 41-9) runs with the heartbeat
/// clock in every recording, so the two upper bits of the 35-bit coarse time are left out. Ticks of 1.5625 ns,
/// below 2^34, rounded down as `decode_tdcTime` converts. For a valid stamp only (fine time 1 to 12).
constexpr std::uint64_t tdcPixelClock_mask = (std::uint64_t{1} << 33) - 1;
[[nodiscard]] constexpr std::uint64_t tdcTime_onPixelClock(std::uint64_t word) noexcept {
    const std::uint64_t coarse = (word >> tdcCoarse_shift) & tdcPixelClock_mask;
    return (coarse * 12 + tdcFine(word) - 1) / 6;
}

// Global time packets (type 0x4), told apart by bits 59-56:
//   subtype 0x4: bits 47-16 low 32 bits of the global time [25 ns]; subtype 0x5: bits 31-16 the high 16 bits,
//   completing one timestamp.
constexpr unsigned globalSubtype_shift = 56;
constexpr std::uint64_t globalSubtype_mask = 0xF;
constexpr std::uint64_t globalSubtype_low = 0x4;
constexpr std::uint64_t globalSubtype_high = 0x5;
constexpr unsigned globalLow_shift = 16;
constexpr std::uint64_t globalLow_mask = 0xFFFFFFFFULL;
constexpr unsigned globalHigh_shift = 16;
constexpr std::uint64_t globalHigh_mask = 0xFFFF;

[[nodiscard]] constexpr std::uint64_t globalSubtype(std::uint64_t word) noexcept {
    return (word >> globalSubtype_shift) & globalSubtype_mask;
}
[[nodiscard]] constexpr std::uint64_t globalLow(std::uint64_t word) noexcept {
    return (word >> globalLow_shift) & globalLow_mask;
}
/// The complete timestamp in ticks: 25 ns units times 16.
[[nodiscard]] constexpr std::uint64_t globalTimestamp_ticks(std::uint64_t highWord, std::uint64_t latestLow) noexcept {
    return ((((highWord >> globalHigh_shift) & globalHigh_mask) << 32) + latestLow) * 16;
}

constexpr std::uint64_t pixelPeriod_ticks = std::uint64_t{1} << 34;
constexpr std::uint64_t tdcPeriod_ticks = std::uint64_t{1} << 36;

/// Places raw times of a counter with period P into [R - P/2, R + P/2) around the reference R: the value
/// congruent to the raw time modulo P (for raw times 0 to P - 1). Unsigned arithmetic; results may be negative.
template <std::uint64_t P>
class TimeExtension {
public:
    explicit constexpr TimeExtension(std::uint64_t reference) noexcept {
        const std::uint64_t low = reference % P;
        const std::uint64_t H = reference / P;
        limit = (low + P / 2) % P;
        if (limit > low) { // the reference lies in the lower half of its period
            base_atOrAboveLimit = (H - 1) * P;
            base_belowLimit = H * P;
        } else {
            base_atOrAboveLimit = H * P;
            base_belowLimit = (H + 1) * P;
        }
    }

    [[nodiscard]] constexpr std::int64_t extend(std::uint64_t raw) const noexcept {
        return static_cast<std::int64_t>((raw >= limit ? base_atOrAboveLimit : base_belowLimit) | raw);
    }

    [[nodiscard]] constexpr std::uint64_t get_limit() const noexcept { return limit; }
    [[nodiscard]] constexpr std::uint64_t get_base_atOrAboveLimit() const noexcept { return base_atOrAboveLimit; }
    [[nodiscard]] constexpr std::uint64_t get_base_belowLimit() const noexcept { return base_belowLimit; }

private:
    std::uint64_t limit = 0;
    std::uint64_t base_atOrAboveLimit = 0;
    std::uint64_t base_belowLimit = 0;
};

/// The value congruent to `raw` (0 to P - 1) modulo P that lies in [reference - P/2, reference + P/2): the same
/// value `TimeExtension<P>(reference).extend(raw)` gives, in two's complement arithmetic for any reference, also a
/// negative one. For references that change with every packet.
template <std::uint64_t P>
[[nodiscard]] constexpr std::int64_t extend_nearest(std::uint64_t raw, std::int64_t reference) noexcept {
    const std::uint64_t lowest = static_cast<std::uint64_t>(reference) - P / 2;
    return static_cast<std::int64_t>(lowest + ((raw - lowest) & (P - 1)));
}

/// The pixel time to extend: a time made negative (-16 to -1) by the column correction is taken modulo the
/// period, so it lands next to the reference like every other hit of its moment instead of at the start of
/// the clock (where an unsigned reading of it would put it, far from its neighbours in time).
[[nodiscard]] constexpr std::uint64_t pixelTime_forExtension(std::int64_t time) noexcept {
    return time < 0 ? static_cast<std::uint64_t>(time + static_cast<std::int64_t>(pixelPeriod_ticks))
                    : static_cast<std::uint64_t>(time);
}

} // namespace kavot_tpx3spidr::tpx3

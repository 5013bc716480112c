#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

#include "TimeOrder.hpp"
#include "Tpx3Packet.hpp"
#include "Units.hpp"

namespace kavot_tpx3spidr {

/// The pixel and TDC packets among packet words, and the smallest and largest pixel time (on a decode's time
/// scale, before any rollover repair).
struct PacketSummary {
    std::uint64_t pixels = 0;
    std::uint64_t tdcs = 0;
    long earliest = std::numeric_limits<long>::max();
    long latest = std::numeric_limits<long>::min();
};

namespace detail {

// The summary of `count` packet words (no chunk headers), pixel times as `decode_pixel` and the time extension
// make them. Written without branches, with masks, so that the compiler turns the loop into vector code; it is
// compiled twice, for the baseline instruction set and for AVX2, and the processor's is chosen when the program
// starts (not under ThreadSanitizer, whose checks in the chooser would run before it is set up).
// `extendAroundReference` false: the raw times, which may be negative by the column correction.
#if defined(__SANITIZE_THREAD__)
#define KAVOT_PACKET_CLONES
#else
#define KAVOT_PACKET_CLONES [[gnu::target_clones("avx2", "default")]]
#endif
KAVOT_PACKET_CLONES inline PacketSummary summarize_packets(const std::uint64_t* words,
                                                           std::size_t count,
                                                           bool extendAroundReference,
                                                           std::uint64_t limit,
                                                           std::uint64_t baseAtOrAbove,
                                                           std::uint64_t baseBelow) noexcept {
    long earliest = std::numeric_limits<long>::max();
    long latest = std::numeric_limits<long>::min();
    std::uint64_t pixels = 0;
    std::uint64_t tdcs = 0;
    const std::uint64_t extend = extendAroundReference ? ~std::uint64_t{0} : 0;
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t word = words[i];
        const auto pixel = -static_cast<std::int64_t>(tpx3::packetType(word) == tpx3::type_pixel);
        tdcs += static_cast<std::uint64_t>(tpx3::packetType(word) == tpx3::type_tdc);
        const std::uint64_t x =
            2 * ((word >> tpx3::dcol_shift) & tpx3::dcol_mask) + ((word >> (tpx3::pix_shift + 2)) & 1);
        constexpr auto firstDelayed = static_cast<std::uint64_t>(tpx3::delayedColumn_first);
        constexpr auto delayedColumns =
            static_cast<std::uint64_t>(tpx3::delayedColumn_last - tpx3::delayedColumn_first);
        const std::uint64_t delayed = -static_cast<std::uint64_t>(x - firstDelayed <= delayedColumns);
        const std::uint64_t raw = ((word & tpx3::spidrTime_mask) << 18) +
                                  (((word >> tpx3::toa_shift) & tpx3::toa_mask) << 4) +
                                  (15 - ((word >> tpx3::ftoa_shift) & tpx3::ftoa_mask)) -
                                  (delayed & static_cast<std::uint64_t>(tpx3::delayedColumn_correction_ticks));
        const std::uint64_t inPeriod = raw & (tpx3::pixelPeriod_ticks - 1); // -16 to -1 wrap into the period
        const std::uint64_t above = -static_cast<std::uint64_t>(inPeriod >= limit);
        const std::uint64_t extended = ((baseAtOrAbove & above) | (baseBelow & ~above)) | inPeriod;
        const auto time = static_cast<std::int64_t>((extended & extend) | (raw & ~extend));
        pixels -= static_cast<std::uint64_t>(pixel);
        const std::int64_t low = (time & pixel) | (std::numeric_limits<std::int64_t>::max() & ~pixel);
        const std::int64_t high = (time & pixel) | (std::numeric_limits<std::int64_t>::min() & ~pixel);
        earliest = low < earliest ? low : earliest;
        latest = high > latest ? high : latest;
    }
    return {pixels, tdcs, earliest, latest};
}

} // namespace detail

/// Turns raw packet times into the time scale of a decode: extended around the recording's first global
/// timestamp (`useGlobalTime`), or the raw counter values.
template <bool useGlobalTime>
class Tpx3TimeScale {
public:
    explicit Tpx3TimeScale(std::uint64_t reference_ticks) noexcept
        : pixelExtension(reference_ticks), tdcExtension(reference_ticks) {}

    [[nodiscard]] long pixelTime(std::int64_t raw) const noexcept {
        if constexpr (useGlobalTime) {
            return pixelExtension.extend(tpx3::pixelTime_forExtension(raw));
        } else {
            return raw;
        }
    }
    /// The packets of `count` packet words (no chunk headers) summed up, pixel times as `pixelTime` gives them.
    [[nodiscard]] PacketSummary summarize(const std::uint64_t* words, std::size_t count) const noexcept {
        return detail::summarize_packets(words, count, useGlobalTime, pixelExtension.get_limit(),
                                         pixelExtension.get_base_atOrAboveLimit(),
                                         pixelExtension.get_base_belowLimit());
    }

    [[nodiscard]] Time tdcTime(std::uint64_t raw) const noexcept {
        if constexpr (useGlobalTime) {
            return Time(tdcExtension.extend(raw));
        } else {
            return Time(static_cast<long>(raw));
        }
    }

private:
    tpx3::TimeExtension<tpx3::pixelPeriod_ticks> pixelExtension;
    tpx3::TimeExtension<tpx3::tdcPeriod_ticks> tdcExtension;
};

/// Calls `onPixel(fields, time, chip)` for every pixel packet of the `count` words of whole chunks at `words`
/// (headers included, structure already checked), with the time repaired against `latest`.
template <bool useGlobalTime, typename OnPixel>
void for_eachPixel_repaired(const std::uint64_t* words,
                            std::size_t count,
                            const Tpx3TimeScale<useGlobalTime>& timeScale,
                            long& latest,
                            OnPixel&& onPixel) {
    std::size_t i = 0;
    while (i < count) {
        const std::size_t end = i + 1 + static_cast<std::size_t>(tpx3::chunkWords(words[i]));
        const unsigned chip = tpx3::chunkChip(words[i]);
        for (std::size_t w = i + 1; w < end; ++w) {
            if (tpx3::packetType(words[w]) == tpx3::type_pixel) {
                const tpx3::PixelFields pixel = tpx3::decode_pixel(words[w]);
                onPixel(pixel, repair_rollover(latest, timeScale.pixelTime(pixel.time_ticks)), chip);
            }
        }
        i = end;
    }
}

} // namespace kavot_tpx3spidr

#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>

#include "TimeOrder.hpp"
#include "Tpx3Packet.hpp"
#include "Tpx3PacketSummary.hpp"
#include "Units.hpp"

namespace kavot_tpx3spidr {

/// Turns raw packet times into the time scale of a decode: extended around the recording's first global
/// timestamp (`useGlobalTime`), or the raw counter values.
template <bool useGlobalTime>
class Tpx3TimeScale {
public:
    explicit Tpx3TimeScale(std::uint64_t reference_ticks) noexcept
        : pixelExtension(reference_ticks), tdcExtension(reference_ticks), reference(reference_ticks) {}

    [[nodiscard]] long pixelTime(std::int64_t raw) const noexcept {
        if constexpr (useGlobalTime) {
            return pixelExtension.extend(tpx3::pixelTime_forExtension(raw));
        } else {
            return raw;
        }
    }
    /// The packets of `count` packet words (no chunk headers) summed up, pixel times as `pixelTime` gives them.
    /// (`TimeExtension(R).extend` places a time as `PixelPlacement::around(R)` does, see there.)
    [[nodiscard]] PacketSummary summarize(const std::uint64_t* words, std::size_t count) const noexcept {
        if constexpr (useGlobalTime) {
            return summarize_packets(words, count, reference - tpx3::pixelPeriod_ticks / 2,
                                     tpx3::pixelPeriod_ticks - 1);
        } else {
            return summarize_packets(words, count, 0, ~std::uint64_t{0});
        }
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
    std::uint64_t reference;
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

/// The first global timestamp in ticks (25 ns units times 16), found by walking the chunks up to it. `walk(from,
/// onChunk)` calls a chunk handler as `for_eachChunk_tpx3` does (and checks the structure on the way).
template <typename Walk>
[[nodiscard]] std::optional<std::uint64_t> firstGlobalTimestamp_tpx3(Walk&& walk) {
    std::optional<std::uint64_t> found;
    std::uint64_t latestLow = 0; // a high part before any low part completes a timestamp with low part 0
    walk(0, [&](const std::uint64_t* first, const std::uint64_t* last, std::uint64_t /*header*/) {
        for (const std::uint64_t* p = first; p != last; ++p) {
            if (tpx3::packetType(*p) != tpx3::type_globalTime) {
                continue;
            }
            if (tpx3::globalSubtype(*p) == tpx3::globalSubtype_low) {
                latestLow = tpx3::globalLow(*p);
            } else if (tpx3::globalSubtype(*p) == tpx3::globalSubtype_high) {
                found = tpx3::globalTimestamp_ticks(*p, latestLow);
                return false;
            }
        }
        return true;
    });
    return found;
}

} // namespace kavot_tpx3spidr

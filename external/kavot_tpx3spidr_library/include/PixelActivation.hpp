#pragma once

#include <cstdint>

#include "Units.hpp"

namespace kavot_tpx3spidr {

/// One hit of one pixel: column, row, time of arrival and the raw time over threshold, and the chip (chunk header
/// byte 4) it came from. Column and row are the chip's own (0 to 255), or canvas coordinates where a layout
/// places several chips side by side.
class PixelActivation {
public:
    PixelActivation(short x_, short y_, Time toa_, std::uint16_t tot_, std::uint8_t chip_ = 0) noexcept
        : x(x_), y(y_), tot(tot_), chip(chip_), toa(toa_) {}

    [[nodiscard]] const short& get_x_px() const noexcept { return x; }
    [[nodiscard]] const short& get_y_px() const noexcept { return y; }
    [[nodiscard]] const Time& get_toa() const noexcept { return toa; }
    [[nodiscard]] Time& get_toa() noexcept { return toa; }
    [[nodiscard]] const std::uint16_t& get_tot() const noexcept { return tot; }
    [[nodiscard]] std::uint8_t get_chip() const noexcept { return chip; }

    [[nodiscard]] int calcDist_x_px(const PixelActivation& other) const noexcept {
        const int d = int{x} - int{other.x};
        return d < 0 ? -d : d;
    }
    [[nodiscard]] int calcDist_y_px(const PixelActivation& other) const noexcept {
        const int d = int{y} - int{other.y};
        return d < 0 ? -d : d;
    }
    /// |toa - other.toa|, formed by subtracting the smaller time from the larger.
    [[nodiscard]] Time calcDist_toa(const PixelActivation& other) const noexcept {
        return other.toa >= toa ? other.toa - toa : toa - other.toa;
    }

    /// True when the Euclidean pixel distance is at most d (inclusive), tested without roots in 64-bit
    /// arithmetic; a negative d acts like its magnitude.
    [[nodiscard]] static bool distSpace_smallerEqualThan(PixelActivation a, PixelActivation b, short d) noexcept {
        const std::int64_t dx = std::int64_t{a.x} - std::int64_t{b.x};
        const std::int64_t dy = std::int64_t{a.y} - std::int64_t{b.y};
        const std::int64_t limit = std::int64_t{d};
        return dx * dx + dy * dy <= limit * limit;
    }

    friend bool operator==(const PixelActivation&, const PixelActivation&) = default;

private:
    // Declared with tot and chip before toa: the record packs into 16 bytes instead of 24, which every decoded hit
    // pays for in fresh memory (the chip takes what was padding). Construction, accessors and comparisons are
    // unaffected by the declaration order.
    short x;
    short y;
    std::uint16_t tot;
    std::uint8_t chip;
    Time toa;
};

static_assert(sizeof(PixelActivation) == 16);

} // namespace kavot_tpx3spidr

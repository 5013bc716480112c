#pragma once

// The canvas a detector's photons fall on, and the chip pixel (if any) under each canvas pixel.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace tpx3gen {

/// A pixel of one chip, in the chip's own columns and rows.
struct ChipPixel {
    unsigned chip;
    std::uint16_t x;
    std::uint16_t y;
};

/// One chip on a 256 x 256 canvas, or a quad: four chips on 514 x 514 around a gap two pixels wide, placed as
/// the quad readout places them (chip 3 as it is at the origin, chip 0 to its right, chips 2 and 1 turned by
/// half a turn above them). A photon over the gap lights no pixel.
class DetectorCanvas {
public:
    static constexpr int chipSide_px = 256;
    static constexpr int gap_px = 2;

    explicit DetectorCanvas(unsigned chips_) : chips(chips_) {
        if (chips != 1 && chips != 4) {
            throw std::invalid_argument("a detector has 1 or 4 chips, not " + std::to_string(chips) + "!");
        }
    }

    [[nodiscard]] unsigned chipCount() const noexcept { return chips; }
    [[nodiscard]] int side_px() const noexcept { return chips == 1 ? chipSide_px : 2 * chipSide_px + gap_px; }

    /// The chip pixel at canvas pixel (gx, gy): none beside the canvas or in the gap.
    [[nodiscard]] std::optional<ChipPixel> chipPixel_at(int gx, int gy) const noexcept {
        if (gx < 0 || gy < 0 || gx >= side_px() || gy >= side_px()) {
            return std::nullopt;
        }
        if (chips == 1) {
            return pixel(0, gx, gy);
        }
        constexpr int beyondGap = chipSide_px + gap_px; // the first canvas column (row) of the far chips
        constexpr int last = 2 * chipSide_px + gap_px - 1;
        const bool right = gx >= beyondGap;
        const bool top = gy >= beyondGap;
        if ((!right && gx >= chipSide_px) || (!top && gy >= chipSide_px)) {
            return std::nullopt;
        }
        // Each line undoes one chip's placement: chip 0 shifted right, chips 1 and 2 turned by half a turn.
        if (right) {
            return top ? pixel(1, last - gx, last - gy) : pixel(0, gx - beyondGap, gy);
        }
        return top ? pixel(2, chipSide_px - 1 - gx, last - gy) : pixel(3, gx, gy);
    }

private:
    static ChipPixel pixel(unsigned chip, int x, int y) noexcept {
        return {chip, static_cast<std::uint16_t>(x), static_cast<std::uint16_t>(y)};
    }

    unsigned chips;
};

} // namespace tpx3gen

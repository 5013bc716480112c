#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kavot_tpx3spidr {

/// Where the pixels of one chip lie on the canvas: gx = a x + b y + tx, gy = c x + d y + ty, the matrix
/// [[a, b, tx], [c, d, ty]] of a layout file. [[a, b], [c, d]] is a rotation or a mirror (a signed permutation),
/// so the chip's 256 x 256 pixels cover an axis-aligned square of the canvas.
struct ChipTransform {
    int a = 1;
    int b = 0;
    int tx = 0;
    int c = 0;
    int d = 1;
    int ty = 0;

    [[nodiscard]] constexpr int x(int px, int py) const noexcept { return a * px + b * py + tx; }
    [[nodiscard]] constexpr int y(int px, int py) const noexcept { return c * px + d * py + ty; }

    friend bool operator==(const ChipTransform&, const ChipTransform&) = default;
};

/// The chips of a detector placed on one canvas, on which clustering, centroids and images work.
///
/// Every chip of a layout covers its own square of the canvas, except in `overlay`, which puts every chip on the
/// same 256 x 256 frame (as vundrel does).
class ChipLayout {
public:
    static constexpr int chipSide_px = 256;
    /// No canvas is wider or higher than this: the clustering's per-pixel tables stay small.
    static constexpr int maxCanvas_px = 4096;

    /// Chip 0 as it is: 256 x 256.
    [[nodiscard]] static ChipLayout single() { return make_from_transforms("single", {{0, ChipTransform{}}}); }

    /// Four chips around a 2-pixel gap on a 514 x 514 canvas, as a quad detector's readout arranges them.
    [[nodiscard]] static ChipLayout quad() {
        return make_from_transforms("quad", {{0, {1, 0, 258, 0, 1, 0}},
                                             {1, {-1, 0, 513, 0, -1, 513}},
                                             {2, {-1, 0, 255, 0, -1, 513}},
                                             {3, {1, 0, 0, 0, 1, 0}}});
    }

    /// Every chip, whatever its index, on one 256 x 256 frame.
    [[nodiscard]] static ChipLayout overlay() {
        ChipLayout layout;
        layout.name = "overlay";
        layout.everyChip = true;
        layout.width = layout.height = chipSide_px;
        return layout;
    }

    /// A layout of the given chips and transforms, checked: every matrix a rotation or mirror, every chip once,
    /// at non-negative places that do not overlap, on a canvas of at most `maxCanvas_px` a side (the smallest
    /// that holds every chip). Throws `std::invalid_argument` naming the chip at fault.
    [[nodiscard]] static ChipLayout make_from_transforms(std::string name,
                                                         const std::vector<std::pair<int, ChipTransform>>& chips) {
        ChipLayout layout;
        layout.name = std::move(name);
        if (chips.empty()) {
            throw std::invalid_argument("the layout places no chip!");
        }
        std::vector<Square> squares;
        for (const auto& [chip, transform] : chips) {
            const std::string which = "chip " + std::to_string(chip);
            if (chip < 0 || chip > 255) {
                throw std::invalid_argument("chip_id " + std::to_string(chip) + " is not a chip index (0 to 255)!");
            }
            if (layout.transforms[static_cast<std::size_t>(chip)]) {
                throw std::invalid_argument(which + " is placed twice!");
            }
            if (!signedPermutation(transform)) {
                throw std::invalid_argument(which + ": the matrix [[a, b], [c, d]] is no rotation or mirror (each row "
                                                    "and column one entry of 1 or -1, the others 0)!");
            }
            // Offsets this far out place the chip beyond any canvas; refused before they enter the arithmetic.
            constexpr int farOut = 4 * maxCanvas_px;
            if (transform.tx < -farOut || transform.tx > farOut || transform.ty < -farOut || transform.ty > farOut) {
                throw beyondCanvas(which);
            }
            const Square square = squareOf(transform);
            if (square.x0 < 0 || square.y0 < 0) {
                throw std::invalid_argument(which + " is placed at negative canvas coordinates (" +
                                            std::to_string(square.x0) + ", " + std::to_string(square.y0) + ")!");
            }
            if (square.x0 + chipSide_px > maxCanvas_px || square.y0 + chipSide_px > maxCanvas_px) {
                throw beyondCanvas(which);
            }
            for (std::size_t k = 0; k < squares.size(); ++k) {
                if (square.overlaps(squares[k])) {
                    throw std::invalid_argument(which + " overlaps chip " + std::to_string(chips[k].first) + "!");
                }
            }
            squares.push_back(square);
            layout.transforms[static_cast<std::size_t>(chip)] = transform;
            layout.width = std::max(layout.width, square.x0 + chipSide_px);
            layout.height = std::max(layout.height, square.y0 + chipSide_px);
        }
        return layout;
    }

    [[nodiscard]] const std::string& get_name() const noexcept { return name; }
    [[nodiscard]] int width_px() const noexcept { return width; }
    [[nodiscard]] int height_px() const noexcept { return height; }

    /// Whether the layout places the pixels of `chip` (a chip index from a chunk header).
    [[nodiscard]] bool places(unsigned chip) const noexcept { return everyChip || (chip < 256 && transforms[chip]); }
    /// The transform of a chip that the layout places.
    [[nodiscard]] ChipTransform transform(unsigned chip) const noexcept {
        return everyChip ? ChipTransform{} : *transforms[chip];
    }
    /// The chips the layout lists, with their transforms, by chip index (none for `overlay`).
    [[nodiscard]] std::vector<std::pair<int, ChipTransform>> listed() const {
        std::vector<std::pair<int, ChipTransform>> chips;
        for (std::size_t chip = 0; chip < transforms.size(); ++chip) {
            if (transforms[chip]) {
                chips.emplace_back(static_cast<int>(chip), *transforms[chip]);
            }
        }
        return chips;
    }

    /// The layout for a recording whose chunks carry the chips marked in `chipsSeen`, when the user names none:
    /// `quad` as soon as chip 1, 2 or 3 appears, `single` otherwise.
    [[nodiscard]] static ChipLayout for_chips(const std::array<bool, 256>& chipsSeen) {
        return chipsSeen[1] || chipsSeen[2] || chipsSeen[3] ? quad() : single();
    }

    /// Refuses a recording with a chip the layout does not place: its pixels would have no place on the canvas.
    void check_places(const std::array<bool, 256>& chipsSeen) const {
        for (unsigned chip = 0; chip < chipsSeen.size(); ++chip) {
            if (chipsSeen[chip] && !places(chip)) {
                throw std::invalid_argument("chip " + std::to_string(chip) +
                                            " appears in the recording but not in the layout \"" + name + "\"!");
            }
        }
    }

private:
    [[nodiscard]] static std::invalid_argument beyondCanvas(const std::string& which) {
        const std::string side = std::to_string(maxCanvas_px);
        return std::invalid_argument(which + " lies beyond a canvas of " + side + " x " + side + " pixels!");
    }

    /// The canvas square a chip covers: [x0, x0 + 256) x [y0, y0 + 256).
    struct Square {
        int x0;
        int y0;
        [[nodiscard]] bool overlaps(const Square& other) const noexcept {
            return x0 < other.x0 + chipSide_px && other.x0 < x0 + chipSide_px && y0 < other.y0 + chipSide_px &&
                   other.y0 < y0 + chipSide_px;
        }
    };

    [[nodiscard]] static bool signedPermutation(const ChipTransform& t) noexcept {
        const auto unit = [](int v) { return v == 1 || v == -1; };
        return (unit(t.a) && t.b == 0 && t.c == 0 && unit(t.d)) || (t.a == 0 && unit(t.b) && unit(t.c) && t.d == 0);
    }
    /// The corner of the square a transform maps the chip to: the smallest coordinates of its image.
    [[nodiscard]] static Square squareOf(const ChipTransform& t) noexcept {
        constexpr int last = chipSide_px - 1;
        const int x0 = std::min({t.x(0, 0), t.x(last, 0), t.x(0, last), t.x(last, last)});
        const int y0 = std::min({t.y(0, 0), t.y(last, 0), t.y(0, last), t.y(last, last)});
        return {x0, y0};
    }

    std::string name;
    bool everyChip = false;
    std::array<std::optional<ChipTransform>, 256> transforms{};
    int width = 0;
    int height = 0;
};

} // namespace kavot_tpx3spidr

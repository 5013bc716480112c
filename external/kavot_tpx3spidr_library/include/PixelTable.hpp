#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

namespace kavot_tpx3spidr {

/// One value per pixel of the canvas the activations lie on, zero until set, with a margin of `margin` pixels
/// on every side that stays zero, so that a look `margin` pixels beyond an edge needs no test.
///
/// The clustering does not know the canvas (a layout may place chips side by side): the table starts at the
/// 256 x 256 frame of one chip when it is first asked to hold a pixel, and grows, keeping its values, to the
/// pixels it is asked to hold, up to `maxSide_px` a side. Pixels it has never been asked to hold read as zero.
///
/// The table comes zeroed from `calloc`: a table of a chip's size comes from fresh pages that the system maps
/// only where a value is touched, so a run over a few hits pays for a few pages, not for the whole frame.
template <typename T>
class PixelTable {
    static_assert(std::is_integral_v<T>, "zero must be all bits zero");

public:
    /// As large as the largest canvas a layout may have.
    static constexpr std::int64_t maxSide_px = 4096;

    explicit PixelTable(std::int64_t margin_ = 0) : margin(margin_) {}

    [[nodiscard]] bool holds(std::int64_t x, std::int64_t y) const noexcept {
        return x >= 0 && y >= 0 && x < width && y < height;
    }

    /// Grows to hold (x, y). False for a pixel that no canvas has (negative, or beyond `maxSide_px`).
    [[nodiscard]] bool reach(std::int64_t x, std::int64_t y) {
        if (holds(x, y)) {
            return true;
        }
        if (x < 0 || y < 0 || x >= maxSide_px || y >= maxSide_px) {
            return false;
        }
        resize(std::max(width, roundUp(x + 1)), std::max(height, roundUp(y + 1)));
        return true;
    }

    /// The value of a pixel the table holds.
    [[nodiscard]] T& at(std::int64_t x, std::int64_t y) noexcept { return values.get()[index(x, y)]; }
    [[nodiscard]] const T& at(std::int64_t x, std::int64_t y) const noexcept { return values.get()[index(x, y)]; }
    /// Where the value of (x, y) lies; (x + dx, y + dy) lies `dy * stride() + dx` further, within the margin.
    [[nodiscard]] const T* address(std::int64_t x, std::int64_t y) const noexcept { return values.get() + index(x, y); }
    [[nodiscard]] std::int64_t stride() const noexcept { return width + 2 * margin; }

    /// Every pixel back to zero.
    void reset() noexcept {
        if (values) {
            std::memset(values.get(), 0, size() * sizeof(T));
        }
    }

private:
    static constexpr std::int64_t step_px = 256; ///< grown in whole chips

    [[nodiscard]] static std::int64_t roundUp(std::int64_t n) noexcept { return (n + step_px - 1) / step_px * step_px; }
    [[nodiscard]] std::size_t index(std::int64_t x, std::int64_t y) const noexcept {
        return static_cast<std::size_t>((y + margin) * stride() + x + margin);
    }

    [[nodiscard]] std::size_t size() const noexcept {
        return width == 0 ? 0 : static_cast<std::size_t>(stride() * (height + 2 * margin));
    }

    void resize(std::int64_t newWidth, std::int64_t newHeight) {
        const std::int64_t newStride = newWidth + 2 * margin;
        Values grown(
            static_cast<T*>(std::calloc(static_cast<std::size_t>(newStride * (newHeight + 2 * margin)), sizeof(T))));
        if (!grown) {
            throw std::bad_alloc();
        }
        for (std::int64_t y = 0; y < height; ++y) {
            std::memcpy(grown.get() + (y + margin) * newStride + margin, values.get() + index(0, y),
                        static_cast<std::size_t>(width) * sizeof(T));
        }
        values = std::move(grown);
        width = newWidth;
        height = newHeight;
    }

    struct Free {
        void operator()(T* p) const noexcept { std::free(p); }
    };
    using Values = std::unique_ptr<T, Free>;

    std::int64_t margin;
    std::int64_t width = 0;
    std::int64_t height = 0;
    Values values;
};

} // namespace kavot_tpx3spidr

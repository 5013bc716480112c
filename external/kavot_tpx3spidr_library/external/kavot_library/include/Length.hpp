#pragma once

#include <compare>

namespace kavot {

/// A fixed-point length: raw value = pixels x `UnitsPerPixel`.
template <typename Rep, int UnitsPerPixel>
class Length {
public:
    using rep_type = Rep;
    static constexpr int units_per_pixel = UnitsPerPixel;

    constexpr explicit Length(Rep raw) noexcept : value(raw) {}

    [[nodiscard]] constexpr Rep get_value() const noexcept { return value; }

    friend constexpr auto operator<=>(Length, Length) = default;

    /// The length in pixels, for display at the edges of the program only.
    [[nodiscard]] constexpr double get_px() const noexcept { return static_cast<double>(value) / UnitsPerPixel; }

private:
    Rep value;
};

} // namespace kavot

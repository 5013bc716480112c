#pragma once

#include <cmath>
#include <compare>
#include <stdexcept>
#include <string>

namespace kavot {

/// A time as a signed count of ticks of `TickSeconds` seconds; compared and subtracted as raw counts.
template <typename Rep, double TickSeconds>
class Time {
public:
    using rep_type = Rep;
    static constexpr double tick_seconds = TickSeconds;

    constexpr explicit Time(Rep ticks) noexcept : value(ticks) {}

    [[nodiscard]] constexpr Rep get_value() const noexcept { return value; }

    friend constexpr auto operator<=>(Time, Time) = default;
    friend constexpr Time operator+(Time a, Time b) noexcept { return Time(a.value + b.value); }
    friend constexpr Time operator-(Time a, Time b) noexcept { return Time(a.value - b.value); }

    /// Converts seconds to the nearest tick, halves away from zero. With `checkRange` the value must lie
    /// within +-2^62 ticks; NaN is refused with the same message, since it passes both bound comparisons.
    template <bool checkRange>
    static Time make_from_seconds(double seconds) {
        if constexpr (checkRange) {
            if (std::isnan(seconds) || seconds < -maxSeconds || seconds > maxSeconds) {
                throw std::invalid_argument("Value " + std::to_string(seconds) + " s out of range!");
            }
        }
        return Time(static_cast<Rep>(std::round(seconds / TickSeconds)));
    }

    /// The time in seconds, for display at the edges of the program only.
    [[nodiscard]] constexpr double get_seconds() const noexcept { return static_cast<double>(value) * TickSeconds; }

private:
    // 2^62 ticks of 1.5625 ns: the range keeps sums and differences of two converted values inside 64 bits.
    static constexpr double maxSeconds = 7205759403.792793;
    Rep value;
};

} // namespace kavot

#pragma once

// What one photon looks like through the intensifier: the n pixels nearest its centre, a ToT that falls off
// with the distance from it, and a few ns of spread in time. The draws are made in a fixed order, so a seed
// gives the same photons wherever they are used.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "Random.hpp"

namespace tpx3gen {

class PhotonShape {
public:
    using Offset = std::array<int, 2>;
    static constexpr std::size_t maxHits = 20;

    /// The offsets of a 5 x 5 neighbourhood, nearest first (ties in row order): a photon takes the first n.
    static const std::array<Offset, 25>& offsets() {
        static const std::array<Offset, 25> table = [] {
            std::array<Offset, 25> all{};
            std::size_t k = 0;
            for (int dy = -2; dy <= 2; ++dy) {
                for (int dx = -2; dx <= 2; ++dx) {
                    all[k++] = {dx, dy};
                }
            }
            std::stable_sort(all.begin(), all.end(), [](const Offset& a, const Offset& b) {
                return a[0] * a[0] + a[1] * a[1] < b[0] * b[0] + b[1] * b[1];
            });
            return all;
        }();
        return table;
    }

    /// The number of hits of a photon, 1 to `maxHits`, around `meanHits`.
    static std::size_t draw_hitCount(double meanHits, Random& random) {
        return static_cast<std::size_t>(
            std::clamp(1.0 + std::floor(random.exponential(meanHits - 0.5)), 1.0, static_cast<double>(maxHits)));
    }

    /// The mean of `draw_hitCount(meanHits)`: the floor and the limit of `maxHits` make it differ from `meanHits`.
    static double mean_hitCount(double meanHits) {
        const double q = std::exp(-1 / (meanHits - 0.5)); // P(draw >= k + 1 | draw >= k)
        double mean = 0;
        double reach = 1; // P(draw >= k + 1)
        for (std::size_t k = 1; k < maxHits; ++k) {
            mean += static_cast<double>(k) * reach * (1 - q);
            reach *= q;
        }
        return mean + static_cast<double>(maxHits) * reach;
    }

    /// The ToT at the photon's centre, before the fall-off.
    static double draw_peak(Random& random) { return 60 + random.uniform() * 340; }

    struct HitDraw {
        std::uint16_t tot;
        std::int64_t delay_ticks; ///< after the photon's time
    };

    /// One hit at squared distance `r2_px2` from the centre. Weak hits come later (time walk): up to 13 ticks.
    static HitDraw draw_hit(double r2_px2, double peak, Random& random) {
        const auto tot =
            static_cast<std::uint16_t>(std::clamp(peak * std::exp(-r2_px2 / 2.5) + random.uniform() * 10, 1.0, 1023.0));
        const auto delay = static_cast<std::int64_t>(random.below(4) + (tot < 40 ? random.below(10) : 0));
        return {tot, delay};
    }
    static constexpr std::int64_t maxDelay_ticks = 13;
};

} // namespace tpx3gen

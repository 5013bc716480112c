#pragma once

#include <algorithm>
#include <cstdint>

#include "PixelActivation.hpp"

namespace kavot_tpx3spidr {

/// The running sums of one cluster; weights are ToT + 1. The chain keeps no reference to its activations. Beside
/// the sums that make the photon event it keeps the largest ToT and the chip of its first activation, which a
/// conversion reports per photon.
struct PixelActivationChain {
    [[nodiscard]] static std::uint64_t weight(const PixelActivation& activation) noexcept {
        return std::uint64_t{activation.get_tot()} + 1;
    }
    [[nodiscard]] static std::uint64_t widened(short coordinate) noexcept {
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(coordinate));
    }

    explicit PixelActivationChain(const PixelActivation& activation) noexcept
        : weightSum(weight(activation)), xWeightedSum(widened(activation.get_x_px()) * weightSum),
          yWeightedSum(widened(activation.get_y_px()) * weightSum), toa(activation.get_toa()), nPx(1),
          totMax(activation.get_tot()), chip(activation.get_chip()) {}

    /// Adds an activation that may precede the chain's first one: the chain's time follows the earliest.
    void add_pixelActivation(const PixelActivation& activation) noexcept {
        add_pixelActivation_notFirst(activation);
        if (activation.get_toa() < toa) {
            toa = activation.get_toa();
            chip = activation.get_chip();
        }
    }

    /// Adds an activation known not to precede the chain's first one.
    void add_pixelActivation_notFirst(const PixelActivation& activation) noexcept {
        const std::uint64_t w = weight(activation);
        ++nPx;
        weightSum += w;
        xWeightedSum += widened(activation.get_x_px()) * w;
        yWeightedSum += widened(activation.get_y_px()) * w;
        totMax = std::max(totMax, activation.get_tot());
    }

    void add_chain(const PixelActivationChain& other) noexcept {
        xWeightedSum += other.xWeightedSum;
        yWeightedSum += other.yWeightedSum;
        weightSum += other.weightSum;
        if (other.toa < toa) {
            toa = other.toa;
            chip = other.chip;
        }
        nPx += other.nPx;
        totMax = std::max(totMax, other.totMax);
    }

    /// The sum of the raw ToT values: each weight is ToT + 1.
    [[nodiscard]] std::uint64_t totSum() const noexcept { return weightSum - nPx; }

    std::uint64_t weightSum;
    std::uint64_t xWeightedSum;
    std::uint64_t yWeightedSum;
    Time toa;
    std::uint64_t nPx;
    std::uint16_t totMax;
    std::uint8_t chip;
};

} // namespace kavot_tpx3spidr

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "PixelActivation.hpp"

namespace kavot_tpx3spidr {

/// A pixel time more than this far behind the latest time so far has wrapped the 34-bit pixel clock.
constexpr long rolloverThreshold_ticks = 1L << 33;
constexpr long rolloverPeriod_ticks = 1L << 34;

namespace detail {

/// Plain two's complement arithmetic on tick counts, free of signed-overflow traps for arbitrary data.
inline long wrapping_sub(long a, long b) noexcept {
    return static_cast<long>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}
inline long wrapping_add(long a, long b) noexcept {
    return static_cast<long>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

/// Stable ascending sort by time: LSD radix over the bits in which the times differ, 11 bits a pass. Linear in
/// n whatever the input order.
inline void radixSort_byTime(std::vector<PixelActivation>& activations) {
    const std::size_t n = activations.size();
    if (n < 2) {
        return;
    }
    long minimum = activations[0].get_toa().get_value();
    long maximum = minimum;
    for (const auto& activation : activations) {
        minimum = std::min(minimum, activation.get_toa().get_value());
        maximum = std::max(maximum, activation.get_toa().get_value());
    }
    const auto key = [minimum](const PixelActivation& activation) {
        return static_cast<std::uint64_t>(activation.get_toa().get_value()) - static_cast<std::uint64_t>(minimum);
    };
    const std::uint64_t span = static_cast<std::uint64_t>(maximum) - static_cast<std::uint64_t>(minimum);
    constexpr unsigned digitBits = 11;
    constexpr std::size_t buckets = std::size_t{1} << digitBits;
    std::vector<PixelActivation> scratch;
    scratch.reserve(n);
    scratch.resize(n, activations[0]);
    std::vector<std::size_t> offsets(buckets);
    for (unsigned shift = 0; shift < 64 && (span >> shift) != 0; shift += digitBits) {
        std::fill(offsets.begin(), offsets.end(), 0);
        for (const auto& activation : activations) {
            ++offsets[(key(activation) >> shift) & (buckets - 1)];
        }
        std::size_t start = 0;
        for (auto& offset : offsets) {
            start += std::exchange(offset, start);
        }
        for (const auto& activation : activations) {
            scratch[offsets[(key(activation) >> shift) & (buckets - 1)]++] = activation;
        }
        activations.swap(scratch);
    }
}

} // namespace detail

/// The rollover repair of times taken in file order: a time more than 2^33 ticks behind the largest time so far
/// gains one 2^34-tick period, once; the first time is never repaired.
class RolloverRepair {
public:
    /// A time that follows others whose largest is `latest`, repaired.
    [[nodiscard]] static long repaired(long latest, long toa) noexcept {
        return detail::wrapping_sub(latest, toa) > rolloverThreshold_ticks
                   ? detail::wrapping_add(toa, rolloverPeriod_ticks)
                   : toa;
    }

    void apply(Time& toa) noexcept {
        if (first) {
            first = false;
        } else {
            toa = Time(repaired(latest, toa.get_value()));
        }
        latest = std::max(latest, toa.get_value());
    }

private:
    long latest = std::numeric_limits<long>::min();
    bool first = true;
};

/// Builds the time order of activations that arrive in file order: each is repaired against the latest time so
/// far and inserted behind every activation whose time is not later.
///
/// That is the definition of the order: a stable ascending sort by time, where an activation more than 2^33
/// ticks behind the largest time so far gains one 2^34-tick period first. The largest time so far does not
/// depend on where earlier activations were inserted, so it is a running maximum. Insertion is linear for the
/// nearly ordered input of a real readout. Once the entries moved exceed a budget proportional to n, insertion
/// stops and the remaining activations are only appended; `finish` then sorts everything with a stable radix
/// sort. At that point the activations form a stably sorted prefix of file positions 0 to i - 1 followed by
/// positions i to n - 1 in file order, so a stable sort of the whole keeps every tie in file order, as insertion
/// would have. No input becomes quadratic.
class TimeOrdering {
public:
    TimeOrdering(std::vector<PixelActivation>& activations_, std::size_t expected) noexcept
        : activations(activations_), moveBudget(8 * expected + 4096) {}

    /// Repairs and places the activation at position i, the next in file order; positions 0 to i - 1 hold the
    /// activations placed so far.
    void place(std::size_t i) noexcept {
        Time& toa = activations[i].get_toa();
        repair.apply(toa);
        if (i == 0 || insertionAbandoned || !(toa < activations[i - 1].get_toa())) {
            return;
        }
        const PixelActivation moving = activations[i];
        std::size_t k = i;
        while (k > 0 && activations[k - 1].get_toa() > moving.get_toa()) {
            activations[k] = activations[k - 1];
            --k;
        }
        activations[k] = moving;
        moves += i - k;
        insertionAbandoned = moves > moveBudget;
    }

    void finish() {
        if (insertionAbandoned) {
            detail::radixSort_byTime(activations);
        }
    }

private:
    std::vector<PixelActivation>& activations;
    std::size_t moveBudget;
    std::size_t moves = 0;
    RolloverRepair repair;
    bool insertionAbandoned = false;
};

/// Repairs rollovers and puts activations given in file order into time order, in place (see `TimeOrdering`).
inline void order_byTime(std::vector<PixelActivation>& activations) {
    TimeOrdering ordering(activations, activations.size());
    for (std::size_t i = 0; i < activations.size(); ++i) {
        ordering.place(i);
    }
    ordering.finish();
}

} // namespace kavot_tpx3spidr

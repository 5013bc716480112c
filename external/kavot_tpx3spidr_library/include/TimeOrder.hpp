#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "PixelActivation.hpp"

namespace kavot_tpx3spidr {

// The time order of the pixel activations of a recording, as the data set defines it: activations are taken in
// file order; each is repaired against the largest time so far (a time more than 2^33 ticks behind it has
// wrapped the 34-bit pixel clock and gains one 2^34-tick period, once; the first is never repaired); then all
// are sorted stably by time, so that equal times keep their file order.
//
// The largest time so far does not depend on where earlier activations were placed, so the repair is a running
// maximum that one pass in file order settles. The sort is then a plain stable sort by time. It is done in two
// steps: each block of consecutive chunks is sorted on its own (`TimeOrdering`), and the sorted blocks are
// merged (`RunMerge`), ties going to the earlier block, which holds the earlier file positions.

/// A pixel time more than this far behind the latest time so far has wrapped the 34-bit pixel clock.
constexpr long rolloverThreshold_ticks = 1L << 33;
constexpr long rolloverPeriod_ticks = 1L << 34;
/// The latest time before the first activation: there is none, and the first activation is never repaired.
constexpr long noTime_ticks = std::numeric_limits<long>::min();

/// Plain two's complement arithmetic on tick counts, free of signed-overflow traps for arbitrary data.
[[nodiscard]] inline long wrapping_sub(long a, long b) noexcept {
    return static_cast<long>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}
[[nodiscard]] inline long wrapping_add(long a, long b) noexcept {
    return static_cast<long>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

/// Repairs `toa` against `latest`, the largest repaired time before it (`noTime_ticks` before the first), and
/// makes `latest` include it. Returns the repaired time.
[[nodiscard]] inline long repair_rollover(long& latest, long toa) noexcept {
    if (latest == noTime_ticks) [[unlikely]] {
        latest = toa;
        return toa;
    }
    if (wrapping_sub(latest, toa) > rolloverThreshold_ticks) {
        toa = wrapping_add(toa, rolloverPeriod_ticks);
    }
    latest = std::max(latest, toa);
    return toa;
}

/// Puts activations that arrive in file order (already repaired) into stable time order as they arrive: each is
/// placed behind every activation whose time is not later.
///
/// Insertion is linear for the nearly ordered input of a real readout. Once the entries moved exceed a budget
/// proportional to the count, insertion stops and the remaining activations are only appended; `finish` then
/// sorts everything with a stable radix sort. At that point the vector is a stably sorted prefix followed by
/// the rest in file order, so a stable sort of the whole keeps every tie in file order, as insertion would have.
/// No input becomes quadratic.
class TimeOrdering {
public:
    TimeOrdering(std::vector<PixelActivation>& activations_, std::size_t expected) noexcept
        : activations(activations_), moveBudget(8 * expected + 4096) {}

    void add(const PixelActivation& activation) {
        activations.push_back(activation);
        const std::size_t i = activations.size() - 1;
        if (i == 0 || insertionAbandoned || !(activation.get_toa() < activations[i - 1].get_toa())) {
            return;
        }
        std::size_t k = i;
        while (k > 0 && activations[k - 1].get_toa() > activation.get_toa()) {
            activations[k] = activations[k - 1];
            --k;
        }
        activations[k] = activation;
        moves += i - k;
        insertionAbandoned = moves > moveBudget;
    }

    void finish() {
        if (insertionAbandoned) {
            radixSort_byTime(activations);
        }
    }

    /// Stable ascending sort by time: LSD radix over the bits in which the times differ, 11 bits a pass.
    static void radixSort_byTime(std::vector<PixelActivation>& all) {
        const std::size_t n = all.size();
        if (n < 2) {
            return;
        }
        const auto [lowest, highest] =
            std::minmax_element(all.begin(), all.end(), [](const PixelActivation& a, const PixelActivation& b) {
                return a.get_toa() < b.get_toa();
            });
        const auto minimum = static_cast<std::uint64_t>(lowest->get_toa().get_value());
        const std::uint64_t span = static_cast<std::uint64_t>(highest->get_toa().get_value()) - minimum;
        const auto key = [minimum](const PixelActivation& activation) {
            return static_cast<std::uint64_t>(activation.get_toa().get_value()) - minimum;
        };
        constexpr unsigned digitBits = 11;
        constexpr std::size_t buckets = std::size_t{1} << digitBits;
        std::vector<PixelActivation> scratch(n, all[0]);
        std::vector<std::size_t> offsets(buckets);
        for (unsigned shift = 0; shift < 64 && (span >> shift) != 0; shift += digitBits) {
            std::fill(offsets.begin(), offsets.end(), 0);
            for (const auto& activation : all) {
                ++offsets[(key(activation) >> shift) & (buckets - 1)];
            }
            std::size_t start = 0;
            for (auto& offset : offsets) {
                start += std::exchange(offset, start);
            }
            for (const auto& activation : all) {
                scratch[offsets[(key(activation) >> shift) & (buckets - 1)]++] = activation;
            }
            all.swap(scratch);
        }
    }

private:
    std::vector<PixelActivation>& activations;
    std::size_t moveBudget;
    std::size_t moves = 0;
    bool insertionAbandoned = false;
};

} // namespace kavot_tpx3spidr

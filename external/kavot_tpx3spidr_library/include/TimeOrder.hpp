#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
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

/// Stable ascending order of `keys` by an LSD radix sort over the bits in which they differ: O(n) passes of
/// 11 bits, independent of how disordered the input is.
inline void radixOrder(const std::vector<PixelActivation>& pixelActivations, std::vector<std::size_t>& sorting) {
    const std::size_t n = pixelActivations.size();
    long minimum = pixelActivations[0].get_toa().get_value();
    long maximum = minimum;
    for (const auto& activation : pixelActivations) {
        minimum = std::min(minimum, activation.get_toa().get_value());
        maximum = std::max(maximum, activation.get_toa().get_value());
    }
    const std::uint64_t span = static_cast<std::uint64_t>(maximum) - static_cast<std::uint64_t>(minimum);
    struct Entry {
        std::uint64_t key;
        std::size_t position;
    };
    std::vector<Entry> entries(n);
    std::vector<Entry> scratch(n);
    for (std::size_t i = 0; i < n; ++i) {
        entries[i] = {static_cast<std::uint64_t>(pixelActivations[i].get_toa().get_value()) -
                          static_cast<std::uint64_t>(minimum),
                      i};
    }
    constexpr unsigned digitBits = 11;
    constexpr std::size_t buckets = std::size_t{1} << digitBits;
    for (unsigned shift = 0; shift < 64 && (span >> shift) != 0; shift += digitBits) {
        std::vector<std::size_t> offsets(buckets + 1, 0);
        for (const auto& entry : entries) {
            ++offsets[((entry.key >> shift) & (buckets - 1)) + 1];
        }
        for (std::size_t b = 1; b <= buckets; ++b) {
            offsets[b] += offsets[b - 1];
        }
        for (const auto& entry : entries) {
            scratch[offsets[(entry.key >> shift) & (buckets - 1)]++] = entry;
        }
        entries.swap(scratch);
    }
    sorting.clear();
    for (const auto& entry : entries) {
        sorting.push_back(entry.position);
    }
}

} // namespace detail

/// Repairs one rollover of the pixel clock per activation and returns the positions of the activations in
/// stable ascending time order.
///
/// The result is that of inserting the positions one by one in file order into a growing index (scanning back
/// over strictly later times), where each activation is first compared with the latest time of the index: its
/// last entry, which is the largest time so far. Two observations make it cheaper without changing it:
///  - the largest time so far does not depend on where earlier activations were inserted, so all repairs can be
///    made first in one pass with a running maximum;
///  - inserting behind every entry of equal time is a stable sort by time, so any stable sort gives the same
///    index. Insertion is kept for nearly ordered input, where it is linear; once the entries moved exceed a
///    budget proportional to n, the index is rebuilt by a radix sort instead, so no input becomes quadratic.
inline std::vector<std::size_t> build_timeOrder(std::vector<PixelActivation>& pixelActivations) {
    const std::size_t n = pixelActivations.size();
    std::vector<std::size_t> sorting;
    sorting.reserve(n);
    if (n == 0) {
        return sorting;
    }
    long latest = pixelActivations[0].get_toa().get_value();
    for (std::size_t i = 1; i < n; ++i) {
        Time& toa = pixelActivations[i].get_toa();
        if (detail::wrapping_sub(latest, toa.get_value()) > rolloverThreshold_ticks) {
            toa = Time(detail::wrapping_add(toa.get_value(), rolloverPeriod_ticks));
        }
        latest = std::max(latest, toa.get_value());
    }

    const std::size_t moveBudget = 16 * n + 4096;
    std::size_t moves = 0;
    sorting.push_back(0);
    for (std::size_t i = 1; i < n; ++i) {
        const long toa = pixelActivations[i].get_toa().get_value();
        std::size_t k = sorting.size();
        while (k > 0 && pixelActivations[sorting[k - 1]].get_toa().get_value() > toa) {
            --k;
        }
        moves += sorting.size() - k;
        if (moves > moveBudget) {
            detail::radixOrder(pixelActivations, sorting);
            return sorting;
        }
        sorting.insert(sorting.begin() + static_cast<std::ptrdiff_t>(k), i);
    }
    return sorting;
}

} // namespace kavot_tpx3spidr

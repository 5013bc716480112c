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
// steps: each block of consecutive chunks is sorted on its own (`sort_byTime`), and the sorted blocks are
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

namespace detail {

/// Insertion from the first activation on, while it moves at most a few entries per activation looked at (the
/// late hits of a readout that is nearly in order). Returns the position up to which the run is stably sorted:
/// its end, or, where insertion gave up, a prefix followed by the rest in file order.
inline std::size_t insertLate(std::vector<PixelActivation>& run) noexcept {
    constexpr std::size_t movesPerActivation = 4;
    constexpr std::size_t movesAhead = 1024;
    std::size_t moves = 0;
    for (std::size_t i = 1; i < run.size(); ++i) {
        const PixelActivation activation = run[i];
        const Time toa = activation.get_toa();
        if (!(toa < run[i - 1].get_toa())) {
            continue;
        }
        std::size_t k = i;
        do {
            run[k] = run[k - 1];
            --k;
        } while (k > 0 && run[k - 1].get_toa() > toa);
        run[k] = activation;
        moves += i - k;
        if (moves > movesPerActivation * i + movesAhead) {
            return i + 1;
        }
    }
    return run.size();
}

/// Stable LSD radix sort by time, in as few passes of at most 11 bits as the span of the times needs; a pass in
/// which every activation has the same digit is skipped. `scratch` is any vector whose memory it may use.
inline void radixSort(std::vector<PixelActivation>& run, std::vector<PixelActivation>& scratch) {
    const std::size_t n = run.size();
    long earliest = run[0].get_toa().get_value();
    long latest = earliest;
    for (const PixelActivation& activation : run) {
        const long time = activation.get_toa().get_value();
        earliest = time < earliest ? time : earliest;
        latest = time > latest ? time : latest;
    }
    const auto minimum = static_cast<std::uint64_t>(earliest);
    const std::uint64_t span = static_cast<std::uint64_t>(latest) - minimum;
    const auto spanBits = static_cast<unsigned>(64 - __builtin_clzll(span | 1));
    constexpr unsigned mostBits = 11;
    const unsigned passes = (spanBits + mostBits - 1) / mostBits;
    const unsigned digitBits = (spanBits + passes - 1) / passes;
    const std::size_t buckets = std::size_t{1} << digitBits;
    const std::uint64_t digit = buckets - 1;
    const auto key = [minimum](const PixelActivation& activation) {
        return static_cast<std::uint64_t>(activation.get_toa().get_value()) - minimum;
    };
    std::vector<std::size_t> offsets(passes * buckets);
    if (passes == 2) { // the span of a block of a busy readout: counted in one go
        std::size_t* low = offsets.data();
        std::size_t* high = low + buckets;
        for (const PixelActivation& activation : run) {
            const std::uint64_t k = key(activation);
            ++low[k & digit];
            ++high[(k >> digitBits) & digit];
        }
    } else {
        for (const PixelActivation& activation : run) {
            const std::uint64_t k = key(activation);
            for (unsigned p = 0; p < passes; ++p) {
                ++offsets[p * buckets + ((k >> (p * digitBits)) & digit)];
            }
        }
    }
    scratch.resize(n, run[0]);
    for (unsigned p = 0; p < passes; ++p) {
        std::size_t* offset = offsets.data() + p * buckets;
        if (std::find(offset, offset + buckets, n) != offset + buckets) {
            continue;
        }
        std::size_t start = 0;
        for (std::size_t b = 0; b < buckets; ++b) {
            start += std::exchange(offset[b], start);
        }
        const unsigned shift = p * digitBits;
        PixelActivation* to = scratch.data();
        for (const PixelActivation& activation : run) {
            to[offset[(key(activation) >> shift) & digit]++] = activation;
        }
        run.swap(scratch);
    }
}

} // namespace detail

/// Puts the activations of a block, decoded in file order, into stable time order (equal times keep file order).
/// A short run by insertion. A longer one by the radix sort: in a busy readout about every other hit lands
/// behind its predecessor, and the insertion's test for it, mispredicted that often, cost more than the radix
/// sort's passes (20 M hits: 0.54–0.59 s of CPU against 0.46–0.47 s). Where insertion gives up, the run is a
/// stably sorted prefix followed by the rest in file order, whose stable sort is the stable sort of the whole:
/// the radix sort finishes it. `scratch` is memory to reuse from block to block.
inline void sort_byTime(std::vector<PixelActivation>& run, std::vector<PixelActivation>& scratch) {
    constexpr std::size_t insertedMost = 64;
    if (run.size() > insertedMost || detail::insertLate(run) < run.size()) {
        detail::radixSort(run, scratch);
    }
}

/// Puts activations that arrive in file order (already repaired) into stable time order: collected as they
/// arrive, sorted as one block by `finish`.
class TimeOrdering {
public:
    explicit TimeOrdering(std::vector<PixelActivation>& activations_) noexcept : activations(activations_) {}

    void add(const PixelActivation& activation) { activations.push_back(activation); }
    void finish() {
        std::vector<PixelActivation> scratch;
        sort_byTime(activations, scratch);
    }

private:
    std::vector<PixelActivation>& activations;
};

} // namespace kavot_tpx3spidr

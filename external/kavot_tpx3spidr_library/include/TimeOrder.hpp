#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
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

/// The digits of a radix sort over times from `earliest` to `latest`: as few passes of at most 11 bits as the
/// span needs.
struct RadixDigits {
    RadixDigits(long earliest, long latest) noexcept
        : minimum(static_cast<std::uint64_t>(earliest)), span(static_cast<std::uint64_t>(latest) - minimum) {
        constexpr unsigned mostBits = 11;
        const auto spanBits = static_cast<unsigned>(64 - __builtin_clzll(span | 1));
        passes = (spanBits + mostBits - 1) / mostBits;
        bits = (spanBits + passes - 1) / passes;
        buckets = std::size_t{1} << bits;
    }
    [[nodiscard]] std::uint64_t key(const PixelActivation& activation) const noexcept {
        return static_cast<std::uint64_t>(activation.get_toa().get_value()) - minimum;
    }
    [[nodiscard]] std::size_t digit(std::uint64_t key, unsigned pass) const noexcept {
        return static_cast<std::size_t>(key >> (pass * bits)) & (buckets - 1);
    }

    std::uint64_t minimum;
    std::uint64_t span;
    unsigned passes;
    unsigned bits;
    std::size_t buckets;
};

/// Counts the digits of every pass into `offsets` (zeroed, `passes * buckets` long). Returns false when a time
/// lies outside the span (the counts are then of no use).
inline bool count_digits(const std::vector<PixelActivation>& run, const RadixDigits& d, std::size_t* offsets) {
    bool outside = false;
    if (d.passes == 2) { // the span of a block of a busy readout: counted in one go
        std::size_t* high = offsets + d.buckets;
        for (const PixelActivation& activation : run) {
            const std::uint64_t k = d.key(activation);
            outside |= k > d.span;
            ++offsets[d.digit(k, 0)];
            ++high[d.digit(k, 1)];
        }
    } else {
        for (const PixelActivation& activation : run) {
            const std::uint64_t k = d.key(activation);
            outside |= k > d.span;
            for (unsigned p = 0; p < d.passes; ++p) {
                ++offsets[p * d.buckets + d.digit(k, p)];
            }
        }
    }
    return !outside;
}

/// The earliest and the latest time of a run.
inline std::pair<long, long> timeSpan(const std::vector<PixelActivation>& run) noexcept {
    long earliest = run[0].get_toa().get_value();
    long latest = earliest;
    for (const PixelActivation& activation : run) {
        const long time = activation.get_toa().get_value();
        earliest = time < earliest ? time : earliest;
        latest = time > latest ? time : latest;
    }
    return {earliest, latest};
}

/// Stable LSD radix sort by time; a pass in which every activation has the same digit is skipped. `span`, when
/// given, is where the times are expected to lie (the census's figures for the blocks of the run): the pass
/// that finds the span is then saved, and it is made only when a time lies outside. The stable order by time is
/// one order whatever the digits, so the span only decides how fast it is found. `scratch` is any vector whose
/// memory it may use.
inline void radixSort(std::vector<PixelActivation>& run,
                      std::vector<PixelActivation>& scratch,
                      std::optional<std::pair<long, long>> span = std::nullopt) {
    const std::size_t n = run.size();
    if (!span) {
        span = timeSpan(run);
    }
    RadixDigits d(span->first, span->second);
    std::vector<std::size_t> offsets(d.passes * d.buckets);
    if (!count_digits(run, d, offsets.data())) {
        const auto [earliest, latest] = timeSpan(run);
        d = RadixDigits(earliest, latest);
        offsets.assign(d.passes * d.buckets, 0);
        count_digits(run, d, offsets.data());
    }
    scratch.resize(n, run[0]);
    for (unsigned p = 0; p < d.passes; ++p) {
        std::size_t* offset = offsets.data() + p * d.buckets;
        if (std::find(offset, offset + d.buckets, n) != offset + d.buckets) {
            continue;
        }
        std::size_t start = 0;
        for (std::size_t b = 0; b < d.buckets; ++b) {
            start += std::exchange(offset[b], start);
        }
        PixelActivation* to = scratch.data();
        for (const PixelActivation& activation : run) {
            to[offset[d.digit(d.key(activation), p)]++] = activation;
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
/// the radix sort finishes it. `scratch` is memory to reuse from block to block; `span`, the times the run is
/// expected to lie within (see `detail::radixSort`).
inline void sort_byTime(std::vector<PixelActivation>& run,
                        std::vector<PixelActivation>& scratch,
                        std::optional<std::pair<long, long>> span = std::nullopt) {
    constexpr std::size_t insertedMost = 64;
    if (run.size() > insertedMost || detail::insertLate(run) < run.size()) {
        detail::radixSort(run, scratch, span);
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

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace kavot_tpx3spidr {

/// Tells which TDC packets repeat another chip's. The chips of a quad detector can each carry every trigger: the
/// same edge (bits 59-56) and the same time (bits 43-5), with each chip's own trigger counter (bits 55-44) in
/// between. A packet is a copy when a packet of a different chip with the same edge and time was read shortly
/// before; the first chip to carry a trigger holds the original.
///
/// "Shortly before" is among the latest `remembered` distinct stamps. Copies are not remembered again, so the
/// window spans that many triggers however many chips carry each, and memory stays the same for any recording.
class TdcCopies {
public:
    static constexpr std::size_t remembered = 64;
    static constexpr std::uint64_t edge_mask = std::uint64_t{0xF} << 56;
    static constexpr std::uint64_t time_mask = ((std::uint64_t{1} << 39) - 1) << 5; // coarse and fine time
    static constexpr std::uint64_t stamp_mask = edge_mask | time_mask;

    /// Whether the TDC packet `word`, read in a chunk of `chip`, copies a packet of another chip.
    [[nodiscard]] bool is_copy(unsigned chip, std::uint64_t word) noexcept {
        const std::uint64_t stamp = word & stamp_mask;
        const auto end = stamps.begin() + static_cast<std::ptrdiff_t>(filled);
        const auto seen = std::find_if(stamps.begin(), end, [&](const Stamp& s) { return s.stamp == stamp; });
        // The same stamp again on the chip that holds the original is a second packet of that chip, no copy.
        const bool copy = seen != end && seen->chip != chip;
        if (seen == end) {
            stamps[next] = {stamp, chip};
            next = (next + 1) % remembered;
            filled = std::min(filled + 1, remembered);
        }
        return copy;
    }

private:
    struct Stamp {
        std::uint64_t stamp;
        unsigned chip;
    };
    std::array<Stamp, remembered> stamps{};
    std::size_t next = 0; ///< where the next original goes, over the oldest once the ring is full
    std::size_t filled = 0;
};

} // namespace kavot_tpx3spidr

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Tpx3Packet.hpp"

namespace kavot_tpx3spidr {

// Continuous time over a recording of any length, with a clock per chip.
//
// Pixel times count 25 ns in 30 bits and wrap every 26.8 s. Each chip keeps a reference R (ticks), and every raw
// time of the chip is placed at the value congruent to it modulo 2^34 ticks that lies nearest R, within
// [R - 2^33, R + 2^33). R starts at the first valid heartbeat of the recording (a global time packet pair) and
// becomes the chip's latest heartbeat each time one is read in the chip's chunks, so a hit is placed right when
// it lies within 13.4 s of its chip's latest heartbeat, whatever order it arrives in. TDC times are placed the
// same way from the part of their time that runs with the heartbeat clock (`tpx3::tdcTime_onPixelClock`).
//
// A heartbeat that is later than the next heartbeat of the same chip is stale (the clock was reset after it, as
// when a recording starts with the heartbeats of an earlier acquisition) and never becomes a reference. Telling
// one needs the chip's next heartbeat; the census, which reads the recording first, finds every stale heartbeat
// (going back where it had used one, see `Tpx3ChipClockCensus`) and the decode reads them from its list.
//
// A recording without any heartbeat has no common clock: every chip's reference starts at the time of the
// recording's first timed packet and then follows the chip's own packets (it becomes each packet's placed time).
// That holds while no chip stays silent for more than 13.4 s; longer silences are reported as gaps.

/// The clock of one chip: the reference its raw times are placed around, and its latest heartbeat (which the
/// census compares with the chip's next one).
struct ChipClock {
    long reference_ticks = 0;
    std::uint64_t lastHeartbeat_ticks = 0;
    std::uint64_t lastHeartbeat_word = 0; ///< the word index of its high-part packet
    bool hasHeartbeat = false;
};

/// A place where the time of a chip could not be followed for sure: a reference that moved by more than the
/// clocks bridge (between two heartbeats, or, without heartbeats, between two packets of the chip).
struct ClockGap {
    unsigned chip;
    long from_ticks;
    long to_ticks;
    std::uint64_t word; ///< where the census found it
};

/// The chips' clocks at the start of one block of the census.
struct BlockClocks {
    std::uint64_t latestLow; ///< the low part of the global time waiting for its high part
    std::size_t first;       ///< the chips' clocks, by slot, in `Tpx3ChipClockFacts::snapshots`
    std::size_t count;
};

/// What the census finds out about the chips' clocks: what the decode needs to give every packet the census's
/// time, and what a report tells.
struct Tpx3ChipClockFacts {
    /// More chips than this in one recording are refused: the census keeps their clocks for every block.
    static constexpr std::size_t maxChips = 64;
    /// More stale heartbeats than this are refused: a recording whose clock was reset that often has no time line.
    static constexpr std::size_t maxStaleHeartbeats = std::size_t{1} << 20;

    bool followsData = false; ///< no valid heartbeat: every chip's reference follows its own packets
    long start_ticks = 0;     ///< every chip's first reference
    std::uint64_t startWord = 0;
    std::vector<std::uint64_t> staleHeartbeats; ///< the word indices of their high-part packets, ascending
    std::array<std::int16_t, 256> slotOfChip{}; ///< -1 for a chip not seen; set up by `assign_slot`
    std::vector<unsigned> chipOfSlot;
    std::vector<BlockClocks> blocks; ///< per census block
    std::vector<ChipClock> snapshots;
    std::vector<ClockGap> gaps; ///< the first `maxGapsKept` found
    std::uint64_t gapCount = 0;
    static constexpr std::size_t maxGapsKept = 1000;

    Tpx3ChipClockFacts() { slotOfChip.fill(-1); }

    [[nodiscard]] bool isStale(std::uint64_t word) const noexcept {
        return std::binary_search(staleHeartbeats.begin(), staleHeartbeats.end(), word);
    }
    /// The slot of a chip, given it a new one when it is seen for the first time.
    std::size_t assign_slot(unsigned chip) {
        if (slotOfChip[chip] < 0) {
            if (chipOfSlot.size() == maxChips) {
                throw std::invalid_argument("the recording holds chunks of more than " + std::to_string(maxChips) +
                                            " chips!");
            }
            slotOfChip[chip] = static_cast<std::int16_t>(chipOfSlot.size());
            chipOfSlot.push_back(chip);
        }
        return static_cast<std::size_t>(slotOfChip[chip]);
    }
    void add_gap(const ClockGap& gap) {
        ++gapCount;
        if (gaps.size() < maxGapsKept) {
            gaps.push_back(gap);
        }
    }
};

/// The chips' clocks while packets are read in file order: the rules every packet time goes through, in the
/// census and in the decode alike, so that both give every packet the same time.
class Tpx3ChipClocks {
public:
    static constexpr std::uint64_t period_ticks = tpx3::pixelPeriod_ticks;
    /// A reference moving further than this in one step has crossed a span the clocks may not bridge: between
    /// heartbeats 13.4 s (half a period); without heartbeats, where each packet moves it, a quarter period, as a
    /// longer silence can show as any step.
    static constexpr long heartbeatGap_ticks = 1L << 33;
    static constexpr long packetGap_ticks = 1L << 32;

    explicit Tpx3ChipClocks(const Tpx3ChipClockFacts& facts_) noexcept : facts(&facts_) {}

    /// The clocks at the start of census block `block`.
    void restore(std::size_t block) {
        const BlockClocks& at = facts->blocks[block];
        latestLow = at.latestLow;
        const auto first = facts->snapshots.begin() + static_cast<std::ptrdiff_t>(at.first);
        bySlot.assign(first, first + static_cast<std::ptrdiff_t>(at.count));
    }
    /// Back to the start of the recording.
    void reset() noexcept {
        latestLow = 0;
        bySlot.clear();
    }

    [[nodiscard]] ChipClock& clock(std::size_t slot) {
        if (slot >= bySlot.size()) {
            bySlot.resize(slot + 1, ChipClock{facts->start_ticks, 0, 0, false});
        }
        return bySlot[slot];
    }
    [[nodiscard]] const std::vector<ChipClock>& clocks() const noexcept { return bySlot; }
    [[nodiscard]] std::uint64_t get_latestLow() const noexcept { return latestLow; }
    [[nodiscard]] bool followsData() const noexcept { return facts->followsData; }

    /// A global time packet: a low part waits for its high part; a high part completes a heartbeat, returned in
    /// ticks (nothing for other subtypes).
    [[nodiscard]] std::optional<std::uint64_t> globalTime(std::uint64_t word) noexcept {
        if (tpx3::globalSubtype(word) == tpx3::globalSubtype_low) {
            latestLow = tpx3::globalLow(word);
        } else if (tpx3::globalSubtype(word) == tpx3::globalSubtype_high) {
            return tpx3::globalTimestamp_ticks(word, latestLow);
        }
        return std::nullopt;
    }

    /// The time of a pixel packet's raw time (`tpx3::PixelFields::time_ticks`) on the chip's clock.
    [[nodiscard]] long pixelTime(ChipClock& chip, std::int64_t raw) noexcept {
        return place(chip, tpx3::pixelTime_forExtension(raw));
    }
    /// The time of a valid TDC packet on the chip's clock.
    [[nodiscard]] long tdcTime(ChipClock& chip, std::uint64_t word) noexcept {
        return place(chip, tpx3::tdcTime_onPixelClock(word));
    }

private:
    long place(ChipClock& chip, std::uint64_t raw) noexcept {
        const long time = tpx3::extend_nearest<period_ticks>(raw, chip.reference_ticks);
        if (facts->followsData) {
            chip.reference_ticks = time;
        }
        return time;
    }

    const Tpx3ChipClockFacts* facts;
    std::uint64_t latestLow = 0;
    std::vector<ChipClock> bySlot;
};

} // namespace kavot_tpx3spidr

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "Tpx3Census.hpp"
#include "Tpx3ChipClocks.hpp"
#include "Tpx3Packet.hpp"
#include "Tpx3TimeScale.hpp"

namespace kavot_tpx3spidr {

/// The census of a recording with a clock per chip (see `Tpx3ChipClocks`), for `census_tpx3(clock, ...)`: it
/// finds the chips' clocks at the start of every block, the stale heartbeats and the gaps, and the trigger times
/// of one TDC edge. Times are continuous, so there is no rollover to repair.
///
/// A heartbeat is known to be stale only when the chip's next heartbeat comes. Until then the census uses it as
/// the chip's reference; when the next one shows it stale, the census walks again from the block that holds it
/// (from the start where it was the first reference of every chip), now knowing it. Telling a stale heartbeat
/// depends only on the two heartbeats' values, so walking again never finds a stale heartbeat it did not know
/// before it reaches new ground: each chip's stretches between two heartbeats are walked again at most once, and
/// the census stays linear in the recording.
class Tpx3ChipClockCensus {
public:
    static constexpr bool repairsRollover = false;
    /// A chunk's summary depends on its chip's clock, and may end the walk: one chunk at a time.
    static constexpr bool summarizesChunkRuns = false;

    /// `trigger`: the TDC edge whose packets are the triggers.
    explicit Tpx3ChipClockCensus(tpx3::TdcKind trigger_) noexcept : trigger(trigger_) {}

    /// Finds every chip's first reference: the first heartbeat not known to be stale, or, in a recording without
    /// any, the raw time of its first pixel or valid TDC packet.
    template <typename Walk>
    void prepare(Walk& walk, Tpx3Census& census) {
        Tpx3ChipClockFacts& facts = census.clocks;
        facts.blocks.clear();
        facts.snapshots.clear();
        facts.gaps.clear();
        facts.gapCount = 0;
        std::optional<std::uint64_t> firstTime;
        std::optional<std::uint64_t> heartbeat;
        std::uint64_t latestLow = 0;
        walk(0, [&](const std::uint64_t* first, const std::uint64_t* last, std::uint64_t header) {
            for (const std::uint64_t* p = first; p != last; ++p) {
                const std::uint64_t type = tpx3::packetType(*p);
                if (type == tpx3::type_globalTime && tpx3::globalSubtype(*p) == tpx3::globalSubtype_low) {
                    latestLow = tpx3::globalLow(*p);
                } else if (type == tpx3::type_globalTime && tpx3::globalSubtype(*p) == tpx3::globalSubtype_high) {
                    const std::uint64_t word = header + 1 + static_cast<std::uint64_t>(p - first);
                    if (!facts.isStale(word)) {
                        heartbeat = tpx3::globalTimestamp_ticks(*p, latestLow);
                        facts.startWord = word;
                        return false;
                    }
                } else if (!firstTime && type == tpx3::type_pixel) {
                    firstTime = tpx3::pixelTime_forExtension(tpx3::decode_pixel(*p).time_ticks);
                } else if (!firstTime && type == tpx3::type_tdc && tpx3::tdcFine(*p) != 0) {
                    firstTime = tpx3::tdcTime_onPixelClock(*p);
                }
            }
            return true;
        });
        facts.followsData = !heartbeat;
        facts.start_ticks = static_cast<long>(heartbeat ? *heartbeat : firstTime.value_or(0));
        clocks.emplace(facts);
        clocks->reset();
    }

    void begin_block(Tpx3Census& census) {
        Tpx3ChipClockFacts& facts = census.clocks;
        facts.blocks.push_back({clocks->get_latestLow(), facts.snapshots.size(), clocks->clocks().size()});
        facts.snapshots.insert(facts.snapshots.end(), clocks->clocks().begin(), clocks->clocks().end());
    }

    /// The summary of one chunk's pixel times; its trigger times go to the census.
    [[nodiscard]] PacketSummary chunk(std::uint64_t header,
                                      std::uint64_t headerIndex,
                                      const std::uint64_t* first,
                                      const std::uint64_t* last,
                                      Tpx3Census& census) {
        const unsigned chip = tpx3::chunkChip(header);
        const std::size_t slot = census.clocks.assign_slot(chip);
        PacketSummary summary;
        if (clocks->followsData()) {
            follow(chip, slot, first, last, headerIndex + 1, summary, census);
            return summary;
        }
        // The chip's reference holds between global time packets: the stretches between them are summed up in
        // vector code.
        for (const std::uint64_t* p = first; p != last;) {
            const std::uint64_t* q = p;
            while (q != last && tpx3::packetType(*q) != tpx3::type_globalTime) {
                ++q;
            }
            if (q != p) {
                stretch(slot, p, q, summary, census);
            }
            if (q != last) {
                heartbeat(chip, slot, *q, headerIndex + 1 + static_cast<std::uint64_t>(q - first), census);
                if (rewindTo) {
                    return summary;
                }
                ++q;
            }
            p = q;
        }
        return summary;
    }

    /// The word to walk again from, when a heartbeat in use turned out stale (0: from the start).
    [[nodiscard]] std::optional<std::uint64_t> rewindWord() const noexcept { return rewindTo; }

    /// Goes back to the start of census block `block` (still in the census), or to the start of the recording.
    template <typename Walk>
    void rewind(std::size_t block, Walk& walk, Tpx3Census& census) {
        rewindTo.reset();
        if (block == 0) {
            prepare(walk, census);
            return;
        }
        Tpx3ChipClockFacts& facts = census.clocks;
        clocks->restore(block);
        facts.snapshots.resize(facts.blocks[block].first);
        facts.blocks.resize(block);
        const std::uint64_t from = census.blocks[block].firstWord;
        facts.gaps.erase(
            std::remove_if(facts.gaps.begin(), facts.gaps.end(), [&](const ClockGap& gap) { return gap.word >= from; }),
            facts.gaps.end());
        facts.gapCount = facts.gaps.size();
    }

    template <typename OnTime>
    void repairedTimes(const std::uint64_t* /*words*/, std::size_t /*count*/, long& /*latest*/, OnTime&& /*onTime*/) {}

private:
    void stretch(std::size_t slot,
                 const std::uint64_t* first,
                 const std::uint64_t* last,
                 PacketSummary& summary,
                 Tpx3Census& census) {
        ChipClock& clock = clocks->clock(slot);
        // Each time nearest the reference, as `Tpx3ChipClocks::pixelTime` places it (see `PixelPlacement`).
        const PacketSummary part =
            summarize_packets(first, static_cast<std::size_t>(last - first),
                              static_cast<std::uint64_t>(clock.reference_ticks) - Tpx3ChipClocks::period_ticks / 2,
                              Tpx3ChipClocks::period_ticks - 1);
        summary.pixels += part.pixels;
        summary.tdcs += part.tdcs;
        summary.earliest = std::min(summary.earliest, part.earliest);
        summary.latest = std::max(summary.latest, part.latest);
        if (part.tdcs > 0) {
            for (const std::uint64_t* p = first; p != last; ++p) {
                if (tpx3::packetType(*p) == tpx3::type_tdc && tpx3::tdcFine(*p) != 0) {
                    const long time = clocks->tdcTime(clock, *p);
                    if (tpx3::tdcKind(*p) == trigger) {
                        census.tdcTriggers.push_back(Time(time));
                    }
                }
            }
        }
    }

    void heartbeat(unsigned chip, std::size_t slot, std::uint64_t word, std::uint64_t index, Tpx3Census& census) {
        const std::optional<std::uint64_t> value = clocks->globalTime(word);
        if (!value) {
            return;
        }
        Tpx3ChipClockFacts& facts = census.clocks;
        ChipClock& clock = clocks->clock(slot);
        if (clock.hasHeartbeat && clock.lastHeartbeat_ticks > *value && !facts.isStale(clock.lastHeartbeat_word)) {
            // The chip's last heartbeat, in use since it was read, is stale.
            if (facts.staleHeartbeats.size() == Tpx3ChipClockFacts::maxStaleHeartbeats) {
                throw std::invalid_argument("the recording holds more than " +
                                            std::to_string(Tpx3ChipClockFacts::maxStaleHeartbeats) +
                                            " stale heartbeats: its clocks were reset too often to follow!");
            }
            const std::uint64_t stale = clock.lastHeartbeat_word;
            facts.staleHeartbeats.insert(
                std::lower_bound(facts.staleHeartbeats.begin(), facts.staleHeartbeats.end(), stale), stale);
            rewindTo = stale == facts.startWord ? 0 : stale;
            return;
        }
        clock.lastHeartbeat_ticks = *value;
        clock.lastHeartbeat_word = index;
        clock.hasHeartbeat = true;
        if (!facts.isStale(index)) {
            const auto time = static_cast<long>(*value);
            if (time - clock.reference_ticks > Tpx3ChipClocks::heartbeatGap_ticks) {
                facts.add_gap({chip, clock.reference_ticks, time, index});
            }
            clock.reference_ticks = time;
        }
    }

    /// Without heartbeats, every packet moves its chip's reference: one packet after the other.
    void follow(unsigned chip,
                std::size_t slot,
                const std::uint64_t* first,
                const std::uint64_t* last,
                std::uint64_t firstIndex,
                PacketSummary& summary,
                Tpx3Census& census) {
        ChipClock& clock = clocks->clock(slot);
        for (const std::uint64_t* p = first; p != last; ++p) {
            const std::uint64_t type = tpx3::packetType(*p);
            const long before = clock.reference_ticks;
            long time = 0;
            if (type == tpx3::type_pixel) {
                time = clocks->pixelTime(clock, tpx3::decode_pixel(*p).time_ticks);
                ++summary.pixels;
                summary.earliest = std::min(summary.earliest, time);
                summary.latest = std::max(summary.latest, time);
            } else if (type == tpx3::type_tdc && tpx3::tdcFine(*p) != 0) {
                ++summary.tdcs;
                time = clocks->tdcTime(clock, *p);
                if (tpx3::tdcKind(*p) == trigger) {
                    census.tdcTriggers.push_back(Time(time));
                }
            } else {
                continue;
            }
            if (time - before > Tpx3ChipClocks::packetGap_ticks || before - time > Tpx3ChipClocks::packetGap_ticks) {
                census.clocks.add_gap({chip, before, time, firstIndex + static_cast<std::uint64_t>(p - first)});
            }
        }
    }

    tpx3::TdcKind trigger;
    std::optional<Tpx3ChipClocks> clocks;
    std::optional<std::uint64_t> rewindTo;
};

} // namespace kavot_tpx3spidr

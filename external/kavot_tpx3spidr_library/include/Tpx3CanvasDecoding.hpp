#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ChipLayout.hpp"
#include "PixelActivation.hpp"
#include "Tpx3Census.hpp"
#include "Tpx3ChipClocks.hpp"
#include "Tpx3Packet.hpp"
#include "Tpx3PixelWords.hpp"

namespace kavot_tpx3spidr {

/// The activations of one census block on the chips' own clocks (`Tpx3ChipClockCensus`), placed on the canvas of
/// a layout: continuous times, and canvas coordinates in the activation's x and y. For `Tpx3HitSource`.
///
/// Every packet goes through the clock rules in file order from the clocks the census found at the block's start,
/// with the stale heartbeats the census found, so every activation gets the time the census summed up.
class Tpx3CanvasDecoding {
public:
    /// `census` from a `Tpx3ChipClockCensus`; refuses a layout that does not place every chip of the recording.
    Tpx3CanvasDecoding(const Tpx3Census& census, const ChipLayout& layout) {
        layout.check_places(census.chipsSeen);
        for (const unsigned chip : census.clocks.chipOfSlot) {
            transforms.push_back(layout.transform(chip));
        }
    }

    /// Writes the activations of block `block`, whose `count` words are at `words`, to `out` in file order
    /// (room for `count + pixelWords_slack`); returns how many.
    ///
    /// Between two global time packets of a chunk the chip's reference stays (unless it follows the data, when
    /// every packet moves it), so each word of such a stretch is placed on its own around it (`PixelPlacement`):
    /// the stretches are decoded in vector code.
    std::size_t decode_block(const Tpx3Census& census,
                             std::size_t block,
                             const std::uint64_t* words,
                             std::size_t count,
                             PixelActivation* out) const {
        const Tpx3ChipClockFacts& facts = census.clocks;
        Tpx3ChipClocks clocks(facts);
        clocks.restore(block);
        const std::uint64_t firstWord = census.blocks[block].firstWord;
        ChipPlacements placements{};
        for (std::size_t slot = 0; slot < transforms.size(); ++slot) {
            place(placements, facts.chipOfSlot[slot], clocks.clock(slot).reference_ticks, transforms[slot]);
        }
        std::size_t n = 0;
        std::size_t i = 0;
        while (i < count) {
            if (!facts.followsData) {
                const ChunksDecoded decoded = decode_chunks(words + i, count - i, placements, true, out + n);
                n += decoded.activations;
                i += decoded.words;
                if (i == count) {
                    break;
                }
            }
            // A chunk whose packets move its chip's reference: one stretch between global time packets after the
            // other, or, following the data, one packet after the other.
            const std::size_t end = i + 1 + static_cast<std::size_t>(tpx3::chunkWords(words[i]));
            const unsigned chip = tpx3::chunkChip(words[i]);
            const auto slot = static_cast<std::size_t>(facts.slotOfChip[chip]);
            ChipClock& clock = clocks.clock(slot);
            if (facts.followsData) {
                n += follow(facts, clocks, clock, transforms[slot], chip, words + i + 1, words + end, firstWord + i + 1,
                            out + n);
                i = end;
                continue;
            }
            for (std::size_t w = i + 1; w < end;) {
                std::size_t stretchEnd = w;
                while (stretchEnd < end && tpx3::packetType(words[stretchEnd]) != tpx3::type_globalTime) {
                    ++stretchEnd;
                }
                std::size_t globals = 0;
                n += detail::decode_words_portable(words + w, stretchEnd - w, placements[chip], out + n, globals);
                if (stretchEnd < end) {
                    if (const auto heartbeat = clocks.globalTime(words[stretchEnd]);
                        heartbeat && !facts.isStale(firstWord + stretchEnd)) {
                        clock.reference_ticks = static_cast<long>(*heartbeat);
                        place(placements, chip, clock.reference_ticks, transforms[slot]);
                    }
                }
                w = stretchEnd + 1;
            }
            i = end;
        }
        return n;
    }

private:
    static void place(ChipPlacements& placements, unsigned chip, long reference_ticks, const ChipTransform& transform) {
        PixelPlacement& placement = placements[chip];
        placement = PixelPlacement::around(reference_ticks, static_cast<std::uint8_t>(chip));
        placement.transform = transform;
    }

    /// The packets of one chunk (from word `firstIndex` of the recording on) of a recording without valid
    /// heartbeats, where every timed packet moves its chip's reference: one after the other.
    static std::size_t follow(const Tpx3ChipClockFacts& facts,
                              Tpx3ChipClocks& clocks,
                              ChipClock& clock,
                              const ChipTransform& transform,
                              unsigned chip,
                              const std::uint64_t* first,
                              const std::uint64_t* last,
                              std::uint64_t firstIndex,
                              PixelActivation* out) {
        std::size_t n = 0;
        for (const std::uint64_t* p = first; p != last; ++p) {
            if (tpx3::packetType(*p) == tpx3::type_pixel) {
                const tpx3::PixelFields pixel = tpx3::decode_pixel(*p);
                const long time = clocks.pixelTime(clock, pixel.time_ticks);
                out[n++] = PixelActivation(static_cast<short>(transform.x(pixel.x, pixel.y)),
                                           static_cast<short>(transform.y(pixel.x, pixel.y)), Time(time), pixel.tot,
                                           static_cast<std::uint8_t>(chip));
            } else if (tpx3::packetType(*p) == tpx3::type_tdc && tpx3::tdcFine(*p) != 0) {
                (void)clocks.tdcTime(clock, *p);
            } else if (tpx3::packetType(*p) == tpx3::type_globalTime) {
                const auto heartbeat = clocks.globalTime(*p);
                if (heartbeat && !facts.isStale(firstIndex + static_cast<std::uint64_t>(p - first))) {
                    clock.reference_ticks = static_cast<long>(*heartbeat);
                }
            }
        }
        return n;
    }

    std::vector<ChipTransform> transforms; ///< by the census's chip slot
};

} // namespace kavot_tpx3spidr

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ChipLayout.hpp"
#include "PixelActivation.hpp"
#include "Tpx3Census.hpp"
#include "Tpx3ChipClocks.hpp"
#include "Tpx3Packet.hpp"

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

    template <typename OnActivation>
    void decode_block(const Tpx3Census& census,
                      std::size_t block,
                      const std::uint64_t* words,
                      std::size_t count,
                      OnActivation&& onActivation) const {
        const Tpx3ChipClockFacts& facts = census.clocks;
        Tpx3ChipClocks clocks(facts);
        clocks.restore(block);
        const std::uint64_t firstWord = census.blocks[block].firstWord;
        std::size_t i = 0;
        while (i < count) {
            const std::size_t end = i + 1 + static_cast<std::size_t>(tpx3::chunkWords(words[i]));
            const unsigned chip = tpx3::chunkChip(words[i]);
            const auto slot = static_cast<std::size_t>(facts.slotOfChip[chip]);
            const ChipTransform& transform = transforms[slot];
            ChipClock& clock = clocks.clock(slot);
            for (std::size_t w = i + 1; w < end; ++w) {
                const std::uint64_t word = words[w];
                switch (tpx3::packetType(word)) {
                case tpx3::type_pixel: {
                    const tpx3::PixelFields pixel = tpx3::decode_pixel(word);
                    const long time = clocks.pixelTime(clock, pixel.time_ticks);
                    onActivation(PixelActivation(static_cast<short>(transform.x(pixel.x, pixel.y)),
                                                 static_cast<short>(transform.y(pixel.x, pixel.y)), Time(time),
                                                 pixel.tot, static_cast<std::uint8_t>(chip)));
                    break;
                }
                case tpx3::type_globalTime:
                    if (const auto heartbeat = clocks.globalTime(word); heartbeat && !facts.isStale(firstWord + w)) {
                        clock.reference_ticks = static_cast<long>(*heartbeat);
                    }
                    break;
                case tpx3::type_tdc:
                    // Without heartbeats a TDC packet moves its chip's reference too.
                    if (clocks.followsData() && tpx3::tdcFine(word) != 0) {
                        (void)clocks.tdcTime(clock, word);
                    }
                    break;
                default:
                    break;
                }
            }
            i = end;
        }
    }

private:
    std::vector<ChipTransform> transforms; ///< by the census's chip slot
};

} // namespace kavot_tpx3spidr

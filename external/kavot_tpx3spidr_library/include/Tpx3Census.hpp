#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Spill.hpp"
#include "TimeOrder.hpp"
#include "Tpx3Chunks.hpp"
#include "Tpx3InputFile.hpp"
#include "Tpx3Packet.hpp"
#include "Tpx3TimeScale.hpp"

namespace kavot_tpx3spidr {

/// A stretch of whole consecutive chunks of a recording, decoded and put in time order on its own; the census
/// records what that needs from the rest of the recording.
struct Tpx3Block {
    std::uint64_t firstWord;  ///< the header of its first chunk
    std::uint64_t endWord;    ///< just past its last chunk: the next block's first word
    std::uint64_t pixelCount; ///< pixel packets in the block
    /// The largest repaired pixel time before the block (`noTime_ticks` before the first activation): the
    /// rollover repair of the block's activations starts from it.
    long latestBefore;
    /// The largest repaired pixel time up to the end of the block.
    long latestAfter;
    /// The smallest repaired pixel time of all later blocks (the largest long when there are none): no
    /// activation decoded after this block is earlier.
    long minAfter;
};

/// What the first pass over a recording finds: the structure is valid (every structural error of the
/// recording is found here, before anything is decoded), the packet counts, the time scale's reference, the
/// TDC trigger times in file order, and the recording cut into blocks.
struct Tpx3Census {
    std::uint64_t pixelCount = 0;
    std::uint64_t tdcCount = 0;
    std::uint64_t reference_ticks = 0; ///< the first global timestamp; 0 when the raw times are used
    SpillingList<Time> tdcTriggers;
    std::vector<Tpx3Block> blocks;
};

/// The first global timestamp in ticks (25 ns units times 16), found by walking the chunks up to it. `walk`
/// calls a chunk handler as `for_eachChunk_tpx3` does (and checks the structure on the way).
template <typename Walk>
[[nodiscard]] std::optional<std::uint64_t> firstGlobalTimestamp_tpx3(Walk&& walk) {
    std::optional<std::uint64_t> found;
    std::uint64_t latestLow = 0; // a high part before any low part completes a timestamp with low part 0
    walk([&](const std::uint64_t* first, const std::uint64_t* last, std::uint64_t /*header*/) {
        for (const std::uint64_t* p = first; p != last; ++p) {
            if (tpx3::packetType(*p) != tpx3::type_globalTime) {
                continue;
            }
            if (tpx3::globalSubtype(*p) == tpx3::globalSubtype_low) {
                latestLow = tpx3::globalLow(*p);
            } else if (tpx3::globalSubtype(*p) == tpx3::globalSubtype_high) {
                found = tpx3::globalTimestamp_ticks(*p, latestLow);
                return false;
            }
        }
        return true;
    });
    return found;
}

namespace detail {

/// Trigger times kept in memory before they go to a temporary file (8 MiB).
constexpr std::size_t triggersInMemory = std::size_t{1} << 20;

/// Blocks hold at least this many words; a recording is cut into at most about 65536 of them, so that the
/// census stays small for any size of recording.
[[nodiscard]] inline std::uint64_t blockWords_for(std::uint64_t size_words) noexcept {
    constexpr std::uint64_t smallest = std::uint64_t{1} << 15;
    constexpr std::uint64_t mostBlocks = std::uint64_t{1} << 16;
    return std::max(smallest, (size_words + mostBlocks - 1) / mostBlocks);
}

/// The census of a recording: `walk(onChunk)` walks its chunks as `for_eachChunk_tpx3` does, `read(first,
/// count, destination)` reads words again, `size_words` is its length. With `useGlobalTime` the first global
/// timestamp is found first (a short walk for a real recording, which starts with one), because every time is
/// placed around it; a recording without one is refused, once its whole structure has been checked.
///
/// The rollover repair is a running maximum through every pixel time, but a block needs it hit by hit only
/// where it can act: when the block's times all lie within 2^33 ticks of the largest of them and of the latest
/// time before it, none is repaired (each lies at most that far behind any running maximum), the block's
/// smallest time is its smallest raw one and the running maximum goes on from the largest. So each chunk is
/// only summed up (counts, smallest and largest time, in vector code), and a block is decoded hit by hit only
/// where that test fails.
template <bool useGlobalTime, typename Walk, typename Read>
[[nodiscard]] Tpx3Census census(Walk&& walk, Read&& read, std::uint64_t size_words, const std::string& spillFolder) {
    Tpx3Census census;
    if (!spillFolder.empty()) {
        census.tdcTriggers = SpillingList<Time>(spillFolder, triggersInMemory);
    }
    if constexpr (useGlobalTime) {
        const std::optional<std::uint64_t> reference = firstGlobalTimestamp_tpx3(walk);
        if (!reference) {
            throw std::invalid_argument("Supplied file does not contain a global timestamp!");
        }
        census.reference_ticks = *reference;
    }
    const Tpx3TimeScale<useGlobalTime> timeScale(census.reference_ticks);
    const std::uint64_t blockWords = detail::blockWords_for(size_words);
    long latest = noTime_ticks;
    PacketSummary block; // of the block being walked
    std::vector<std::uint64_t> words;
    // Sets the block's own smallest time (kept in minAfter until the pass is over) and moves the running
    // maximum on past it.
    const auto finish = [&](Tpx3Block& last) {
        if (block.pixels > 0) {
            const long top = latest == noTime_ticks ? block.latest : std::max(latest, block.latest);
            if (wrapping_sub(top, block.earliest) <= rolloverThreshold_ticks) {
                last.minAfter = block.earliest;
                latest = top;
            } else {
                words.resize(static_cast<std::size_t>(last.endWord - last.firstWord));
                read(last.firstWord, words.size(), words.data());
                for_eachPixel_repaired(
                    words.data(), words.size(), timeScale, latest,
                    [&](const tpx3::PixelFields&, long time) { last.minAfter = std::min(last.minAfter, time); });
            }
        }
        last.latestAfter = latest;
    };
    walk([&](const std::uint64_t* first, const std::uint64_t* last, std::uint64_t header) {
        if (census.blocks.empty() || header - census.blocks.back().firstWord >= blockWords) {
            if (!census.blocks.empty()) {
                finish(census.blocks.back());
            }
            census.blocks.push_back({header, header, 0, latest, latest, std::numeric_limits<long>::max()});
            block = PacketSummary{};
        }
        const PacketSummary chunk = timeScale.summarize(first, static_cast<std::size_t>(last - first));
        block.pixels += chunk.pixels;
        block.earliest = std::min(block.earliest, chunk.earliest);
        block.latest = std::max(block.latest, chunk.latest);
        if (chunk.tdcs > 0) {
            for (const std::uint64_t* p = first; p != last; ++p) {
                if (tpx3::packetType(*p) == tpx3::type_tdc) {
                    census.tdcTriggers.push_back(timeScale.tdcTime(tpx3::decode_tdcTime(*p)));
                }
            }
        }
        census.blocks.back().pixelCount = block.pixels;
        census.blocks.back().endWord = header + 1 + static_cast<std::uint64_t>(last - first);
    });
    if (!census.blocks.empty()) {
        finish(census.blocks.back());
    }
    long later = std::numeric_limits<long>::max();
    for (auto it = census.blocks.rbegin(); it != census.blocks.rend(); ++it) {
        census.pixelCount += it->pixelCount;
        const long own = it->minAfter;
        it->minAfter = later;
        later = std::min(later, own);
    }
    census.tdcCount = census.tdcTriggers.size();
    return census;
}

} // namespace detail

/// The census of a recording file. Trigger times beyond a few million go to a temporary file in `spillFolder`
/// (kept in memory without one).
template <bool useGlobalTime>
[[nodiscard]] Tpx3Census census_tpx3(const Tpx3InputFile& file, const std::string& spillFolder = "") {
    return detail::census<useGlobalTime>([&](auto&& onChunk) { for_eachChunk_tpx3(file, onChunk); },
                                         [&](std::uint64_t first, std::size_t count, std::uint64_t* destination) {
                                             file.read_words(first, count, destination);
                                         },
                                         file.size_words(), spillFolder);
}

/// The census of a recording already in memory (the words are not modified).
template <bool useGlobalTime>
[[nodiscard]] Tpx3Census census_tpx3(const std::uint64_t* data, std::size_t size) {
    return detail::census<useGlobalTime>([&](auto&& onChunk) { for_eachChunk_tpx3(data, size, onChunk); },
                                         [&](std::uint64_t first, std::size_t count, std::uint64_t* destination) {
                                             std::copy_n(data + first, count, destination);
                                         },
                                         size, "");
}

} // namespace kavot_tpx3spidr

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ReadBuffer.hpp"
#include "Spill.hpp"
#include "TimeOrder.hpp"
#include "Tpx3ChipClocks.hpp"
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
    std::uint64_t triggersBefore; ///< trigger times found before the block
    /// Some activation of the block may gain a period in the rollover repair: it is decoded hit by hit. In every
    /// other block none does, and each pixel packet is decoded on its own.
    bool repairs;
    long earliest; ///< the smallest time of the block's activations (the largest long when it has none)
    long latest;   ///< the largest time of the block's activations (the smallest long when it has none)
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
    std::array<bool, 256> chipsSeen{}; ///< by chunk header byte 4
    Tpx3ChipClockFacts clocks;         ///< with a clock per chip only (see `Tpx3ChipClockCensus`)
};

namespace detail {

/// Whether a chunk header, read as a packet, is none of the packets a summary counts: its type bits are the top
/// four of the chunk size, so only chunks of 2048 words and more can read as a global time, TDC or pixel packet.
[[nodiscard]] constexpr bool noPacket(std::uint64_t header) noexcept {
    const std::uint64_t type = tpx3::packetType(header);
    return type != tpx3::type_pixel && type != tpx3::type_tdc && type != tpx3::type_globalTime;
}

/// Trigger times kept in memory before they go to a temporary file (8 MiB).
constexpr std::size_t triggersInMemory = std::size_t{1} << 20;

/// Blocks hold at least this many words; a recording is cut into at most about 65536 of them, so that the
/// census stays small for any size of recording.
[[nodiscard]] inline std::uint64_t blockWords_for(std::uint64_t size_words) noexcept {
    constexpr std::uint64_t smallest = std::uint64_t{1} << 15;
    constexpr std::uint64_t mostBlocks = std::uint64_t{1} << 16;
    return std::max(smallest, (size_words + mostBlocks - 1) / mostBlocks);
}

/// The census with the first global timestamp as the one reference of every time (`useGlobalTime`), or with the
/// raw times; the pixel times are repaired for one rollover of the pixel clock.
template <bool useGlobalTime>
class TimeScaleCensus {
public:
    static constexpr bool repairsRollover = true;
    /// Chunks are summed up in runs: a summary has nothing to do with the chunk's chip, and a run's headers
    /// count as no packet (`noPacket`). The per-chunk cost of a summary, large for the chunks of a few packets
    /// of a busy detector, is paid once per run.
    static constexpr bool summarizesChunkRuns = true;

    /// With `useGlobalTime` the first global timestamp is found first (a short walk for a real recording, which
    /// starts with one), because every time is placed around it; a recording without one is refused, once its
    /// whole structure has been checked.
    template <typename Walk>
    void prepare(Walk& walk, Tpx3Census& census) {
        if constexpr (useGlobalTime) {
            const std::optional<std::uint64_t> reference = firstGlobalTimestamp_tpx3(walk);
            if (!reference) {
                throw std::invalid_argument("Supplied file does not contain a global timestamp!");
            }
            census.reference_ticks = *reference;
        }
        timeScale = Tpx3TimeScale<useGlobalTime>(census.reference_ticks);
    }
    void begin_block(Tpx3Census& /*census*/) const noexcept {}
    [[nodiscard]] PacketSummary chunk(std::uint64_t /*header*/,
                                      std::uint64_t /*headerIndex*/,
                                      const std::uint64_t* first,
                                      const std::uint64_t* last,
                                      Tpx3Census& census) {
        const PacketSummary summary = timeScale.summarize(first, static_cast<std::size_t>(last - first));
        if (summary.tdcs > 0) {
            for (const std::uint64_t* p = first; p != last; ++p) {
                if (tpx3::packetType(*p) == tpx3::type_tdc) {
                    census.tdcTriggers.push_back(timeScale.tdcTime(tpx3::decode_tdcTime(*p)));
                }
            }
        }
        return summary;
    }
    /// Never: one reference holds for the whole recording.
    [[nodiscard]] std::optional<std::uint64_t> rewindWord() const noexcept { return std::nullopt; }
    template <typename Walk>
    void rewind(std::size_t /*block*/, Walk& /*walk*/, Tpx3Census& /*census*/) const noexcept {}

    /// The repaired time of every pixel of whole chunks, for a block that needs the repair hit by hit.
    template <typename OnTime>
    void repairedTimes(const std::uint64_t* words, std::size_t count, long& latest, OnTime&& onTime) const {
        for_eachPixel_repaired(words, count, timeScale, latest,
                               [&](const tpx3::PixelFields&, long time, unsigned /*chip*/) { onTime(time); });
    }

private:
    Tpx3TimeScale<useGlobalTime> timeScale{0};
};

/// The census of a recording: `walk(from, onChunk)` walks its chunks from word `from` on as `for_eachChunk_tpx3`
/// does, `read(first, count, destination)` reads words again, `size_words` is its length. `clock` turns the
/// packets' raw times into the decode's (`TimeScaleCensus`, or `Tpx3ChipClockCensus`, which may ask to walk
/// again from an earlier block: a heartbeat it used turned out stale).
///
/// The rollover repair is a running maximum through every pixel time, but a block needs it hit by hit only
/// where it can act: when the block's times all lie within 2^33 ticks of the largest of them and of the latest
/// time before it, none is repaired (each lies at most that far behind any running maximum), the block's
/// smallest time is its smallest raw one and the running maximum goes on from the largest. So each chunk is
/// only summed up (counts, smallest and largest time, in vector code), and a block is decoded hit by hit only
/// where that test fails.
template <typename Clock, typename Walk, typename Read>
[[nodiscard]] Tpx3Census census(Clock& clock,
                                Walk&& walk,
                                Read&& read,
                                std::uint64_t size_words,
                                const std::string& spillFolder,
                                const std::function<void()>& checkpoint = {}) {
    Tpx3Census census;
    if (!spillFolder.empty()) {
        census.tdcTriggers = SpillingList<Time>(spillFolder, triggersInMemory);
    }
    clock.prepare(walk, census);
    const std::uint64_t blockWords = detail::blockWords_for(size_words);
    long latest = noTime_ticks;
    PacketSummary block; // of the block being walked
    bool blockOpen = false;
    ReadBuffer<std::uint64_t> words;
    // Sets the block's own smallest time (kept in minAfter until the pass is over) and moves the running
    // maximum on past it.
    const auto finish = [&](Tpx3Block& last) {
        if (block.pixels > 0) {
            const long top = latest == noTime_ticks ? block.latest : std::max(latest, block.latest);
            if (!Clock::repairsRollover || wrapping_sub(top, block.earliest) <= rolloverThreshold_ticks) {
                last.minAfter = block.earliest;
                last.earliest = block.earliest;
                last.latest = block.latest;
                latest = top;
            } else {
                last.repairs = true;
                words.resize(static_cast<std::size_t>(last.endWord - last.firstWord));
                read(last.firstWord, words.size(), words.data());
                clock.repairedTimes(words.data(), words.size(), latest, [&](long time) {
                    last.earliest = std::min(last.earliest, time);
                    last.latest = std::max(last.latest, time);
                });
                last.minAfter = last.earliest;
            }
        }
        last.latestAfter = latest;
        blockOpen = false;
    };
    const auto add = [&](const PacketSummary& chunks) {
        block.pixels += chunks.pixels;
        block.earliest = std::min(block.earliest, chunks.earliest);
        block.latest = std::max(block.latest, chunks.latest);
        census.blocks.back().pixelCount = block.pixels;
    };
    // Chunks that follow each other in the walk's window, summed up as one (see `TimeScaleCensus`), up to
    // `spanMost_words`: a span with a trigger is read again for it, from the first level of cache.
    constexpr std::ptrdiff_t spanMost_words = 1024;
    const std::uint64_t* spanFirst = nullptr;
    const std::uint64_t* spanLast = nullptr;
    std::uint64_t spanHeader = 0;
    const auto flush = [&] {
        if (spanFirst != spanLast) {
            add(clock.chunk(spanFirst[-1], spanHeader, spanFirst, spanLast, census));
        }
        spanFirst = spanLast = nullptr;
    };
    std::uint64_t blockFirst = 0; // the current block's first word, beside the block for the test of every chunk
    // The chunk at `header` opens a block.
    const auto open = [&](std::uint64_t header) __attribute__((noinline)) {
        flush();
        if (blockOpen) {
            finish(census.blocks.back());
        }
        if (checkpoint) {
            checkpoint();
        }
        census.blocks.push_back({header, header, 0, latest, latest, std::numeric_limits<long>::max(),
                                 census.tdcTriggers.size(), false, std::numeric_limits<long>::max(),
                                 std::numeric_limits<long>::min()});
        clock.begin_block(census);
        block = PacketSummary{};
        blockOpen = true;
        blockFirst = header;
    };
    for (std::uint64_t from = 0;;) {
        std::optional<std::uint64_t> back;
        walk(
            from,
            // Inline in the walk: it runs once per chunk, and a busy detector writes chunks of a few packets.
            [&](const std::uint64_t* first, const std::uint64_t* last, std::uint64_t header)
                __attribute__((always_inline)) {
                    census.chipsSeen[tpx3::chunkChip(first[-1])] = true;
                    if (!blockOpen || header - blockFirst >= blockWords) [[unlikely]] {
                        open(header);
                    }
                    census.blocks.back().endWord = header + 1 + static_cast<std::uint64_t>(last - first);
                    if constexpr (Clock::summarizesChunkRuns) {
                        if (first - 1 == spanLast && noPacket(first[-1]) && last - spanFirst <= spanMost_words) {
                            spanLast = last;
                        } else {
                            flush();
                            spanFirst = first;
                            spanLast = last;
                            spanHeader = header;
                        }
                        return true;
                    } else {
                        add(clock.chunk(first[-1], header, first, last, census));
                        return !(back = clock.rewindWord());
                    }
                },
            flush);
        flush();
        if (!back) {
            break;
        }
        // Everything from the block that holds the word on is found again; the blocks before it stand.
        const auto holder = std::partition_point(census.blocks.begin(), census.blocks.end(),
                                                 [&](const Tpx3Block& b) { return b.firstWord <= *back; });
        const auto k = static_cast<std::size_t>(std::max<std::ptrdiff_t>(holder - census.blocks.begin() - 1, 0));
        census.tdcTriggers.truncate(static_cast<std::size_t>(census.blocks[k].triggersBefore));
        latest = census.blocks[k].latestBefore;
        from = census.blocks[k].firstWord;
        clock.rewind(k, walk, census);
        census.blocks.resize(k);
        blockOpen = false;
    }
    if (blockOpen) {
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

/// The census of a recording file with `clock`. Trigger times beyond a few million go to a temporary file in
/// `spillFolder` (kept in memory without one). `checkpoint`, if given, is called before each block; it may throw
/// to end the census. With `readAhead` the file is read on a second thread while this one counts (for a run
/// with more than one CPU: the census has the CPUs to itself).
template <typename Clock>
[[nodiscard]] Tpx3Census census_tpx3(Clock& clock,
                                     const Tpx3InputFile& file,
                                     const std::string& spillFolder = "",
                                     const std::function<void()>& checkpoint = {},
                                     bool readAhead = false) {
    return detail::census(
        clock,
        [&](std::uint64_t from, auto&& onChunk, auto&&... beforeRefill) {
            // A window of 512 KiB: the pages of a larger one, touched for the first time by every run, cost a
            // 1 M-hit run a sixth of its time (8 MiB: 36.0 ms, 512 KiB: 30.5 ms), and this one stays in cache.
            // The short walks that look for a reference (without `beforeRefill`) read no more than they walk.
            for_eachChunk_tpx3(
                file, onChunk, std::size_t{1} << 16, from, [&] { (beforeRefill(), ...); },
                readAhead && sizeof...(beforeRefill) > 0);
        },
        [&](std::uint64_t first, std::size_t count, std::uint64_t* destination) {
            file.read_words(first, count, destination);
        },
        file.size_words(), spillFolder, checkpoint);
}

/// The census of a recording already in memory (the words are not modified).
template <typename Clock>
[[nodiscard]] Tpx3Census census_tpx3(Clock& clock, const std::uint64_t* data, std::size_t size) {
    return detail::census(
        clock,
        [&](std::uint64_t from, auto&& onChunk, auto&&... /*beforeRefill: the words stay in place*/) {
            for_eachChunk_tpx3(data, size, onChunk, from);
        },
        [&](std::uint64_t first, std::size_t count, std::uint64_t* destination) {
            std::copy_n(data + first, count, destination);
        },
        size, "");
}

/// The census with the first global timestamp as the reference of every time (`useGlobalTime`), or with the raw
/// times, of a recording file.
template <bool useGlobalTime>
[[nodiscard]] Tpx3Census
census_tpx3(const Tpx3InputFile& file, const std::string& spillFolder = "", bool readAhead = false) {
    detail::TimeScaleCensus<useGlobalTime> clock;
    return census_tpx3(clock, file, spillFolder, {}, readAhead);
}

/// The same census of a recording already in memory.
template <bool useGlobalTime>
[[nodiscard]] Tpx3Census census_tpx3(const std::uint64_t* data, std::size_t size) {
    detail::TimeScaleCensus<useGlobalTime> clock;
    return census_tpx3(clock, data, size);
}

} // namespace kavot_tpx3spidr

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "ReadBuffer.hpp"
#include "RunMerge.hpp"
#include "TimeOrder.hpp"
#include "Tpx3Census.hpp"
#include "Tpx3InputFile.hpp"
#include "Tpx3PixelWords.hpp"
#include "Tpx3TimeScale.hpp"

namespace kavot_tpx3spidr {

/// The activations of one census block on the time scale of `census_tpx3<useGlobalTime>`: extended around the
/// first global timestamp (or raw), each repaired against the latest time before it.
template <bool useGlobalTime>
class Tpx3ScaleDecoding {
public:
    explicit Tpx3ScaleDecoding(const Tpx3Census& census) noexcept : timeScale(census.reference_ticks) {
        for (unsigned chip = 0; chip < placements.size(); ++chip) {
            const auto index = static_cast<std::uint8_t>(chip);
            placements[chip] = useGlobalTime ? PixelPlacement::around(static_cast<long>(census.reference_ticks), index)
                                             : PixelPlacement::raw(index);
        }
    }

    /// Writes the activations of block `block`, whose `count` words are at `words`, to `out` in file order
    /// (room for `count + pixelWords_slack`); returns how many.
    ///
    /// Where the census found that no activation of the block is repaired, each word's time is its place on the
    /// time scale (`Tpx3TimeScale::pixelTime`, see `PixelPlacement`), which needs no word before it: the chunks
    /// are decoded in vector code. Elsewhere the repair runs through the block hit by hit.
    std::size_t decode_block(const Tpx3Census& census,
                             std::size_t block,
                             const std::uint64_t* words,
                             std::size_t count,
                             PixelActivation* out) const {
        if (!census.blocks[block].repairs) {
            return decode_chunks(words, count, placements, false, out).activations;
        }
        std::size_t n = 0;
        long latest = census.blocks[block].latestBefore;
        for_eachPixel_repaired(
            words, count, timeScale, latest, [&](const tpx3::PixelFields& pixel, long time, unsigned chip) {
                out[n++] = PixelActivation(pixel.x, pixel.y, Time(time), pixel.tot, static_cast<std::uint8_t>(chip));
            });
        return n;
    }

private:
    Tpx3TimeScale<useGlobalTime> timeScale;
    ChipPlacements placements{}; ///< by chip: on the time scale, in the chip's own columns and rows
};

/// The pixel activations of a recording in the data set's time order, decoded a block at a time from the file
/// and released as a sequence for the clustering algorithms (see `HitSequence.hpp`), holding only what is not
/// yet certain plus what the reader still needs. `Decoding` turns a block's words into activations
/// (`Tpx3ScaleDecoding`, or `Tpx3CanvasDecoding` for the chips' own clocks and places).
///
/// Each block is decoded with the rollover repair starting from the latest time the census found before it,
/// and sorted on its own; the sorted blocks are merged. After block b, everything not later than the smallest
/// time of all later blocks (which the census knows) is certain and is released, a step at a time. What waits
/// beyond `memoryLimit_hits` goes to temporary files in `spillFolder` (see `HitMerge`), so that memory stays
/// bounded whatever the disorder of the recording.
template <typename Decoding>
class Tpx3HitSource {
public:
    /// `census` must come from the census over the same file that `decoding` belongs to. Without a folder,
    /// everything waits in memory. From `firstBlock` on, the sequence is the time order of those blocks'
    /// activations.
    Tpx3HitSource(const Tpx3InputFile& file_,
                  const Tpx3Census& census_,
                  const Decoding& decoding_,
                  const std::string& spillFolder = "",
                  std::size_t memoryLimit_hits = std::size_t{1} << 21,
                  std::size_t firstBlock = 0)
        : file(file_), census(census_), decoding(decoding_),
          merge(spillFolder.empty() ? HitMerge() : HitMerge(spillFolder, memoryLimit_hits)), nextBlock(firstBlock) {}

    [[nodiscard]] bool has(std::size_t position) {
        while (position >= base + released.size()) {
            if (!decodeMore()) {
                return false;
            }
        }
        return true;
    }
    [[nodiscard]] const PixelActivation& operator[](std::size_t position) const { return released[position - base]; }

    /// Calls `checkpoint_` before each block is decoded; it may throw to end the reading.
    void set_checkpoint(std::function<void()> checkpoint_) { checkpoint = std::move(checkpoint_); }

    /// Positions from the last `discardBefore` up to this one are held next to each other in memory, until the
    /// next `has` that has to decode.
    [[nodiscard]] std::size_t readableEnd() const noexcept { return base + released.size(); }

    /// The positions before `position` will not be read again. They are dropped when the next block is
    /// released, so that what a reader holds stays in place until then.
    void discardBefore(std::size_t position) noexcept { discardPoint = std::max(discardPoint, position); }

private:
    /// Releases the next step of what is certain; when nothing is, decodes the next block. Returns false when
    /// nothing is left.
    [[gnu::noinline]] bool decodeMore() {
        compact();
        if (merge.release(bound, released, releaseStep_hits) > 0) {
            return true;
        }
        if (nextBlock == census.blocks.size()) {
            return false;
        }
        // Blocks join one run while each next one spans the middle of the first one's times (a readout lag of
        // many blocks, whose times interleave): their stable sort together is the merge of their sorted runs (ties
        // to the earlier block, which holds the earlier file positions), and the merge then gets a few long runs
        // instead of many short ones whose interleaved activations each cost it a step of its heap. Blocks that
        // follow one another in time, or come in reverse, stay runs of their own: the merge hands them on whole.
        const PixelActivation blank = blankRecord(std::type_identity<PixelActivation>{});
        std::vector<PixelActivation> run = merge.take_spare();
        std::size_t filled = 0;
        const Tpx3Block& first = census.blocks[nextBlock];
        std::pair<long, long> span{first.earliest, first.latest};
        // Half the span, taken unsigned, fits a long and lands between the two whatever the times are.
        const std::uint64_t halfSpan =
            (static_cast<std::uint64_t>(first.latest) - static_cast<std::uint64_t>(first.earliest)) / 2;
        const long middle = first.pixelCount == 0 ? std::numeric_limits<long>::min()
                                                  : wrapping_add(first.earliest, static_cast<long>(halfSpan));
        for (;;) {
            if (checkpoint) {
                checkpoint();
            }
            const std::size_t b = nextBlock++;
            const Tpx3Block& block = census.blocks[b];
            const auto count = static_cast<std::size_t>(block.endWord - block.firstWord);
            const std::uint64_t* blockWords = file.words_inMemory();
            if (blockWords != nullptr) {
                blockWords += block.firstWord;
            } else {
                words.resize(count);
                file.read_words(block.firstWord, count, words.data());
                blockWords = words.data();
            }
            // A block has no more pixel packets than words, whatever the file holds now. The decode writes every
            // record it counts, so only what the vector never held is filled first.
            grow_blank(run, filled + count + pixelWords_slack);
            // Other packets than the census counted, or zeros where the file was cut: the file changed.
            if (decoding.decode_block(census, b, blockWords, count, run.data() + filled) != block.pixelCount ||
                file.cut()) {
                throw file.changed();
            }
            filled += block.pixelCount;
            span = {std::min(span.first, block.earliest), std::max(span.second, block.latest)};
            bound = block.minAfter;
            if (nextBlock == census.blocks.size() || census.blocks[nextBlock].earliest >= middle ||
                census.blocks[nextBlock].latest <= middle ||
                filled + census.blocks[nextBlock].pixelCount > groupMost_hits) {
                break;
            }
        }
        run.resize(filled, blank);
        sort_byTime(run, scratch, span); // the census's times of these blocks: those of an unchanged file
        merge.add_run(std::move(run));
        merge.release(bound, released, releaseStep_hits);
        return true;
    }

    /// Drops the discarded activations; they move only when the dropped part is large and at least half of
    /// what is held, so every activation moves a bounded number of times.
    void compact() {
        const std::size_t drop = std::min(discardPoint - base, released.size());
        if (drop >= 4096 && 2 * drop >= released.size()) {
            released.erase(released.begin(), released.begin() + static_cast<std::ptrdiff_t>(drop));
            base += drop;
        }
    }

    /// At most this many are released at a time: after the last block of a reversed recording, all of it is
    /// certain at once.
    static constexpr std::size_t releaseStep_hits = std::size_t{1} << 18;
    /// Blocks join one run up to this many activations.
    static constexpr std::size_t groupMost_hits = std::size_t{1} << 18;

    const Tpx3InputFile& file;
    const Tpx3Census& census;
    Decoding decoding;
    HitMerge merge;
    std::size_t nextBlock;
    long bound = std::numeric_limits<long>::min(); ///< nothing later is certain yet
    ReadBuffer<std::uint64_t> words;               ///< the block being decoded
    std::vector<PixelActivation> scratch;          ///< for sorting blocks
    std::vector<PixelActivation> released;         ///< positions from `base` on
    std::size_t base = 0;
    std::size_t discardPoint = 0;
    std::function<void()> checkpoint;
};

} // namespace kavot_tpx3spidr

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <stdexcept>
#include <vector>

#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

/// The streamed time order could not be guaranteed: a hit arrived behind one already released, or ordering
/// within the window became costly. The caller starts over with a wider window or orders the data in memory.
class ReorderWindowExceeded : public std::runtime_error {
public:
    ReorderWindowExceeded() : std::runtime_error("reordering window exceeded") {}
};

/// The pixel activations of a validated .tpx3 word stream, decoded on demand and released in the data set's
/// time order: the stable ascending order by time after the rollover repair. Works as a sequence for the
/// clustering algorithms (see `DataSetSequence`), holding only a window of the data.
///
/// Decoded activations are repaired against the running latest time, exactly as the data set does, and kept in
/// a sorted buffer (insertion behind every activation whose time is not later). The front of the buffer is
/// released once it is more than `window` ticks behind the latest time. The released order is the data set's
/// order as long as no activation arrives earlier than the last one released: an equal time sorts after it by
/// file position anyway, and anything later finds its place in the buffer. An earlier one is detected and ends
/// the stream with `ReorderWindowExceeded`, never with a different order.
///
/// The latest time so far is also the time of the buffer's last activation (every decoded activation is in the
/// buffer or was released before it), so an activation not earlier than it is simply appended: the repair and
/// the order test share one comparison, and only the out-of-order ones take the insertion path.
template <bool useGlobalTime>
class Tpx3HitStream {
public:
    /// `census` must come from `census_tpx3` over the same words (the structure is not checked again).
    /// `consumed(wordIndex)` is told, now and then, that the words before that index will not be read again.
    template <typename Consumed>
    Tpx3HitStream(const std::uint64_t* data_,
                  std::size_t size_,
                  const Tpx3Census& census,
                  long window_ticks,
                  Consumed&& consumed_)
        : data(data_), size(size_), timeScale(referenceTime_tpx3<useGlobalTime>(census)), window(window_ticks),
          consumed(consumed_) {
        // The first activation is never repaired: starting the running maximum at its own time gives it the
        // same treatment as every later one (no repair against itself, appended).
        for (std::size_t i = 0; i < size && latest == noTime; i += 1 + tpx3::chunkWords(data[i])) {
            const std::size_t end = i + 1 + static_cast<std::size_t>(tpx3::chunkWords(data[i]));
            for (std::size_t w = i + 1; w < end && latest == noTime; ++w) {
                if (tpx3::packetType(data[w]) == tpx3::type_pixel) {
                    latest = time_ofPixel(data[w]);
                }
            }
        }
    }

    Tpx3HitStream(const std::uint64_t* data_, std::size_t size_, const Tpx3Census& census, long window_ticks)
        : Tpx3HitStream(data_, size_, census, window_ticks, [](std::size_t) {}) {}

    [[nodiscard]] bool has(std::size_t position) {
        while (position >= releasedEnd) {
            if (!decodeMore()) {
                return false;
            }
        }
        return true;
    }
    [[nodiscard]] const PixelActivation& operator[](std::size_t position) const { return buffer[position - base]; }

    /// Drops the released activations before `position`; they move only when the dropped part is large and at
    /// least half of the buffer, so every activation moves a bounded number of times.
    void discardBefore(std::size_t position) {
        const std::size_t drop = std::min(position, releasedEnd) - base;
        if (drop >= 4096 && 2 * drop >= count) {
            std::copy(buffer.begin() + static_cast<std::ptrdiff_t>(drop),
                      buffer.begin() + static_cast<std::ptrdiff_t>(count), buffer.begin());
            count -= drop;
            base += drop;
        }
    }

private:
    static constexpr std::size_t packetsPerBatch = 16384;
    static constexpr std::size_t maxChunkWords = 0xFFFF / 8;
    static constexpr long noTime = std::numeric_limits<long>::min();

    [[nodiscard]] long time_ofPixel(std::uint64_t word) const noexcept {
        return timeScale.pixelTime(tpx3::decode_pixel(word).time_ticks).get_value();
    }

    /// Decodes the next batch of chunks and releases what is final; at the end of the data, releases the rest.
    /// Returns false when nothing is left.
    [[gnu::noinline]] bool decodeMore() {
        if (cursor >= size) {
            if (releasedEnd == base + count) {
                return false;
            }
            releaseUpTo(std::numeric_limits<long>::max());
            return true;
        }
        // Room for a whole batch, so that the loop below writes without checks; the buffer's size settles at
        // the window's share of the data and this rarely allocates.
        if (buffer.size() < count + packetsPerBatch + maxChunkWords) {
            buffer.resize(2 * (count + packetsPerBatch + maxChunkWords), PixelActivation(0, 0, Time(0), 0));
        }
        PixelActivation* const out = buffer.data();
        std::size_t n = count;
        long latestTime = latest;
        std::size_t packets = 0;
        while (cursor < size && packets < packetsPerBatch) {
            const std::size_t end = cursor + 1 + static_cast<std::size_t>(tpx3::chunkWords(data[cursor]));
            for (std::size_t w = cursor + 1; w < end; ++w) {
                const std::uint64_t word = data[w];
                if (tpx3::packetType(word) != tpx3::type_pixel) {
                    continue;
                }
                const tpx3::PixelFields pixel = tpx3::decode_pixel(word);
                const long toa =
                    RolloverRepair::repaired(latestTime, timeScale.pixelTime(pixel.time_ticks).get_value());
                if (toa >= latestTime) {
                    out[n] = PixelActivation(pixel.x, pixel.y, Time(toa), pixel.tot);
                    latestTime = toa;
                } else {
                    insert_late(n, pixel, toa);
                }
                ++n;
            }
            packets += end - cursor;
            cursor = end;
        }
        count = n;
        latest = latestTime;
        consumed(cursor);
        if (cursor >= size) {
            releaseUpTo(std::numeric_limits<long>::max());
        } else if (latest >= noTime + window) {
            releaseUpTo(latest - window);
        }
        return true;
    }

    /// Places an activation earlier than the latest one among the pending activations [releasedEnd, n).
    [[gnu::noinline]] void insert_late(std::size_t n, const tpx3::PixelFields& pixel, long toa) {
        if (toa < lastReleased) {
            throw ReorderWindowExceeded();
        }
        PixelActivation* const out = buffer.data();
        const std::size_t firstPending = releasedEnd - base;
        std::size_t k = n;
        while (k > firstPending && out[k - 1].get_toa().get_value() > toa) {
            out[k] = out[k - 1];
            --k;
        }
        out[k] = PixelActivation(pixel.x, pixel.y, Time(toa), pixel.tot);
        moves += n - k;
        // Insertion is linear for a real readout (about 8 moves per hit in the most disordered recording we
        // have); past a linear budget the input is far from ordered, and a radix sort in memory is the better way.
        if (moves > 64 * (base + n + 1) + 65536) {
            throw ReorderWindowExceeded();
        }
    }

    /// Releases the pending activations whose time is at most `limit`; the pending part is sorted, so that is a
    /// prefix of it.
    void releaseUpTo(long limit) {
        const auto first = buffer.begin() + static_cast<std::ptrdiff_t>(releasedEnd - base);
        const auto last = buffer.begin() + static_cast<std::ptrdiff_t>(count);
        const auto end = std::upper_bound(first, last, limit, [](long time, const PixelActivation& activation) {
            return time < activation.get_toa().get_value();
        });
        if (end != first) {
            lastReleased = (end - 1)->get_toa().get_value();
            releasedEnd = base + static_cast<std::size_t>(end - buffer.begin());
        }
    }

    const std::uint64_t* data;
    std::size_t size;
    Tpx3TimeScale<useGlobalTime> timeScale;
    long window;
    std::function<void(std::size_t)> consumed;
    std::size_t cursor = 0; ///< word index of the next chunk header
    /// The largest repaired time so far (before the first activation: the first activation's time).
    long latest = noTime;
    /// Activations from position `base` on, `count` of them: released up to `releasedEnd`, then pending, each
    /// part in order. Entries from `count` on are scratch space.
    std::vector<PixelActivation> buffer;
    std::size_t count = 0;
    std::size_t base = 0;
    std::size_t releasedEnd = 0;
    std::size_t moves = 0;
    long lastReleased = noTime; ///< no activation can be earlier: nothing released yet
};

/// Calls `onTrigger(Time)` for every TDC packet of a validated word stream, in file order; `consumed` as for
/// `census_tpx3`.
template <bool useGlobalTime, typename OnTrigger, typename Consumed>
void for_eachTdcTrigger_tpx3(
    const std::uint64_t* data, std::size_t size, const Tpx3Census& census, OnTrigger&& onTrigger, Consumed&& consumed) {
    const Tpx3TimeScale<useGlobalTime> timeScale(referenceTime_tpx3<useGlobalTime>(census));
    constexpr std::size_t reportEvery_words = std::size_t{1} << 22;
    std::size_t nextReport = reportEvery_words;
    for_eachChunk_tpx3(data, size, [&](const std::uint64_t* first, const std::uint64_t* last) {
        for (const std::uint64_t* p = first; p != last; ++p) {
            if (tpx3::packetType(*p) == tpx3::type_tdc) {
                onTrigger(timeScale.tdcTime(tpx3::decode_tdcTime(*p)));
            }
        }
        if (static_cast<std::size_t>(last - data) >= nextReport) {
            consumed(static_cast<std::size_t>(last - data));
            nextReport = static_cast<std::size_t>(last - data) + reportEvery_words;
        }
    });
}

} // namespace kavot_tpx3spidr

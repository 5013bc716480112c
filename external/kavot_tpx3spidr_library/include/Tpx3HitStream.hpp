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
        : data(data_), size(size_), pixelCount(census.pixelCount), timeScale(referenceTime_tpx3<useGlobalTime>(census)),
          window(window_ticks), consumed(consumed_) {}

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
        if (drop >= 4096 && 2 * drop >= buffer.size()) {
            buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(drop));
            base += drop;
        }
    }
    [[nodiscard]] std::size_t sizeHint() const noexcept { return pixelCount; }

private:
    static constexpr std::size_t packetsPerBatch = 16384;

    /// Decodes the next batch of chunks and releases what is final; at the end of the data, releases the rest.
    /// Returns false when nothing is left.
    [[gnu::noinline]] bool decodeMore() {
        if (cursor >= size) {
            if (releasedEnd == base + buffer.size()) {
                return false;
            }
            releaseWhile(std::numeric_limits<long>::max());
            return true;
        }
        std::size_t packets = 0;
        while (cursor < size && packets < packetsPerBatch) {
            const std::size_t end = cursor + 1 + static_cast<std::size_t>(tpx3::chunkWords(data[cursor]));
            for (std::size_t w = cursor + 1; w < end; ++w) {
                const std::uint64_t word = data[w];
                if (tpx3::packetType(word) == tpx3::type_pixel) {
                    const tpx3::PixelFields pixel = tpx3::decode_pixel(word);
                    add(PixelActivation(pixel.x, pixel.y, timeScale.pixelTime(pixel.time_ticks), pixel.tot));
                }
            }
            packets += end - cursor;
            cursor = end;
        }
        consumed(cursor);
        if (cursor >= size) {
            releaseWhile(std::numeric_limits<long>::max());
        } else if (decoded > 0 && repair.get_latest() >= std::numeric_limits<long>::min() + window) {
            releaseWhile(repair.get_latest() - window);
        }
        return true;
    }

    void add(PixelActivation activation) {
        Time& toa = activation.get_toa();
        repair.apply(toa);
        ++decoded;
        if (anyReleased && toa.get_value() < lastReleased) {
            throw ReorderWindowExceeded();
        }
        const std::size_t firstPending = releasedEnd - base;
        buffer.push_back(activation);
        std::size_t k = buffer.size() - 1;
        while (k > firstPending && buffer[k - 1].get_toa() > activation.get_toa()) {
            buffer[k] = buffer[k - 1];
            --k;
        }
        buffer[k] = activation;
        moves += buffer.size() - 1 - k;
        // Insertion is linear for a real readout (about 8 moves per hit in the most disordered recording we
        // have); past a linear budget the input is far from ordered, and a radix sort in memory is the better way.
        if (moves > 64 * decoded + 65536) {
            throw ReorderWindowExceeded();
        }
    }

    /// Releases the pending activations whose time is at most `limit`, in order.
    void releaseWhile(long limit) {
        const std::size_t end = base + buffer.size();
        while (releasedEnd < end && buffer[releasedEnd - base].get_toa().get_value() <= limit) {
            lastReleased = buffer[releasedEnd - base].get_toa().get_value();
            anyReleased = true;
            ++releasedEnd;
        }
    }

    const std::uint64_t* data;
    std::size_t size;
    std::size_t pixelCount;
    Tpx3TimeScale<useGlobalTime> timeScale;
    long window;
    std::function<void(std::size_t)> consumed;
    std::size_t cursor = 0; ///< word index of the next chunk header
    std::size_t decoded = 0;
    RolloverRepair repair;
    /// Activations from position `base` on: released up to `releasedEnd`, then pending, each part in order.
    std::vector<PixelActivation> buffer;
    std::size_t base = 0;
    std::size_t releasedEnd = 0;
    std::size_t moves = 0;
    long lastReleased = 0;
    bool anyReleased = false;
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

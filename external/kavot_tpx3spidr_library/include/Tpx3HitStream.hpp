#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <stdexcept>
#include <vector>

#include "Tpx3DataSet.hpp"
#include "WideCode.hpp"

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
///
/// On processors with 512-bit vectors the last eight pending activations are held in two registers (times and
/// the other fields), sorted, and each decoded activation is inserted there without a branch; the lowest one
/// leaves for the buffer. See `decodeBatch_wide` for why that is the same insertion.
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
        wideOrdering = wideCode_supported();
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

    /// Orders with the portable code only, whatever the processor offers (the two give the same order; tests
    /// compare them). Call before the first `has`.
    void restrict_toPortableCode() noexcept { wideOrdering = false; }

    /// Positions from the last `discardBefore` up to this one can be read without decoding, and they lie next to
    /// each other in memory until the next `has` that decodes.
    [[nodiscard]] std::size_t readableEnd() const noexcept { return releasedEnd; }

    /// The released activations before `position` will not be read again. They are dropped when the next batch
    /// is decoded, so that what a reader holds stays in place until then.
    void discardBefore(std::size_t position) noexcept { discardPoint = std::max(discardPoint, position); }

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
        compact();
        // Room for a whole batch, so that the loop below writes without checks; the buffer's size settles at
        // the window's share of the data and this rarely allocates.
        if (buffer.size() < count + packetsPerBatch + maxChunkWords) {
            buffer.resize(2 * (count + packetsPerBatch + maxChunkWords), PixelActivation(0, 0, Time(0), 0));
        }
#ifdef KAVOT_WIDE_CODE
        // The registers take the last eight activations of the buffer; they must all be pending, so that one not
        // earlier than the lowest of them can never be earlier than an activation already released.
        if (wideOrdering && count - (releasedEnd - base) >= wideLanes) {
            decodeBatch_wide();
        } else {
            decodeBatch_portable();
        }
#else
        decodeBatch_portable();
#endif
        consumed(cursor);
        if (cursor >= size) {
            releaseUpTo(std::numeric_limits<long>::max());
        } else if (latest >= noTime + window) {
            releaseUpTo(latest - window);
        }
        return true;
    }

    /// Drops the discarded activations; they move only when the dropped part is large and at least half of the
    /// buffer, so every activation moves a bounded number of times.
    void compact() {
        const std::size_t drop = std::min(discardPoint, releasedEnd) - base;
        if (drop >= 4096 && 2 * drop >= count) {
            std::copy(buffer.begin() + static_cast<std::ptrdiff_t>(drop),
                      buffer.begin() + static_cast<std::ptrdiff_t>(count), buffer.begin());
            count -= drop;
            base += drop;
        }
    }

    /// Decodes one batch of chunks into the buffer in order: appends, or inserts the out-of-order ones.
    void decodeBatch_portable() {
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
    }

#ifdef KAVOT_WIDE_CODE
    static constexpr std::size_t wideLanes = 8;

    /// The x, y and tot of an activation as the first eight bytes of its record hold them (little-endian,
    /// padding zero).
    [[nodiscard]] static long packedFields(const tpx3::PixelFields& pixel) noexcept {
        return static_cast<long>(std::uint64_t{static_cast<std::uint16_t>(pixel.x)} |
                                 (std::uint64_t{static_cast<std::uint16_t>(pixel.y)} << 16) |
                                 (std::uint64_t{pixel.tot} << 32));
    }

    /// The batch loop of `decodeBatch_portable` with the insertion done in registers. The loop is written out
    /// again rather than shared with a callback: a lambda would not be compiled for the vector instructions of
    /// the function around it.
    ///
    /// `times` and `fields` hold the last eight activations of the order, ascending from lane 0, and the buffer
    /// below position m holds the ones before them. An activation not earlier than lane 0 (the lowest) belongs in
    /// the registers: behind every lane whose time is not later, which is lane 7 - g when g lanes are later.
    /// The lanes above it keep their activations, the ones below move down by one, and lane 0 leaves for the
    /// buffer at position m, where it belongs, being the lowest of the nine. For the times this is
    /// max(t_i, min(t_(i+1), toa)) with t_8 = +infinity; the fields follow the same masks. An activation earlier
    /// than all eight is inserted into the buffer as in the portable loop (those counted as moves); the lanes,
    /// which follow it, are unchanged. At the end the registers go back to the buffer's last eight positions.
    [[gnu::target(KAVOT_WIDE_TARGET)]] void decodeBatch_wide() {
        PixelActivation* const out = buffer.data();
        std::size_t m = count - wideLanes;
        const __m512i evenLanes = _mm512_set_epi64(14, 12, 10, 8, 6, 4, 2, 0);
        const __m512i oddLanes = _mm512_set_epi64(15, 13, 11, 9, 7, 5, 3, 1);
        const __m512i low = _mm512_loadu_si512(out + m);
        const __m512i high = _mm512_loadu_si512(out + m + 4);
        __m512i times = _mm512_permutex2var_epi64(low, oddLanes, high);
        __m512i fields = _mm512_permutex2var_epi64(low, evenLanes, high);
        const __m512i infinity = _mm512_set1_epi64(std::numeric_limits<long>::max());
        // The plain forms of min, max and alignr (and the cast to 128 bits) leave an undefined source that g++ 12
        // warns about; the masked forms with every lane selected are the same instructions.
        constexpr __mmask8 allLanes = 0xFF;
        constexpr __mmask8 lowestRecord = 0x03; // lane 0 of the fields, then lane 0 of the times
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
                latestTime = std::max(latestTime, toa);
                const __m512i toaLanes = _mm512_set1_epi64(toa);
                const __mmask8 later = _mm512_cmpgt_epi64_mask(times, toaLanes);
                if (later == 0xFF) [[unlikely]] {
                    insert_late(m, pixel, toa);
                    ++m;
                    continue;
                }
                _mm512_mask_storeu_epi64(out + m, lowestRecord,
                                         _mm512_mask_unpacklo_epi64(fields, allLanes, fields, times));
                ++m;
                const __m512i timesAbove = _mm512_mask_alignr_epi64(infinity, allLanes, infinity, times, 1);
                const __mmask8 place = _mm512_cmpgt_epi64_mask(timesAbove, toaLanes) & static_cast<__mmask8>(~later);
                times = _mm512_mask_max_epi64(times, allLanes, times,
                                              _mm512_mask_min_epi64(toaLanes, allLanes, timesAbove, toaLanes));
                const __m512i fieldsAbove = _mm512_mask_alignr_epi64(fields, allLanes, fields, fields, 1);
                fields = _mm512_mask_mov_epi64(
                    _mm512_mask_mov_epi64(fieldsAbove, place, _mm512_set1_epi64(packedFields(pixel))), later, fields);
            }
            packets += end - cursor;
            cursor = end;
        }
        _mm512_storeu_si512(out + m,
                            _mm512_permutex2var_epi64(fields, _mm512_set_epi64(11, 3, 10, 2, 9, 1, 8, 0), times));
        _mm512_storeu_si512(out + m + 4,
                            _mm512_permutex2var_epi64(fields, _mm512_set_epi64(15, 7, 14, 6, 13, 5, 12, 4), times));
        count = m + wideLanes;
        latest = latestTime;
    }
#endif

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
    std::size_t discardPoint = 0;
    std::size_t moves = 0;
    long lastReleased = noTime; ///< no activation can be earlier: nothing released yet
    bool wideOrdering = false;
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

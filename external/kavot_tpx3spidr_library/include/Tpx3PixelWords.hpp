#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "ChipLayout.hpp"
#include "PixelActivation.hpp"
#include "Tpx3Packet.hpp"
#include "Tpx3PacketSummary.hpp"

namespace kavot_tpx3spidr {

/// How the pixel packets of a chip become activations: every time as `lowest + ((raw - lowest) & mask)`, the place
/// through `transform`, and the chip in the activation.
///
/// With a reference R on the 2^34-tick clock, lowest = R - 2^33 and mask = 2^34 - 1 give the value congruent to
/// the raw time that lies in [R - 2^33, R + 2^33): `tpx3::extend_nearest`, which equals `TimeExtension(R).extend`;
/// taking the raw time modulo 2^34 first (`tpx3::pixelTime_forExtension`) changes nothing, as the mask does it
/// anyway. With lowest 0 and every bit in the mask, the time is the raw one, negative by the column correction
/// included.
struct PixelPlacement {
    std::uint64_t lowest = 0;
    std::uint64_t mask = ~std::uint64_t{0};
    ChipTransform transform{};
    std::uint8_t chip = 0;

    /// Times placed nearest `reference_ticks` on the pixel clock.
    [[nodiscard]] static PixelPlacement around(long reference_ticks, std::uint8_t chip_) noexcept {
        return {static_cast<std::uint64_t>(reference_ticks) - tpx3::pixelPeriod_ticks / 2, tpx3::pixelPeriod_ticks - 1,
                ChipTransform{}, chip_};
    }
    /// The raw times.
    [[nodiscard]] static PixelPlacement raw(std::uint8_t chip_) noexcept { return {0, ~std::uint64_t{0}, {}, chip_}; }
};

/// The placement of each chip, by the chip index of a chunk header.
using ChipPlacements = std::array<PixelPlacement, 256>;

/// Room for records that the vector code writes beyond the last activation.
constexpr std::size_t pixelWords_slack = 8;

/// How far a decode of chunks came: the words of the chunks decoded, and the activations written.
struct ChunksDecoded {
    std::size_t words;
    std::size_t activations;
};

namespace detail {

/// The fields of the first 8 bytes of an activation, as its constructor lays them out: x and y (16 bits each),
/// ToT (16 bits), the chip (8 bits) and a zero byte. The vector code writes activations as these 8 bytes and the
/// time; a test compares them with the constructor's.
constexpr unsigned frontY_shift = 16;
constexpr unsigned frontTot_shift = 32;
constexpr unsigned frontChip_shift = 48;

/// The portable decode of one chunk's packet words, and the reference of the vector ones: every word is written,
/// and the position moves on past it only for a pixel packet, so the loop has no branch on the packet type.
/// Returns how many it wrote; `globals` counts the global time packets.
[[gnu::always_inline]] inline std::size_t decode_words_portable(const std::uint64_t* words,
                                                                std::size_t count,
                                                                const PixelPlacement& placement,
                                                                PixelActivation* out,
                                                                std::size_t& globals) noexcept {
    std::size_t n = 0;
    const ChipTransform& t = placement.transform;
    for (std::size_t i = 0; i < count; ++i) {
        const tpx3::PixelFields pixel = tpx3::decode_pixel(words[i]);
        const std::uint64_t time =
            placement.lowest + ((static_cast<std::uint64_t>(pixel.time_ticks) - placement.lowest) & placement.mask);
        out[n] = PixelActivation(static_cast<short>(t.x(pixel.x, pixel.y)), static_cast<short>(t.y(pixel.x, pixel.y)),
                                 Time(static_cast<long>(time)), pixel.tot, placement.chip);
        n += static_cast<std::size_t>(tpx3::packetType(words[i]) == tpx3::type_pixel);
        globals += static_cast<std::size_t>(tpx3::packetType(words[i]) == tpx3::type_globalTime);
    }
    return n;
}

/// Walks the whole chunks of `count` words and decodes each chunk's packet words with `decodeWords`; stops before a
/// chunk with a global time packet when asked to. Spelled out in each decode's function, so that the word decode is
/// inlined with its instruction set.
#define KAVOT_WALK_CHUNKS(decodeWords)                                                                                 \
    std::size_t n = 0;                                                                                                 \
    std::size_t i = 0;                                                                                                 \
    while (i < count) {                                                                                                \
        const auto size = static_cast<std::size_t>(tpx3::chunkWords(words[i]));                                        \
        std::size_t globals = 0;                                                                                       \
        const std::size_t written =                                                                                    \
            decodeWords(words + i + 1, size, placements[tpx3::chunkChip(words[i])], out + n, globals);                 \
        if (stopAtGlobalTime && globals > 0) {                                                                         \
            break;                                                                                                     \
        }                                                                                                              \
        n += written;                                                                                                  \
        i += 1 + size;                                                                                                 \
    }                                                                                                                  \
    return ChunksDecoded {                                                                                             \
        i, n                                                                                                           \
    }

inline ChunksDecoded decode_chunks_portable(const std::uint64_t* words,
                                            std::size_t count,
                                            const ChipPlacements& placements,
                                            bool stopAtGlobalTime,
                                            PixelActivation* out) noexcept {
    KAVOT_WALK_CHUNKS(decode_words_portable);
}

#if defined(__x86_64__)

// The vector decodes compute the fields of 4 (AVX2) or 8 (AVX-512) words side by side, each 64-bit lane as
// `tpx3::decode_pixel` does it: x = 2 dcol + pix bit 2 = bits 59-53 shifted to 7-1, with bit 46 at 0; y = 4 spix
// + pix bits 1-0 = bits 52-47 shifted to 7-2, with bits 45-44 at 1-0; x lies in the delayed columns 194-203
// exactly when dcol lies in 97-101; 15 - FToA = FToA xor 15 (FToA has 4 bits); spidr, ToA and 15 - FToA occupy
// bits 33-18, 17-4 and 3-0 of the time, so they are or-ed. The transform's products come from the signed 32-bit
// multiply of the low halves of the lanes, exact for pixel coordinates; x and y are then taken modulo 2^16, as
// the conversion of the int result to short does. The last words of a chunk are loaded under a mask: nothing
// past the chunk is read.

[[gnu::target("avx2"), gnu::always_inline]] inline std::size_t decode_words_avx2(const std::uint64_t* words,
                                                                                 std::size_t count,
                                                                                 const PixelPlacement& placement,
                                                                                 PixelActivation* out,
                                                                                 std::size_t& globals) noexcept {
    const ChipTransform& t = placement.transform;
    const bool identity = t == ChipTransform{};
    const __m256i lowest = all4(placement.lowest);
    const __m256i mask = all4(placement.mask);
    const __m256i chip = all4(std::uint64_t{placement.chip} << frontChip_shift);
    const __m256i low16 = all4(0xFFFF);
    const __m256i lanes = _mm256_set_epi64x(3, 2, 1, 0);
    __m256i anyGlobal = _mm256_setzero_si256();
    std::size_t n = 0;
    for (std::size_t i = 0; i < count; i += 4) {
        const __m256i inChunk = _mm256_cmpgt_epi64(all4(count - i), lanes);
        const __m256i w = _mm256_maskload_epi64(reinterpret_cast<const long long*>(words + i), inChunk);
        const __m256i type = _mm256_srli_epi64(w, tpx3::type_shift);
        const __m256i isPixel = _mm256_and_si256(inChunk, _mm256_cmpeq_epi64(type, all4(tpx3::type_pixel)));
        anyGlobal = _mm256_or_si256(anyGlobal,
                                    _mm256_and_si256(inChunk, _mm256_cmpeq_epi64(type, all4(tpx3::type_globalTime))));
        const __m256i dcol = _mm256_and_si256(_mm256_srli_epi64(w, tpx3::dcol_shift), all4(tpx3::dcol_mask));
        __m256i x = _mm256_or_si256(_mm256_add_epi64(dcol, dcol), _mm256_and_si256(_mm256_srli_epi64(w, 46), all4(1)));
        __m256i y = _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi64(w, 45), all4(0xFC)),
                                    _mm256_and_si256(_mm256_srli_epi64(w, 44), all4(3)));
        const __m256i delayed =
            _mm256_andnot_si256(_mm256_cmpgt_epi64(dcol, all4(101)), _mm256_cmpgt_epi64(dcol, all4(96)));
        __m256i raw = _mm256_or_si256(_mm256_slli_epi64(_mm256_and_si256(w, all4(tpx3::spidrTime_mask)), 18),
                                      _mm256_and_si256(_mm256_srli_epi64(w, 26), all4(0x3FFF0)));
        raw = _mm256_or_si256(raw, _mm256_xor_si256(_mm256_and_si256(_mm256_srli_epi64(w, 16), all4(0xF)), all4(0xF)));
        raw = _mm256_sub_epi64(raw, _mm256_and_si256(delayed, all4(tpx3::delayedColumn_correction_ticks)));
        const __m256i time = _mm256_add_epi64(lowest, _mm256_and_si256(_mm256_sub_epi64(raw, lowest), mask));
        if (!identity) {
            const __m256i X = _mm256_add_epi64(
                _mm256_add_epi64(_mm256_mul_epi32(all4(t.a), x), _mm256_mul_epi32(all4(t.b), y)), all4(t.tx));
            y = _mm256_and_si256(
                _mm256_add_epi64(_mm256_add_epi64(_mm256_mul_epi32(all4(t.c), x), _mm256_mul_epi32(all4(t.d), y)),
                                 all4(t.ty)),
                low16);
            x = _mm256_and_si256(X, low16);
        }
        __m256i front = _mm256_or_si256(x, _mm256_slli_epi64(y, frontY_shift));
        front = _mm256_or_si256(front, _mm256_and_si256(_mm256_slli_epi64(w, frontTot_shift - tpx3::tot_shift),
                                                        all4(tpx3::tot_mask << frontTot_shift)));
        front = _mm256_or_si256(front, chip);
        const __m256i even = _mm256_unpacklo_epi64(front, time); // records 0 and 2
        const __m256i odd = _mm256_unpackhi_epi64(front, time);  // records 1 and 3
        const __m256i first = _mm256_permute2x128_si256(even, odd, 0x20);
        const __m256i second = _mm256_permute2x128_si256(even, odd, 0x31);
        const auto pixels = static_cast<unsigned>(_mm256_movemask_pd(_mm256_castsi256_pd(isPixel)));
        if (pixels == 0xF) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + n), first);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + n + 2), second);
            n += 4;
            continue;
        }
        // Some word is no pixel packet: each record is written, the position moves on past pixel packets only.
        const __m128i records[4] = {_mm256_castsi256_si128(first), _mm256_extracti128_si256(first, 1),
                                    _mm256_castsi256_si128(second), _mm256_extracti128_si256(second, 1)};
        for (unsigned k = 0; k < 4; ++k) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + n), records[k]);
            n += (pixels >> k) & 1;
        }
    }
    globals += static_cast<std::size_t>(_mm256_movemask_pd(_mm256_castsi256_pd(anyGlobal)) != 0);
    return n;
}

[[gnu::target("avx2")]] inline ChunksDecoded decode_chunks_avx2(const std::uint64_t* words,
                                                                std::size_t count,
                                                                const ChipPlacements& placements,
                                                                bool stopAtGlobalTime,
                                                                PixelActivation* out) noexcept {
    KAVOT_WALK_CHUNKS(decode_words_avx2);
}

[[gnu::target("avx512f"), gnu::always_inline]] inline std::size_t decode_words_avx512(const std::uint64_t* words,
                                                                                      std::size_t count,
                                                                                      const PixelPlacement& placement,
                                                                                      PixelActivation* out,
                                                                                      std::size_t& globals) noexcept {
    const ChipTransform& t = placement.transform;
    const bool identity = t == ChipTransform{};
    const __m512i lowest = all8(placement.lowest);
    const __m512i mask = all8(placement.mask);
    const __m512i chip = all8(std::uint64_t{placement.chip} << frontChip_shift);
    const __m512i low16 = all8(0xFFFF);
    // Records 0-3 and 4-7 of the compressed fields: front k, time k, alternating.
    const __m512i firstHalf = _mm512_set_epi64(11, 3, 10, 2, 9, 1, 8, 0);
    const __m512i secondHalf = _mm512_set_epi64(15, 7, 14, 6, 13, 5, 12, 4);
    __mmask8 anyGlobal = 0;
    std::size_t n = 0;
    for (std::size_t i = 0; i < count; i += 8) {
        const auto inChunk = static_cast<__mmask8>(count - i >= 8 ? 0xFF : (1U << (count - i)) - 1);
        const __m512i w = _mm512_maskz_loadu_epi64(inChunk, words + i);
        const __m512i type = right8(w, tpx3::type_shift);
        const __mmask8 isPixel = _mm512_mask_cmpeq_epi64_mask(inChunk, type, all8(tpx3::type_pixel));
        anyGlobal =
            static_cast<__mmask8>(anyGlobal | _mm512_mask_cmpeq_epi64_mask(inChunk, type, all8(tpx3::type_globalTime)));
        const __m512i dcol = _mm512_and_si512(right8(w, tpx3::dcol_shift), all8(tpx3::dcol_mask));
        __m512i x = _mm512_or_si512(_mm512_add_epi64(dcol, dcol), _mm512_and_si512(right8(w, 46), all8(1)));
        __m512i y =
            _mm512_or_si512(_mm512_and_si512(right8(w, 45), all8(0xFC)), _mm512_and_si512(right8(w, 44), all8(3)));
        const __mmask8 delayed = _mm512_cmple_epu64_mask(_mm512_sub_epi64(dcol, all8(97)), all8(101 - 97));
        __m512i raw = _mm512_or_si512(left8(_mm512_and_si512(w, all8(tpx3::spidrTime_mask)), 18),
                                      _mm512_and_si512(right8(w, 26), all8(0x3FFF0)));
        raw = _mm512_or_si512(raw, _mm512_xor_si512(_mm512_and_si512(right8(w, 16), all8(0xF)), all8(0xF)));
        raw = _mm512_mask_sub_epi64(raw, delayed, raw, all8(tpx3::delayedColumn_correction_ticks));
        const __m512i time = _mm512_add_epi64(lowest, _mm512_and_si512(_mm512_sub_epi64(raw, lowest), mask));
        if (!identity) {
            const __m512i X =
                _mm512_add_epi64(_mm512_add_epi64(times8(all8(t.a), x), times8(all8(t.b), y)), all8(t.tx));
            y = _mm512_and_si512(
                _mm512_add_epi64(_mm512_add_epi64(times8(all8(t.c), x), times8(all8(t.d), y)), all8(t.ty)), low16);
            x = _mm512_and_si512(X, low16);
        }
        __m512i front = _mm512_or_si512(x, left8(y, frontY_shift));
        front = _mm512_or_si512(front, _mm512_and_si512(left8(w, frontTot_shift - tpx3::tot_shift),
                                                        all8(tpx3::tot_mask << frontTot_shift)));
        front = _mm512_or_si512(front, chip);
        // The pixel packets' fields moved to the front, then interleaved into records: the records past the
        // pixel packets are written but not counted. Where every word is a pixel packet (nearly always), they are
        // at the front already: the compression, a quarter of the decode's time, is saved.
        __m512i fronts = front;
        __m512i times = time;
        if (isPixel != inChunk) [[unlikely]] {
            fronts = _mm512_maskz_compress_epi64(isPixel, front);
            times = _mm512_maskz_compress_epi64(isPixel, time);
        }
        auto* to = reinterpret_cast<char*>(out + n);
        _mm512_storeu_si512(to, _mm512_permutex2var_epi64(fronts, firstHalf, times));
        _mm512_storeu_si512(to + 64, _mm512_permutex2var_epi64(fronts, secondHalf, times));
        n += static_cast<std::size_t>(__builtin_popcount(static_cast<unsigned>(isPixel)));
    }
    globals += static_cast<std::size_t>(anyGlobal != 0);
    return n;
}

[[gnu::target("avx512f")]] inline ChunksDecoded decode_chunks_avx512(const std::uint64_t* words,
                                                                     std::size_t count,
                                                                     const ChipPlacements& placements,
                                                                     bool stopAtGlobalTime,
                                                                     PixelActivation* out) noexcept {
    KAVOT_WALK_CHUNKS(decode_words_avx512);
}

#endif

#undef KAVOT_WALK_CHUNKS

using DecodeChunks =
    ChunksDecoded (*)(const std::uint64_t*, std::size_t, const ChipPlacements&, bool, PixelActivation*) noexcept;

/// The widest decode this processor runs, chosen once.
[[nodiscard]] inline DecodeChunks chosen_decodeChunks() noexcept {
    static const DecodeChunks chosen =
        widest_supported(&decode_chunks_avx512, &decode_chunks_avx2, &decode_chunks_portable);
    return chosen;
}

} // namespace detail

/// Writes an activation for every pixel packet of the whole chunks of `count` words at `words` (headers included,
/// structure checked) to `out`, in order, each chunk's with the placement of its chip. Each word is decoded on its
/// own, without the rollover repair: for blocks the census found need none. With `stopAtGlobalTime`, stops before
/// the first chunk that holds a global time packet. `out` needs room for `count + pixelWords_slack` activations.
inline ChunksDecoded decode_chunks(const std::uint64_t* words,
                                   std::size_t count,
                                   const ChipPlacements& placements,
                                   bool stopAtGlobalTime,
                                   PixelActivation* out) noexcept {
    return detail::chosen_decodeChunks()(words, count, placements, stopAtGlobalTime, out);
}

} // namespace kavot_tpx3spidr

#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "Tpx3Packet.hpp"

namespace kavot_tpx3spidr {

/// The pixel, TDC and global time packets among packet words, and the smallest and largest pixel time (on a
/// decode's time scale, before any rollover repair).
struct PacketSummary {
    std::uint64_t pixels = 0;
    std::uint64_t tdcs = 0;
    std::uint64_t globals = 0;
    long earliest = std::numeric_limits<long>::max();
    long latest = std::numeric_limits<long>::min();
};

namespace detail {

// The summary of `count` words, each pixel time placed as `lowest + ((raw - lowest) & mask)` (see
// `PixelPlacement`: the value nearest a reference on the pixel clock, or the raw time). Words that are no packet
// of these types count for nothing, so a stretch of chunks whose headers read as none of them is summed up as
// one. In vector code chosen by the processor, as `decode_chunks` is; the portable loop is the reference.

inline PacketSummary
summarize_portable(const std::uint64_t* words, std::size_t count, std::uint64_t lowest, std::uint64_t mask) noexcept {
    PacketSummary summary;
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t type = tpx3::packetType(words[i]);
        summary.tdcs += static_cast<std::uint64_t>(type == tpx3::type_tdc);
        summary.globals += static_cast<std::uint64_t>(type == tpx3::type_globalTime);
        if (type == tpx3::type_pixel) {
            const auto raw = static_cast<std::uint64_t>(tpx3::decode_pixel(words[i]).time_ticks);
            const auto time = static_cast<long>(lowest + ((raw - lowest) & mask));
            ++summary.pixels;
            summary.earliest = time < summary.earliest ? time : summary.earliest;
            summary.latest = time > summary.latest ? time : summary.latest;
        }
    }
    return summary;
}

#if defined(__x86_64__)

/// Every lane set to `v`.
template <typename Integer>
[[gnu::target("avx2"), gnu::always_inline]] inline __m256i all4(Integer v) noexcept {
    return _mm256_set1_epi64x(static_cast<long long>(v));
}
template <typename Integer>
[[gnu::target("avx512f"), gnu::always_inline]] inline __m512i all8(Integer v) noexcept {
    return _mm512_set1_epi64(static_cast<long long>(v));
}
// Shifts and products with a zero mask register: the unmasked forms pass an undefined vector through, which GCC 12
// reports as maybe uninitialized.
[[gnu::target("avx512f"), gnu::always_inline]] inline __m512i right8(__m512i v, unsigned bits) noexcept {
    return _mm512_maskz_srli_epi64(0xFF, v, bits);
}
[[gnu::target("avx512f"), gnu::always_inline]] inline __m512i left8(__m512i v, unsigned bits) noexcept {
    return _mm512_maskz_slli_epi64(0xFF, v, bits);
}
[[gnu::target("avx512f"), gnu::always_inline]] inline __m512i times8(__m512i a, __m512i b) noexcept {
    return _mm512_maskz_mul_epi32(0xFF, a, b);
}

// The time of each lane as in `decode_chunks`: x lies in the delayed columns 194-203 exactly when dcol lies in
// 97-101, as x = 2 dcol + pix bit 2; spidr, ToA and 15 - FToA = ~FToA fill bits 33-18, 17-4 and 3-0.

[[gnu::target("avx2")]] inline PacketSummary
summarize_avx2(const std::uint64_t* words, std::size_t count, std::uint64_t lowest_, std::uint64_t mask_) noexcept {
    const __m256i lowest = all4(lowest_);
    const __m256i mask = all4(mask_);
    const __m256i lanes = _mm256_set_epi64x(3, 2, 1, 0);
    __m256i pixels = _mm256_setzero_si256();
    __m256i tdcs = _mm256_setzero_si256();
    __m256i globals = _mm256_setzero_si256();
    __m256i earliest = _mm256_set1_epi64x(std::numeric_limits<long long>::max());
    __m256i latest = _mm256_set1_epi64x(std::numeric_limits<long long>::min());
    for (std::size_t i = 0; i < count; i += 4) {
        __m256i w;
        if (i + 4 <= count) {
            w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(words + i));
        } else { // lanes past the end read as type 0, no packet counted here
            const __m256i inRange = _mm256_cmpgt_epi64(all4(count - i), lanes);
            w = _mm256_maskload_epi64(reinterpret_cast<const long long*>(words + i), inRange);
        }
        const __m256i type = _mm256_srli_epi64(w, tpx3::type_shift);
        const __m256i isPixel = _mm256_cmpeq_epi64(type, all4(tpx3::type_pixel));
        pixels = _mm256_sub_epi64(pixels, isPixel);
        tdcs = _mm256_sub_epi64(tdcs, _mm256_cmpeq_epi64(type, all4(tpx3::type_tdc)));
        globals = _mm256_sub_epi64(globals, _mm256_cmpeq_epi64(type, all4(tpx3::type_globalTime)));
        const __m256i dcol = _mm256_and_si256(_mm256_srli_epi64(w, tpx3::dcol_shift), all4(0x7F));
        const __m256i delayed =
            _mm256_andnot_si256(_mm256_cmpgt_epi64(dcol, all4(101)), _mm256_cmpgt_epi64(dcol, all4(96)));
        __m256i raw = _mm256_or_si256(_mm256_slli_epi64(_mm256_and_si256(w, all4(0xFFFF)), 18),
                                      _mm256_and_si256(_mm256_srli_epi64(w, 26), all4(0x3FFF0)));
        raw = _mm256_or_si256(raw, _mm256_andnot_si256(_mm256_srli_epi64(w, 16), all4(0xF)));
        raw = _mm256_sub_epi64(raw, _mm256_and_si256(delayed, all4(16)));
        const __m256i time = _mm256_add_epi64(lowest, _mm256_and_si256(_mm256_sub_epi64(raw, lowest), mask));
        const __m256i low = _mm256_blendv_epi8(earliest, time, isPixel);
        earliest = _mm256_blendv_epi8(earliest, low, _mm256_cmpgt_epi64(earliest, low));
        const __m256i high = _mm256_blendv_epi8(latest, time, isPixel);
        latest = _mm256_blendv_epi8(latest, high, _mm256_cmpgt_epi64(high, latest));
    }
    alignas(32) long long lanesOf[4][4]; // rows of 32 bytes, each aligned for its store
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanesOf[0]), pixels);
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanesOf[1]), tdcs);
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanesOf[2]), globals);
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanesOf[3]), earliest);
    alignas(32) long long highs[4];
    _mm256_store_si256(reinterpret_cast<__m256i*>(highs), latest);
    PacketSummary summary;
    for (unsigned k = 0; k < 4; ++k) {
        summary.pixels += static_cast<std::uint64_t>(lanesOf[0][k]);
        summary.tdcs += static_cast<std::uint64_t>(lanesOf[1][k]);
        summary.globals += static_cast<std::uint64_t>(lanesOf[2][k]);
        summary.earliest = lanesOf[3][k] < summary.earliest ? lanesOf[3][k] : summary.earliest;
        summary.latest = highs[k] > summary.latest ? highs[k] : summary.latest;
    }
    return summary;
}

[[gnu::target("avx512f")]] inline PacketSummary
summarize_avx512(const std::uint64_t* words, std::size_t count, std::uint64_t lowest_, std::uint64_t mask_) noexcept {
    const __m512i lowest = all8(lowest_);
    const __m512i mask = all8(mask_);
    std::uint64_t pixels = 0;
    std::uint64_t tdcs = 0;
    std::uint64_t globals = 0;
    __m512i earliest = _mm512_set1_epi64(std::numeric_limits<long long>::max());
    __m512i latest = _mm512_set1_epi64(std::numeric_limits<long long>::min());
    for (std::size_t i = 0; i < count; i += 8) {
        const auto inRange = static_cast<__mmask8>(count - i >= 8 ? 0xFF : (1U << (count - i)) - 1);
        const __m512i w = _mm512_maskz_loadu_epi64(inRange, words + i);
        const __m512i type = right8(w, tpx3::type_shift);
        const __mmask8 isPixel = _mm512_mask_cmpeq_epi64_mask(inRange, type, all8(tpx3::type_pixel));
        pixels += static_cast<std::uint64_t>(__builtin_popcount(static_cast<unsigned>(isPixel)));
        tdcs += static_cast<std::uint64_t>(__builtin_popcount(
            static_cast<unsigned>(_mm512_mask_cmpeq_epi64_mask(inRange, type, all8(tpx3::type_tdc)))));
        globals += static_cast<std::uint64_t>(__builtin_popcount(
            static_cast<unsigned>(_mm512_mask_cmpeq_epi64_mask(inRange, type, all8(tpx3::type_globalTime)))));
        const __m512i dcol = _mm512_and_si512(right8(w, tpx3::dcol_shift), all8(0x7F));
        const __mmask8 delayed = _mm512_cmple_epu64_mask(_mm512_sub_epi64(dcol, all8(97)), all8(101 - 97));
        __m512i raw = _mm512_or_si512(left8(_mm512_and_si512(w, all8(0xFFFF)), 18),
                                      _mm512_and_si512(right8(w, 26), all8(0x3FFF0)));
        raw = _mm512_or_si512(raw, _mm512_maskz_andnot_epi64(0xFF, right8(w, 16), all8(0xF)));
        raw = _mm512_mask_sub_epi64(raw, delayed, raw, all8(16));
        const __m512i time = _mm512_add_epi64(lowest, _mm512_and_si512(_mm512_sub_epi64(raw, lowest), mask));
        earliest = _mm512_mask_min_epi64(earliest, isPixel, earliest, time);
        latest = _mm512_mask_max_epi64(latest, isPixel, latest, time);
    }
    alignas(64) long long lows[8];
    alignas(64) long long highs[8];
    _mm512_store_si512(lows, earliest);
    _mm512_store_si512(highs, latest);
    PacketSummary summary;
    summary.pixels = pixels;
    summary.tdcs = tdcs;
    summary.globals = globals;
    for (unsigned k = 0; k < 8; ++k) {
        summary.earliest = lows[k] < summary.earliest ? lows[k] : summary.earliest;
        summary.latest = highs[k] > summary.latest ? highs[k] : summary.latest;
    }
    return summary;
}

#endif

using Summarize = PacketSummary (*)(const std::uint64_t*, std::size_t, std::uint64_t, std::uint64_t) noexcept;

/// Of the versions of one function for AVX-512, AVX2 and any processor, the widest this processor runs.
template <typename Function>
[[nodiscard]] Function widest_supported(Function avx512, Function avx2, Function portable) noexcept {
#if defined(__x86_64__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f")) {
        return avx512;
    }
    if (__builtin_cpu_supports("avx2")) {
        return avx2;
    }
#endif
    return portable;
}

/// The widest summary this processor runs, chosen once.
[[nodiscard]] inline Summarize chosen_summarize() noexcept {
    static const Summarize chosen = widest_supported(&summarize_avx512, &summarize_avx2, &summarize_portable);
    return chosen;
}

} // namespace detail

/// The summary of `count` words, pixel times placed as `lowest + ((raw - lowest) & mask)` (see `PixelPlacement`).
[[nodiscard]] inline PacketSummary
summarize_packets(const std::uint64_t* words, std::size_t count, std::uint64_t lowest, std::uint64_t mask) noexcept {
    return detail::chosen_summarize()(words, count, lowest, mask);
}

} // namespace kavot_tpx3spidr

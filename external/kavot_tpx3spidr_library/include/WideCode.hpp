#pragma once

// Code paths for processors with 512-bit vectors (AVX-512 F, VL, DQ and BW), chosen at run time: the program is
// built for the baseline x86-64 instruction set and runs everywhere; the wide paths give the same results as the
// portable ones, which remain the reference and run where the vectors are missing.
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define KAVOT_WIDE_CODE 1
/// The instruction sets that functions with `[[gnu::target(KAVOT_WIDE_TARGET)]]` may use.
#define KAVOT_WIDE_TARGET "avx512f,avx512vl,avx512dq,avx512bw"
#endif

namespace kavot_tpx3spidr {

/// Whether this processor and its operating system run the 512-bit code paths.
[[nodiscard]] inline bool wideCode_supported() noexcept {
#ifdef KAVOT_WIDE_CODE
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
           __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512bw");
#else
    return false;
#endif
}

} // namespace kavot_tpx3spidr

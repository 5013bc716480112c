#pragma once

#include <cstdint>

#include "LinkWindow.hpp"
#include "PixelActivation.hpp"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define KAVOT_LINK_LANES 1
#endif

namespace kavot_tpx3spidr::fullChainSearch {

#ifdef KAVOT_LINK_LANES

/// Whether this processor has the vectors `LinkLanes` is written for (AVX2).
[[nodiscard]] inline bool linkLanes_supported() noexcept {
    return __builtin_cpu_supports("avx2") != 0;
}

/// The latest sixteen members of a cluster in the 32-bit lanes of AVX2 registers, newest first, and the link
/// test of a candidate against all of them at once: a compare and a multiply-add instead of a member loop whose
/// exit the processor cannot predict. It stands in for `LinkWindow` while the members that can still link are
/// at most sixteen, all with non-negative coordinates, and tells when they are not (the caller then hands
/// them over to the window and goes on there). Usable for 0 <= dTime <= 2^26 ticks and d <= 32766.
///
/// Why the answers are those of the window, for a candidate j at time t_j and every member k in the lanes:
///  - Time: a lane holds the low 32 bits of t_k + dTime + 1, and t_j minus it, in 32-bit arithmetic, is negative
///    exactly when t_k >= t_j - dTime. Exact while the true difference t_j - t_k - dTime - 1 lies within 32
///    bits: it is at least -dTime - 1 (k precedes j in the scan), and at most 16 dTime, since a member leaves
///    the lanes at the sixteenth link after it and each link moves the horizon, which bounds t_j, by at most
///    dTime. Empty lanes hold a member that left just before the seed (t_seed - 1), gone by the same bound.
///    The window tests only t_k >= t_j - dTime too: members precede the candidate.
///  - Space: a lane holds the pixel as two 16-bit halves. The member's coordinate minus the candidate's,
///    saturated to 16 bits, is exact when it fits and otherwise 32767, beyond d; it cannot saturate below:
///    members' coordinates are non-negative. The sum of the two squares (at most 2 * 32767^2 < 2^31) is exact,
///    and it minus (d^2 + 1) is negative exactly when the member lies within d.
///  - A member leaves the lanes only when it cannot link any later candidate (more than dTime before this one),
///    so the lanes hold every member that can.
class LinkLanes {
public:
    static constexpr long dTimeLimit_ticks = 1L << 26;
    static constexpr std::int64_t distanceLimit_px = 32766;

    [[nodiscard]] static bool usable(long dT, std::int64_t d) noexcept {
        return dT >= 0 && dT <= dTimeLimit_ticks && d >= 0 && d <= distanceLimit_px;
    }

    [[gnu::target("avx2")]] LinkLanes(long dT_, std::int64_t d) noexcept
        : dT(dT_), seedStep(_mm256_setr_epi32(low32(dT_ + 2), 0, 0, 0, 0, 0, 0, 0)),
          deadlineStep(_mm256_set1_epi32(low32(dT_ + 1))), distanceBound(_mm256_set1_epi32(low32(d * d + 1))),
          rotation(_mm256_setr_epi32(7, 0, 1, 2, 3, 4, 5, 6)), signs(_mm256_set1_epi32(signBit)),
          lastLaneSign(_mm256_setr_epi32(0, 0, 0, 0, 0, 0, 0, signBit)), halfSigns(_mm256_set1_epi32(halfSignBits)) {}

    /// Holds the seed alone. False when its pixel does not fit the lanes.
    [[gnu::target("avx2"), gnu::always_inline]] bool start(const PixelActivation& seed) noexcept {
        const __m256i gone = _mm256_set1_epi32(low32(seed.get_toa().get_value() - 1));
        timesA = _mm256_add_epi32(gone, seedStep);
        timesB = gone;
        pixel = _mm256_set1_epi32(packed(seed));
        pixelsA = pixel;
        pixelsB = pixel;
        return _mm256_testz_si256(pixel, halfSigns) != 0;
    }

    /// Whether a member lies within dTime before and the distance d of the candidate.
    [[gnu::target("avx2"), gnu::always_inline]] bool links(const PixelActivation& candidate) noexcept {
        time = _mm256_set1_epi32(low32(candidate.get_toa().get_value()));
        pixel = _mm256_set1_epi32(packed(candidate));
        const __m256i ageA = _mm256_sub_epi32(time, timesA);
        ageB = _mm256_sub_epi32(time, timesB);
        const __m256i offsetA = _mm256_subs_epi16(pixelsA, pixel);
        const __m256i offsetB = _mm256_subs_epi16(pixelsB, pixel);
        const __m256i beyondA = _mm256_sub_epi32(_mm256_madd_epi16(offsetA, offsetA), distanceBound);
        const __m256i beyondB = _mm256_sub_epi32(_mm256_madd_epi16(offsetB, offsetB), distanceBound);
        const __m256i near = _mm256_or_si256(_mm256_and_si256(ageA, beyondA), _mm256_and_si256(ageB, beyondB));
        return _mm256_testz_si256(near, signs) == 0;
    }

    /// Adds the candidate last tested as the newest member. False, with the lanes as they were, when the oldest
    /// member could still link a later candidate or the candidate's pixel does not fit.
    [[gnu::target("avx2"), gnu::always_inline]] bool add() noexcept {
        if ((_mm256_testz_si256(ageB, lastLaneSign) & _mm256_testz_si256(pixel, halfSigns)) == 0) {
            return false;
        }
        const __m256i timesUp = _mm256_permutevar8x32_epi32(timesA, rotation);
        timesB = _mm256_blend_epi32(_mm256_permutevar8x32_epi32(timesB, rotation), timesUp, 1);
        timesA = _mm256_blend_epi32(timesUp, _mm256_add_epi32(time, deadlineStep), 1);
        const __m256i pixelsUp = _mm256_permutevar8x32_epi32(pixelsA, rotation);
        pixelsB = _mm256_blend_epi32(_mm256_permutevar8x32_epi32(pixelsB, rotation), pixelsUp, 1);
        pixelsA = _mm256_blend_epi32(pixelsUp, pixel, 1);
        return true;
    }

    /// Empties `window` and gives it the members that can link a candidate at `now` or later, oldest first.
    [[gnu::target("avx2"), gnu::always_inline]] void handOver(LinkWindow& window, long now) const {
        alignas(32) std::int32_t times[16];
        alignas(32) std::int32_t pixels[16];
        _mm256_store_si256(reinterpret_cast<__m256i*>(times), timesA);
        _mm256_store_si256(reinterpret_cast<__m256i*>(times + 8), timesB);
        _mm256_store_si256(reinterpret_cast<__m256i*>(pixels), pixelsA);
        _mm256_store_si256(reinterpret_cast<__m256i*>(pixels + 8), pixelsB);
        handOver_members(times, pixels, now, dT, window);
    }

private:
    static constexpr int signBit = static_cast<int>(0x80000000U);
    static constexpr int halfSignBits = static_cast<int>(0x80008000U);

    /// The low 32 bits, as the lanes hold them.
    [[nodiscard]] static int low32(long value) noexcept { return static_cast<int>(static_cast<std::uint32_t>(value)); }
    [[nodiscard]] static int packed(const PixelActivation& activation) noexcept {
        return static_cast<int>(static_cast<std::uint32_t>(static_cast<std::uint16_t>(activation.get_x_px())) |
                                static_cast<std::uint32_t>(static_cast<std::uint16_t>(activation.get_y_px())) << 16);
    }

    /// Static: while the lanes' address stays within the search, the compiler keeps them out of memory more often.
    [[gnu::noinline]] static void
    handOver_members(const std::int32_t* times, const std::int32_t* pixels, long now, long dT, LinkWindow& window) {
        window.clear();
        for (int k = 15; k >= 0; --k) {
            // t_k + dTime + 1 - now, exact in 32 bits (see above); positive for a member that can still link.
            const auto ahead =
                static_cast<std::int32_t>(static_cast<std::uint32_t>(times[k]) - static_cast<std::uint32_t>(now));
            if (ahead > 0) {
                const auto x = static_cast<short>(pixels[k] & 0xFFFF);
                const auto y = static_cast<short>(static_cast<std::uint32_t>(pixels[k]) >> 16);
                window.add_linked(PixelActivation(x, y, Time(now + ahead - dT - 1), 0), now - dT);
            }
        }
    }

    long dT;
    __m256i seedStep;
    __m256i deadlineStep;
    __m256i distanceBound;
    __m256i rotation;
    __m256i signs;
    __m256i lastLaneSign;
    __m256i halfSigns;
    // Lanes 0 to 7 of the members in A, 8 to 15 in B: the low 32 bits of t + dTime + 1, and the pixel.
    __m256i timesA{};
    __m256i timesB{};
    __m256i pixelsA{};
    __m256i pixelsB{};
    // What the last test computed, for `add`.
    __m256i time{};
    __m256i pixel{};
    __m256i ageB{};
};

#endif

} // namespace kavot_tpx3spidr::fullChainSearch

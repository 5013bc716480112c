#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace kavot {

/// Stores the low `width` bytes of `value` at `destination`, least significant byte first.
template <std::size_t width>
constexpr void store_littleEndian(char* destination, std::uint64_t value) noexcept {
    static_assert(width >= 1 && width <= 8);
    // On a little-endian machine the low bytes of the value lie first in memory as they are: one store instead of
    // a shift per byte (the photon file's records went byte by byte, several percent of a run's instructions).
    if constexpr (std::endian::native == std::endian::little) {
        if (!std::is_constant_evaluated()) {
            std::memcpy(destination, &value, width);
            return;
        }
    }
    for (std::size_t b = 0; b < width; ++b) {
        destination[b] = static_cast<char>(static_cast<unsigned char>(value >> (8 * b)));
    }
}

/// Loads `width` bytes stored least significant byte first; the result is not sign-extended.
template <std::size_t width>
constexpr std::uint64_t load_littleEndian(const char* source) noexcept {
    static_assert(width >= 1 && width <= 8);
    std::uint64_t value = 0;
    if constexpr (std::endian::native == std::endian::little) {
        if (!std::is_constant_evaluated()) {
            std::memcpy(&value, source, width);
            return value;
        }
    }
    for (std::size_t b = 0; b < width; ++b) {
        value |= static_cast<std::uint64_t>(static_cast<unsigned char>(source[b])) << (8 * b);
    }
    return value;
}

/// Sign-extends the low `width` bytes of `value`.
template <std::size_t width>
constexpr std::int64_t signExtend(std::uint64_t value) noexcept {
    if constexpr (width == 8) {
        return static_cast<std::int64_t>(value);
    } else {
        constexpr std::uint64_t signBit = std::uint64_t{1} << (8 * width - 1);
        return static_cast<std::int64_t>((value ^ signBit) - signBit);
    }
}

} // namespace kavot

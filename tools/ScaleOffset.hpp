#pragma once

// A chunk of integers as HDF5's scale-offset filter stores it, made without the filter: the filter packs values
// bit by bit and costs about 170 instructions a value, which made writing the integer columns of a conversion
// slower than clustering them. This packs 64 bits at a time; HDF5 reads the chunk with its own filter.
//
// The stored chunk of a dataset whose fill value is undefined (the filter then needs no room for it):
//   bytes 0-3    minbits, little-endian: the bits each value takes
//   byte  4      8, the size of the minimum
//   bytes 5-12   the minimum, little-endian (two's complement for signed types); 0 for a chunk stored as it is
//   bytes 13-20  zero
//   then         every value minus the minimum in its low `minbits` bits, most significant bit first, the values
//                one after the other in one stream of bits filled from the top bit of each byte; one byte more
//                than the bits need. With minbits equal to the type's width, the values themselves as they lie
//                in memory (little-endian), without the extra byte.
// minbits is the number of bits of (maximum - minimum + 1), rounded up to a power of two: 0 when all values
// are equal; the type's width when the span leaves fewer than three codes free.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

namespace kavot_tool::scaleoffset {

constexpr std::size_t header_bytes = 21;

/// ceil(log2(n)) for n >= 1, as the filter computes it.
[[nodiscard]] constexpr unsigned bitsFor(std::uint64_t n) noexcept {
    unsigned bits = 0;
    while (bits < 64 && (std::uint64_t{1} << bits) < n) {
        ++bits;
    }
    return bits;
}

/// The stored chunk of `count` values (a whole chunk: the caller pads a last, shorter one) into `out`, which is
/// resized to it (a buffer reused chunk after chunk is neither allocated nor cleared again).
template <typename T>
void encode(const T* values, std::size_t count, std::vector<unsigned char>& out) {
    static_assert(std::is_integral_v<T>, "scale-offset without loss is for integers");
    using U = std::make_unsigned_t<T>;
    constexpr unsigned width = sizeof(T) * 8;
    // Four running extremes: the loop does not wait on the comparison of the value before.
    T low[4];
    T high[4];
    std::fill_n(low, 4, count > 0 ? values[0] : T{0});
    std::fill_n(high, 4, low[0]);
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4) {
        for (unsigned lane = 0; lane < 4; ++lane) {
            low[lane] = std::min(low[lane], values[i + lane]);
            high[lane] = std::max(high[lane], values[i + lane]);
        }
    }
    for (; i < count; ++i) {
        low[0] = std::min(low[0], values[i]);
        high[0] = std::max(high[0], values[i]);
    }
    const T lowest = *std::min_element(low, low + 4);
    const T highest = *std::max_element(high, high + 4);
    const auto span = static_cast<U>(static_cast<U>(highest) - static_cast<U>(lowest));
    const unsigned minbits = span > static_cast<U>(~U{0} - 2) ? width : bitsFor(static_cast<std::uint64_t>(span) + 1);

    // The whole stored chunk at once: the header, then the values as they are or packed (one byte more).
    const std::size_t body = minbits == width ? count * sizeof(T) : count * sizeof(T) * minbits / width + 1;
    out.resize(header_bytes + body);
    unsigned char* const header = out.data();
    std::fill_n(header, header_bytes, 0);
    for (unsigned b = 0; b < 4; ++b) {
        header[b] = static_cast<unsigned char>(minbits >> (8 * b));
    }
    header[4] = sizeof(std::uint64_t);
    // A chunk stored as it is carries a minimum of 0: the filter gives up on packing before it keeps the minimum.
    const auto minimum = minbits == width ? 0 : static_cast<std::uint64_t>(static_cast<std::int64_t>(lowest));
    for (unsigned b = 0; b < 8; ++b) {
        header[5 + b] = static_cast<unsigned char>(minimum >> (8 * b));
    }
    unsigned char* at = header + header_bytes;
    if (minbits == width) {
        std::memcpy(at, values, count * sizeof(T));
        return;
    }
    unsigned char* const end = at + body;
    // The stream is filled 64 bits at a time: `pending` holds `held` bits at its top (fewer than 64), a value
    // goes below them, and a full word is stored most significant byte first. minbits is at most 63 here.
    std::uint64_t pending = 0;
    unsigned held = 0;
    for (i = 0; i < count && minbits > 0; ++i) {
        const auto offset =
            static_cast<std::uint64_t>(static_cast<U>(static_cast<U>(values[i]) - static_cast<U>(lowest)));
        if (held + minbits < 64) {
            pending |= offset << (64 - held - minbits);
            held += minbits;
        } else {
            const unsigned over = held + minbits - 64; // bits of the value that go to the next word
            pending |= offset >> over;
            const std::uint64_t word = __builtin_bswap64(pending);
            std::memcpy(at, &word, sizeof word);
            at += sizeof word;
            pending = over == 0 ? 0 : offset << (64 - over);
            held = over;
        }
    }
    for (; held > 0; held = held > 8 ? held - 8 : 0, pending <<= 8) {
        *at++ = static_cast<unsigned char>(pending >> 56);
    }
    std::fill(at, end, 0);
}

} // namespace kavot_tool::scaleoffset

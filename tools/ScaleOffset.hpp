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

/// The stored chunk of `count` values (a whole chunk: the caller pads a last, shorter one).
template <typename T>
[[nodiscard]] std::vector<unsigned char> encode(const T* values, std::size_t count) {
    static_assert(std::is_integral_v<T>, "scale-offset without loss is for integers");
    using U = std::make_unsigned_t<T>;
    constexpr unsigned width = sizeof(T) * 8;
    T lowest = count > 0 ? values[0] : T{0};
    T highest = lowest;
    for (std::size_t i = 0; i < count; ++i) {
        lowest = std::min(lowest, values[i]);
        highest = std::max(highest, values[i]);
    }
    const auto span = static_cast<U>(static_cast<U>(highest) - static_cast<U>(lowest));
    const unsigned minbits = span > static_cast<U>(~U{0} - 2) ? width : bitsFor(static_cast<std::uint64_t>(span) + 1);

    // The whole stored chunk at once: the header, then the values as they are or packed (one byte more).
    const std::size_t body = minbits == width ? count * sizeof(T) : count * sizeof(T) * minbits / width + 1;
    std::vector<unsigned char> out(header_bytes + body, 0);
    for (unsigned i = 0; i < 4; ++i) {
        out[i] = static_cast<unsigned char>(minbits >> (8 * i));
    }
    out[4] = sizeof(std::uint64_t);
    // A chunk stored as it is carries a minimum of 0: the filter gives up on packing before it keeps the minimum.
    const auto minimum = minbits == width ? 0 : static_cast<std::uint64_t>(static_cast<std::int64_t>(lowest));
    for (unsigned i = 0; i < 8; ++i) {
        out[5 + i] = static_cast<unsigned char>(minimum >> (8 * i));
    }
    if (minbits == width) {
        std::memcpy(out.data() + header_bytes, values, count * sizeof(T));
        return out;
    }
    unsigned char* at = out.data() + header_bytes;
    // Bits wait in `pending` (the newest at the bottom) until a whole byte is there; fewer than 8 wait between
    // values, so a value of up to 56 bits always fits beside them, and a wider one goes in two pieces.
    std::uint64_t pending = 0;
    unsigned held = 0;
    const auto put = [&](std::uint64_t bits, unsigned n) {
        pending = (pending << n) | bits;
        held += n;
        while (held >= 8) {
            held -= 8;
            *at++ = static_cast<unsigned char>(pending >> held);
        }
    };
    const std::uint64_t mask = minbits == 0 ? 0 : ~std::uint64_t{0} >> (64 - minbits);
    for (std::size_t i = 0; i < count && minbits > 0; ++i) {
        const std::uint64_t offset =
            static_cast<std::uint64_t>(static_cast<U>(values[i]) - static_cast<U>(lowest)) & mask;
        if (minbits > 56) {
            put(offset >> 32, minbits - 32);
            put(offset & 0xFFFFFFFF, 32);
        } else {
            put(offset, minbits);
        }
    }
    if (held > 0) {
        *at = static_cast<unsigned char>(pending << (8 - held));
    }
    return out;
}

} // namespace kavot_tool::scaleoffset

#pragma once

#include <array>
#include <cmath>
#include <cstdint>

namespace tpx3gen {

/// xoshiro256** seeded through splitmix64: fast, and the same sequence on every machine.
class Random {
public:
    explicit Random(std::uint64_t seed) {
        for (auto& word : state) {
            seed += 0x9E3779B97F4A7C15ULL;
            std::uint64_t z = seed;
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
            word = z ^ (z >> 31);
        }
    }
    std::uint64_t next() {
        const std::uint64_t result = rotl(state[1] * 5, 7) * 9;
        const std::uint64_t t = state[1] << 17;
        state[2] ^= state[0];
        state[3] ^= state[1];
        state[1] ^= state[2];
        state[0] ^= state[3];
        state[2] ^= t;
        state[3] = rotl(state[3], 45);
        return result;
    }
    /// Uniform in [0, 1).
    double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
    /// Uniform in [0, n).
    std::uint64_t below(std::uint64_t n) { return static_cast<std::uint64_t>(uniform() * static_cast<double>(n)); }
    double exponential(double mean) { return -mean * std::log1p(-uniform()); }

private:
    static std::uint64_t rotl(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    std::array<std::uint64_t, 4> state{};
};

} // namespace tpx3gen

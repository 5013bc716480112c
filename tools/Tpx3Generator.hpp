#pragma once

// Synthetic .tpx3 streams like an intensified photon-counting camera's: photon clusters of neighbouring hits
// with a ToT profile and a few ns of time spread, uncorrelated noise hits, TDC1 triggers, global time packets
// at intervals, packets the decoder must skip, and chunks of varied size. Deterministic for a given seed.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "PhotonShape.hpp"
#include "Random.hpp"
#include "Tpx3Words.hpp"

namespace tpx3gen {

/// What the hits are: a camera's photon clusters and noise, or one of two shapes that chain without end.
enum class Pattern {
    camera,
    chain, ///< one pixel firing every `chainInterval_ticks`
    spot,  ///< a 3 x 2 pixel spot firing in turn (along the first row, back along the second), one hit every
           ///< `chainInterval_ticks`: each hit lies next to the one before
};

struct Settings {
    Pattern pattern = Pattern::camera;
    std::int64_t chainInterval_ticks = 60;
    std::uint64_t hits = 1000000;
    double hitRate_perSecond = 1e7;
    std::uint64_t seed = 1;
    double meanClusterSize = 6.0; ///< mean hits per photon (1 to 20)
    double noiseFraction = 0.05;  ///< share of hits that belong to no photon
    double disorder_seconds = 0;  ///< each hit is read out up to this much late: mild out-of-order arrival
    bool reverse = false;         ///< write the hits in reverse time order (a worst case for ordering)
    double tdcRate_perSecond = 1000;
    double globalTimeInterval_seconds = 0.01;
    double startTime_seconds = 1.0;  ///< global time of the first timestamp
    unsigned maxChunkPackets = 1000; ///< chunks hold 1 to this many packets
};

/// One generated hit, as the decoder should see it (time on the extended scale, ticks of 1.5625 ns).
struct Hit {
    std::int64_t toa_ticks;
    std::uint16_t x;
    std::uint16_t y;
    std::uint16_t tot;
};

/// The hits of the acquisition in ascending time (ties in generation order), relative times from 0.
/// The hits of a chain or a spot: every `chainInterval_ticks`, with a ToT that varies a little.
inline std::vector<Hit> generate_chain(const Settings& settings, Random& random) {
    std::vector<Hit> hits;
    hits.reserve(settings.hits);
    for (std::uint64_t k = 0; k < settings.hits; ++k) {
        const auto place = settings.pattern == Pattern::spot ? k % 6 : 0;
        const auto x = place < 3 ? place : 5 - place;
        hits.push_back({static_cast<std::int64_t>(k) * settings.chainInterval_ticks,
                        static_cast<std::uint16_t>(100 + x), static_cast<std::uint16_t>(100 + place / 3),
                        static_cast<std::uint16_t>(20 + random.below(40))});
    }
    return hits;
}

inline std::vector<Hit> generate_hits(const Settings& settings, Random& random) {
    if (settings.pattern != Pattern::camera) {
        return generate_chain(settings, random);
    }
    if (settings.hitRate_perSecond <= 0 || settings.meanClusterSize < 1 || settings.meanClusterSize > 20 ||
        settings.noiseFraction < 0 || settings.noiseFraction > 1) {
        throw std::invalid_argument("generator settings out of range");
    }
    std::vector<Hit> hits;
    hits.reserve(settings.hits + 32);
    const double photonHitRate = settings.hitRate_perSecond * (1 - settings.noiseFraction);
    const double photonInterval_ticks = settings.meanClusterSize / photonHitRate / tick_seconds;
    const double noiseInterval_ticks =
        settings.noiseFraction > 0 ? 1 / (settings.hitRate_perSecond * settings.noiseFraction) / tick_seconds : 0;
    double nextPhoton = photonHitRate > 0 ? random.exponential(photonInterval_ticks) : INFINITY;
    double nextNoise = settings.noiseFraction > 0 ? random.exponential(noiseInterval_ticks) : INFINITY;
    while (hits.size() < settings.hits) {
        if (nextNoise < nextPhoton) {
            hits.push_back({static_cast<std::int64_t>(nextNoise), static_cast<std::uint16_t>(random.below(256)),
                            static_cast<std::uint16_t>(random.below(256)),
                            static_cast<std::uint16_t>(1 + random.below(30))});
            nextNoise += random.exponential(noiseInterval_ticks);
            continue;
        }
        const auto t0 = static_cast<std::int64_t>(nextPhoton);
        nextPhoton += random.exponential(photonInterval_ticks);
        const std::size_t n = PhotonShape::draw_hitCount(settings.meanClusterSize, random);
        const int cx = 2 + static_cast<int>(random.below(252));
        const int cy = 2 + static_cast<int>(random.below(252));
        const double peak = PhotonShape::draw_peak(random);
        for (std::size_t h = 0; h < n && hits.size() < settings.hits; ++h) {
            const auto& offset = PhotonShape::offsets()[h];
            const auto [tot, delay] =
                PhotonShape::draw_hit(offset[0] * offset[0] + offset[1] * offset[1], peak, random);
            hits.push_back({t0 + delay, static_cast<std::uint16_t>(cx + offset[0]),
                            static_cast<std::uint16_t>(cy + offset[1]), tot});
        }
    }
    std::stable_sort(hits.begin(), hits.end(), [](const Hit& a, const Hit& b) { return a.toa_ticks < b.toa_ticks; });
    return hits;
}

/// The whole file as little-endian words, together with the hits it holds (in ascending time).
struct Generated {
    std::vector<std::uint64_t> words;
    std::vector<Hit> hits;
    std::int64_t reference_ticks; ///< the first global timestamp: hit times are relative to it
};

inline Generated generate(const Settings& settings) {
    Random random(settings.seed);
    Generated out;
    out.hits = generate_hits(settings, random);
    const auto& hits = out.hits;

    // Readout order: by time, by time plus a random readout delay, or reversed.
    std::vector<std::uint32_t> order(hits.size());
    for (std::uint32_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    if (settings.reverse) {
        std::reverse(order.begin(), order.end());
    } else if (settings.disorder_seconds > 0) {
        const double maxDelay_ticks = settings.disorder_seconds / tick_seconds;
        std::vector<std::int64_t> readout(hits.size());
        for (std::size_t i = 0; i < hits.size(); ++i) {
            readout[i] = hits[i].toa_ticks + static_cast<std::int64_t>(random.uniform() * maxDelay_ticks);
        }
        std::stable_sort(order.begin(), order.end(),
                         [&](std::uint32_t a, std::uint32_t b) { return readout[a] < readout[b]; });
    }

    const std::uint64_t start25ns = static_cast<std::uint64_t>(settings.startTime_seconds / 25e-9);
    out.reference_ticks = static_cast<std::int64_t>(start25ns * 16);
    const std::int64_t end_ticks = hits.empty() ? 0 : hits.back().toa_ticks;
    const double tdcInterval_ticks = settings.tdcRate_perSecond > 0 ? 1 / settings.tdcRate_perSecond / tick_seconds : 0;
    const auto globalInterval_ticks =
        static_cast<std::int64_t>(std::max(settings.globalTimeInterval_seconds / tick_seconds, 16.0));

    std::vector<std::uint64_t> packets;
    packets.reserve(hits.size() + hits.size() / 64 + 64);
    packets.push_back(globalLowWord(start25ns));
    packets.push_back(globalHighWord(start25ns));
    std::int64_t nextGlobal = globalInterval_ticks;
    double nextTdc = tdcInterval_ticks > 0 ? random.exponential(tdcInterval_ticks) : INFINITY;
    std::uint64_t tdcCounter = 0;
    for (std::size_t k = 0; k < order.size(); ++k) {
        const Hit& hit = hits[order[k]];
        // Side packets follow the progress of the acquisition, in reverse mode by position.
        const std::int64_t now =
            settings.reverse ? static_cast<std::int64_t>(static_cast<double>(k) / static_cast<double>(order.size()) *
                                                         static_cast<double>(end_ticks))
                             : hit.toa_ticks;
        while (nextTdc <= static_cast<double>(now)) {
            packets.push_back(tdcWord(
                tdcCounter++, static_cast<std::uint64_t>(out.reference_ticks + static_cast<std::int64_t>(nextTdc)) &
                                  ((std::uint64_t{1} << 36) - 1)));
            nextTdc += random.exponential(tdcInterval_ticks);
        }
        while (nextGlobal <= now) {
            const std::uint64_t global25ns = static_cast<std::uint64_t>(out.reference_ticks + nextGlobal) / 16;
            packets.push_back(globalLowWord(global25ns));
            packets.push_back(globalHighWord(global25ns));
            nextGlobal += globalInterval_ticks;
        }
        if (random.below(2000) == 0) {
            packets.push_back((std::uint64_t{0x71} << 56) | (random.next() >> 8)); // SPIDR control: skipped
        }
        const auto raw34 =
            static_cast<std::uint64_t>(out.reference_ticks + hit.toa_ticks) & ((std::uint64_t{1} << 34) - 1);
        packets.push_back(pixelWord(hit.x, hit.y, raw34, hit.tot));
    }

    // Chunks of 1 to maxChunkPackets packets.
    const std::uint64_t maxChunk = std::clamp<std::uint64_t>(settings.maxChunkPackets, 1, 8191);
    out.words.reserve(packets.size() + packets.size() / 16 + 2);
    std::size_t p = 0;
    while (p < packets.size()) {
        const std::uint64_t n = std::min<std::uint64_t>(1 + random.below(maxChunk), packets.size() - p);
        out.words.push_back(0x33585054ULL | (n * 8) << 48); // "TPX3", chip 0, mode 0, size in bytes
        out.words.insert(out.words.end(), packets.begin() + static_cast<std::ptrdiff_t>(p),
                         packets.begin() + static_cast<std::ptrdiff_t>(p + n));
        p += n;
    }
    return out;
}

} // namespace tpx3gen

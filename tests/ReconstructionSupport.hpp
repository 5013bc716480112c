#pragma once

// What the clustering tests share: hits written as plain fields, a data set of them, and the settings by the
// program's option letters.

#include <cstdint>
#include <utility>
#include <vector>

#include "Data_Tpx3Spidr.hpp"
#include "TestSupport.hpp"

namespace reconstructionsupport {

using namespace kavot_tpx3spidr;
using testsupport::u64;
using Settings = ReconstructionParameters_PhotonEvents;
using Photons = std::vector<PhotonEvent_type>;

struct Hit {
    short x, y;
    long toa;
    std::uint16_t tot;
};

inline Data_Tpx3Spidr dataOf(const std::vector<Hit>& hits, std::vector<Time> triggers = {}) {
    std::vector<PixelActivation> activations;
    for (const auto& h : hits) {
        activations.emplace_back(h.x, h.y, Time(h.toa), h.tot);
    }
    return Data_Tpx3Spidr(std::move(activations), std::move(triggers));
}

/// Clustering settings by the program's option letters, dTime (t) in ticks.
inline Settings settings(double s = 2, long t = 64, u64 k = 1, u64 K = 200, double m = 1, double M = 5000) {
    return {s, Time(t), k, K, m, M, false};
}

} // namespace reconstructionsupport

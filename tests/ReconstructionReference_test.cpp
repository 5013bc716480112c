// The three clustering algorithms against their step-by-step references on random data read as a restless
// stream: hits that touch, bursts, pixels outside the detector and on a canvas of several chips.

#include <optional>

#include "ReconstructionSupport.hpp"
#include "Reconstruction_switch.hpp"

using namespace reconstructionsupport;

namespace {

std::vector<Hit> randomHits(std::mt19937_64& random, std::size_t n, long spread, std::uint64_t side = 24) {
    std::vector<Hit> hits;
    for (std::size_t i = 0; i < n; ++i) {
        hits.push_back({static_cast<short>(random() % side), static_cast<short>(random() % side),
                        static_cast<long>(random() % static_cast<std::uint64_t>(spread)),
                        static_cast<std::uint16_t>(random() % 1024)});
    }
    return hits;
}

/// The hits moved onto a canvas of several chips: half of them beside the first chip, the other half far out
/// (4000 pixels), at random times, so that the clustering's per-pixel tables grow while they are in use.
void moveOntoCanvas(std::vector<Hit>& hits) {
    for (std::size_t k = 0; k < hits.size(); ++k) {
        hits[k].x = static_cast<short>(hits[k].x + (k % 2 == 0 ? 258 : 4000));
        hits[k].y = static_cast<short>(hits[k].y + 258);
    }
}

bool accepted(const PixelActivationChain& chain, double weight, const Settings& p) {
    return p.nPxMin <= chain.nPx && chain.nPx <= p.nPxMax && p.weightMin <= weight && weight <= p.weightMax;
}

/// The full-chain search step by step as it is defined: optional cluster numbers, the link search walking its
/// window from k0 up to the first position later than t_j + dTime.
Photons referenceFullChain(const Data_Tpx3Spidr& data, const Settings& p) {
    const std::size_t N = data.size();
    Photons photons;
    std::vector<std::optional<std::uint64_t>> clusterOfPixel(N);
    const short d = spaceLimit_px(p.dSpace);
    const long dT = p.dTime.get_value();
    for (std::size_t i = 0; i < N; ++i) {
        if (clusterOfPixel[i]) {
            continue;
        }
        const std::uint64_t c = photons.size();
        PixelActivationChain chain(data[i]);
        clusterOfPixel[i] = c;
        long horizon = data[i].get_toa().get_value() + dT;
        for (std::size_t j = i + 1; j < N && data[j].get_toa().get_value() <= horizon; ++j) {
            const long tj = data[j].get_toa().get_value();
            if (clusterOfPixel[j]) {
                continue;
            }
            std::size_t k = j - 1;
            while (k > i && data[k - 1].get_toa().get_value() >= tj - dT) {
                --k;
            }
            for (; k < N && data[k].get_toa().get_value() <= tj + dT; ++k) {
                if (clusterOfPixel[k] == c && PixelActivation::distSpace_smallerEqualThan(data[k], data[j], d)) {
                    chain.add_pixelActivation_notFirst(data[j]);
                    clusterOfPixel[j] = c;
                    horizon = std::max(horizon, tj + dT);
                    break;
                }
            }
        }
        if (accepted(chain, static_cast<double>(chain.weightSum), p)) {
            photons.push_back(photonEvent_fromChain(chain));
        }
    }
    return photons;
}

/// The forward chain as it is defined: all chains first, then the photons in the order the chains were opened.
Photons referenceForwardChain(const Data_Tpx3Spidr& data, const Settings& p) {
    std::vector<PixelActivationChain> chains;
    std::vector<std::size_t> chainOfPixel(data.size());
    for (std::size_t i = 0; i < data.size(); ++i) {
        chainOfPixel[i] = chains.size();
        for (std::size_t k = i; k-- > 0;) {
            if (data[i].get_toa().get_value() - data[k].get_toa().get_value() > p.dTime.get_value()) {
                break;
            }
            if (PixelActivation::distSpace_smallerEqualThan(data[i], data[k], spaceLimit_px(p.dSpace))) {
                chainOfPixel[i] = chainOfPixel[k];
                break;
            }
        }
        if (chainOfPixel[i] == chains.size()) {
            chains.emplace_back(data[i]);
        } else {
            chains[chainOfPixel[i]].add_pixelActivation_notFirst(data[i]);
        }
    }
    Photons photons;
    for (const auto& chain : chains) {
        if (accepted(chain, static_cast<double>(chain.weightSum), p)) {
            photons.push_back(photonEvent_fromChain(chain));
        }
    }
    return photons;
}

/// checkNextOnly as it is defined: runs of positions, each linked to the one before it.
Photons referenceCheckNextOnly(const Data_Tpx3Spidr& data, const Settings& p) {
    Photons photons;
    for (std::size_t s = 0; s < data.size();) {
        PixelActivationChain chain(data[s]);
        std::size_t j = s + 1;
        while (j < data.size() && std::abs(data[j].get_x_px() - data[j - 1].get_x_px()) < p.dSpace &&
               std::abs(data[j].get_y_px() - data[j - 1].get_y_px()) < p.dSpace &&
               data[j].get_toa().get_value() - data[j - 1].get_toa().get_value() < p.dTime.get_value()) {
            chain.add_pixelActivation_notFirst(data[j++]);
        }
        if (accepted(chain, static_cast<double>(chain.weightSum / chain.nPx), p)) {
            photons.push_back(photonEvent_fromChain(chain));
        }
        s = j;
    }
    return photons;
}

/// A data set as a stream that moves what it holds on every call of `has` past them, also when nothing is left,
/// and spoils the old storage: an algorithm that keeps a view across such a call reads wrong activations.
class RestlessSequence {
public:
    RestlessSequence(const Data_Tpx3Spidr& data_, std::uint64_t seed) : data(data_), random(seed) {}

    bool has(std::size_t position) {
        if (position < end) {
            return true;
        }
        end = std::min(data.size(), position + 1 + random() % 40);
        std::vector<PixelActivation> moved;
        for (std::size_t k = keepFrom; k < end; ++k) {
            moved.push_back(data[k]);
        }
        std::fill(held.begin(), held.end(), PixelActivation(-999, -999, Time(-1), 0));
        held.swap(moved);
        heldFrom = keepFrom;
        return position < end;
    }
    const PixelActivation& operator[](std::size_t position) const { return held[position - heldFrom]; }
    void discardBefore(std::size_t position) { keepFrom = std::max(keepFrom, position); }
    [[nodiscard]] std::size_t readableEnd() const { return end; }

private:
    const Data_Tpx3Spidr& data;
    std::mt19937_64 random;
    std::vector<PixelActivation> held;
    std::size_t heldFrom = 0;
    std::size_t keepFrom = 0;
    std::size_t end = 0;
};

/// A data set as a stream that keeps count of the most positions it had to hold at once: from the last discard
/// point up to the end it was asked for.
class HoldingSequence {
public:
    explicit HoldingSequence(const Data_Tpx3Spidr& data_) : data(data_) {}
    bool has(std::size_t position) {
        end = std::max(end, std::min(data.size(), position + 1));
        held = std::max(held, end - keepFrom);
        return position < end;
    }
    const PixelActivation& operator[](std::size_t position) const { return data[position]; }
    void discardBefore(std::size_t position) { keepFrom = std::max(keepFrom, position); }
    [[nodiscard]] std::size_t readableEnd() const { return end; }
    std::size_t held = 0;

private:
    const Data_Tpx3Spidr& data;
    std::size_t keepFrom = 0;
    std::size_t end = 0;
};

/// The photons of `algorithm` over the data set as a restless stream.
Photons restless(Algorithm algorithm, const Data_Tpx3Spidr& data, const Settings& p, int seed) {
    RestlessSequence sequence(data, static_cast<std::uint64_t>(seed));
    VectorPhotonSink sink;
    reconstruct_photonEvents_into(algorithm, sequence, p, sink);
    return sink.photons;
}

/// The full-chain search with every cluster's members in a `LinkWindow`, as it runs where the vector lanes
/// cannot (settings beyond their limits, processors without them).
Photons restlessInWindow(const Data_Tpx3Spidr& data, const Settings& p, int seed) {
    RestlessSequence sequence(data, static_cast<std::uint64_t>(seed));
    VectorPhotonSink sink;
    fullChainSearch::search_inWindow(sequence, p, sink);
    return sink.photons;
}

} // namespace

TEST(Reconstruction, CheckNextOnlyEqualsTheRunsOfLinkedNeighbours) {
    std::mt19937_64 random(29);
    for (int round = 0; round < 300; ++round) {
        const auto data =
            dataOf(randomHits(random, 20 + random() % 300, 20 + static_cast<long>(random() % 3000), 2 + random() % 8));
        const auto p = settings(static_cast<double>(random() % 30) / 10.0 - 0.5, static_cast<long>(random() % 80) - 4,
                                random() % 3, random() % 6, static_cast<double>(random() % 400), 600.0);
        ASSERT_EQ(restless(Algorithm::checkNextOnly, data, p, round), referenceCheckNextOnly(data, p))
            << "round " << round;
    }
}

TEST(Reconstruction, ForwardChainEqualsBuildingAllChainsFirst) {
    std::mt19937_64 random(23);
    for (int round = 0; round < 1000; ++round) {
        // Up to 20000 hits, beyond the tables' compaction; every third round a burst, more hits within dTime than
        // the disc of dSpace has pixels (looked up per pixel then), now and then pixels outside the detector or on a
        // canvas of several chips.
        const std::size_t n = round % 50 == 0 ? 20000 : 20 + random() % 300;
        const long spread =
            round % 3 == 0 ? 20 + static_cast<long>(random() % 100) : 20 + static_cast<long>(random() % (n * 20));
        auto hits = randomHits(random, n, spread, 2 + random() % 30);
        if (round % 7 == 0) {
            hits[random() % n].y = -2;
        } else if (round % 5 == 2) {
            moveOntoCanvas(hits);
        }
        const double dSpace = round % 11 == 0 ? 20.0 : static_cast<double>(random() % 30) / 10.0 - 0.5;
        const auto p = settings(dSpace, static_cast<long>(random() % 80) - 4, random() % 3, random() % 8, 1.0,
                                static_cast<double>(random() % 5000));
        const auto data = dataOf(hits);
        ASSERT_EQ(restless(Algorithm::forwardChain_pixelBuildup, data, p, round), referenceForwardChain(data, p))
            << "round " << round;
    }
}

TEST(Reconstruction, FullChainEqualsTheStepByStepSearch) {
    std::mt19937_64 random(17);
    for (int round = 0; round < 1500; ++round) {
        // Dense hits on a few pixels: clusters touch, rejected ones leave marks beside later candidates. Every third
        // round a burst, more hits in a window than are tested one by one, some with pixels outside the detector, some
        // on a canvas of several chips.
        const bool burst = round % 3 == 0;
        auto hits =
            randomHits(random, 20 + random() % (burst ? 600 : 200),
                       20 + static_cast<long>(random() % (burst ? 200 : 2000)), 2 + random() % (burst ? 40 : 8));
        if (round % 7 == 0) {
            for (auto& hit : hits) {
                hit.x = static_cast<short>(hit.x - 3);
            }
        } else if (round % 5 == 2) {
            moveOntoCanvas(hits);
        }
        // Now and then the times straddle 2^31 or 2^32 ticks, where the vector lanes' 32-bit times wrap.
        const long offsets[] = {0, (1L << 31) - 700, (1L << 32) - 700, (1L << 40) - 700};
        for (auto& hit : hits) {
            hit.toa += offsets[round % 8 < 4 ? round % 8 : 0];
        }
        const auto data = dataOf(hits);
        // Bounds that reject many clusters (their numbers are reused); dTime to -4; now and then a large distance.
        const double dSpace = round % 11 == 0 ? 20.0 : static_cast<double>(random() % 45) / 10.0 - 0.5;
        const auto p = settings(dSpace, static_cast<long>(random() % 80) - 4, random() % 3, random() % 5,
                                static_cast<double>(random() % 40), static_cast<double>(random() % 3000));
        const Photons expected = referenceFullChain(data, p);
        ASSERT_EQ(restless(Algorithm::fullChain_direct, data, p, round), expected) << "round " << round;
        ASSERT_EQ(restlessInWindow(data, p, round), expected) << "round " << round;
    }
}

TEST(Reconstruction, FullChainFollowsLongChainsAtEveryTimeDistance) {
    // A chain of hits `step` ticks apart on pixels 2 apart along a row, and then a hit beside its first one, `late`
    // ticks after it: it joins exactly when late <= dTime. The chain outlives the 32-bit range of the vector lanes'
    // times for the large dTimes (a wrong limit lets a member far back link), holds more members within dTime than
    // the lanes do for step 0, starts a tick before 2^32 and lies at the edge of the 16-bit pixel range or at
    // negative pixels that the lanes cannot hold.
    struct Case {
        long dT, step;
        int length;
        long late;
        short x0;
        std::size_t photons;
    };
    constexpr long limit = 1L << 26; // the largest dTime the lanes take
    const Case cases[] = {
        {0, 0, 20, 0, 0, 1},
        {64, 64, 20, 64, 0, 1},
        {64, 64, 20, 65, 0, 2},
        {64, 64, 20, 15 * 64, 0, 2},
        {64, 0, 40, 64, 0, 1}, // 40 members within dTime
        {64, 0, 40, 65, 0, 2},
        {64, 16, 40, 64, 0, 1}, // 5 members within dTime
        // The first member is the oldest of sixteen in the lanes when the late hit comes 15 dTime after it.
        {limit - 1, limit - 1, 20, 15 * (limit - 1), 0, 2},
        {limit, limit, 20, 15 * limit, 0, 2},
        {limit, limit, 20, limit, 0, 1},
        {limit + 1, limit + 1, 20, 15 * (limit + 1), 0, 2},
        {1L << 27, 1L << 27, 20, 15L << 27, 0, 2},
        {1L << 28, 1L << 28, 20, 15L << 28, 0, 2},
        {1L << 30, 1L << 30, 20, 15L << 30, 0, 2},
        {64, 64, 20, 64, 32727, 1},
        {64, 64, 20, 65, 32727, 2},
        {64, 0, 40, 64, -60, 1},
        {64, 0, 40, 65, -60, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "dTime " << c.dT << " step " << c.step << " late " << c.late << " x0 "
                                        << c.x0);
        const long t0 = (1L << 32) - 1;
        std::vector<Hit> hits;
        for (int k = 0; k < c.length; ++k) {
            hits.push_back({static_cast<short>(c.x0 + 2 * k), 7, t0 + k * c.step, 3});
        }
        hits.push_back({c.x0, 9, t0 + c.late, 3});
        const auto data = dataOf(hits);
        const auto p = settings(2.0, c.dT, 1);
        const Photons expected = referenceFullChain(data, p);
        EXPECT_EQ(expected.size(), c.photons);
        EXPECT_EQ(restless(Algorithm::fullChain_direct, data, p, 0), expected);
        EXPECT_EQ(restlessInWindow(data, p, 1), expected);
    }
}

TEST(Reconstruction, FullChainHoldsOnlyThePositionsWithinReach) {
    // Clusters that overlap the next on another pixel: no scan discards, what lies before each seed must go.
    std::vector<Hit> staggered;
    std::vector<Hit> oneChain;
    for (long k = 0; k < 1000; ++k) { // 4000 positions
        const auto x = static_cast<short>(10 + 20 * (k % 3));
        const long t = 100 * k;
        staggered.insert(staggered.end(), {{x, 10, t, 3}, {x, 11, t + 45, 3}, {x, 10, t + 90, 3}, {x, 11, t + 135, 3}});
        oneChain.insert(oneChain.end(),
                        {{10, 10, t, 3}, {11, 10, t + 25, 3}, {10, 10, t + 50, 3}, {11, 10, t + 75, 3}});
    }
    const auto p = settings(2.0, 64, 2);
    for (const auto* hits : {&staggered, &oneChain}) {
        const auto data = dataOf(*hits);
        const Photons expected = referenceFullChain(data, p);
        for (const bool inWindow : {false, true}) {
            SCOPED_TRACE(testing::Message()
                         << (hits == &oneChain ? "one chain" : "staggered") << (inWindow ? ", window" : ", default"));
            HoldingSequence sequence(data);
            VectorPhotonSink sink;
            if (inWindow) {
                fullChainSearch::search_inWindow(sequence, p, sink);
            } else {
                reconstruct_photonEvents_fullChain_direct(sequence, p, sink);
            }
            EXPECT_EQ(sink.photons, expected);
            EXPECT_LE(sequence.held, 16U);
        }
    }
}

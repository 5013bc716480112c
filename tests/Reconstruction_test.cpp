// The three clustering algorithms at their limits, and their properties on random data read as a stream.

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <random>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data_Tpx3Spidr.hpp"
#include "Reconstruction_switch.hpp"

using namespace kavot_tpx3spidr;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace {

struct Hit {
    short x, y;
    long toa;
    std::uint16_t tot;
};

Data_Tpx3Spidr dataOf(const std::vector<Hit>& hits, std::vector<Time> triggers = {}) {
    std::vector<PixelActivation> activations;
    for (const auto& h : hits) {
        activations.emplace_back(h.x, h.y, Time(h.toa), h.tot);
    }
    return Data_Tpx3Spidr(std::move(activations), std::move(triggers));
}

ReconstructionParameters_PhotonEvents settings(double dSpace = 2.0,
                                               long dTime = 64,
                                               std::uint64_t nPxMin = 1,
                                               std::uint64_t nPxMax = 200,
                                               double weightMin = 1.0,
                                               double weightMax = 5000.0) {
    return {dSpace, Time(dTime), nPxMin, nPxMax, weightMin, weightMax, false};
}

PhotonEvent_type photon(double x_px, double y_px, long toa) {
    return PhotonEvent_type(Length(static_cast<int>(x_px * 65536)), Length(static_cast<int>(y_px * 65536)), Time(toa));
}

using AlgorithmFunction = PhotonResult (*)(const Data_Tpx3Spidr&, const ReconstructionParameters_PhotonEvents&);
const AlgorithmFunction fullChain = reconstruct_photonEvents_fullChain_direct;
const AlgorithmFunction checkNext = reconstruct_photonEvents_checkNextOnly;
const AlgorithmFunction forwardChain = reconstruct_photonEvents_forwardChain_pixelBuildup;

std::vector<PhotonEvent_type> run(AlgorithmFunction algorithm,
                                  const std::vector<Hit>& hits,
                                  const ReconstructionParameters_PhotonEvents& parameters) {
    return algorithm(dataOf(hits), parameters).photonEvents;
}

/// The number of clusters of two hits: 1 when linked, 2 when not (all clusters accepted).
std::size_t clustersOfPair(AlgorithmFunction algorithm, Hit a, Hit b, const ReconstructionParameters_PhotonEvents& p) {
    return run(algorithm, {a, b}, p).size();
}

} // namespace

TEST(Reconstruction, PairsAtTheSpaceAndTimeLimits) {
    struct Case {
        const char* what;
        Hit a, b;
        double dSpace;
        long dTime;
        std::size_t fullChain, checkNext, forwardChain;
    };
    const Case cases[] = {
        {"distance exactly d, dt exactly dTime", {10, 10, 0, 0}, {12, 10, 64, 0}, 2.0, 64, 1, 2, 1},
        {"dt one tick inside", {10, 10, 0, 0}, {11, 10, 63, 0}, 2.0, 64, 1, 1, 1},
        {"dt one tick beyond", {10, 10, 0, 0}, {10, 10, 65, 0}, 2.0, 64, 2, 2, 2},
        {"distance sqrt 5", {10, 10, 0, 0}, {12, 11, 0, 0}, 2.0, 64, 2, 2, 2},
        {"diagonal neighbour", {10, 10, 0, 0}, {11, 11, 0, 0}, 2.0, 64, 1, 1, 1},
        {"2.9 truncates to 2 for circles", {10, 10, 0, 0}, {12, 11, 0, 0}, 2.9, 64, 2, 1, 2},
        {"2.5 square reaches (2, 2)", {10, 10, 0, 0}, {12, 12, 0, 0}, 2.5, 64, 2, 1, 2},
        {"1.5 square equals 2.0 square", {10, 10, 0, 0}, {12, 10, 0, 0}, 1.5, 64, 2, 2, 2},
        {"0.5 same pixel only", {10, 10, 0, 0}, {10, 10, 5, 0}, 0.5, 64, 1, 1, 1},
        {"0.5 next pixel", {10, 10, 0, 0}, {11, 10, 5, 0}, 0.5, 64, 2, 2, 2},
        {"-1.5 acts as 1 for circles", {10, 10, 0, 0}, {11, 10, 0, 0}, -1.5, 64, 1, 2, 1},
        {"dSpace 0", {10, 10, 0, 0}, {10, 10, 0, 0}, 0.0, 64, 1, 2, 1},
        {"dTime 0 same time", {10, 10, 0, 0}, {10, 10, 0, 0}, 2.0, 0, 1, 2, 1},
        {"negative dTime", {10, 10, 0, 0}, {10, 10, 0, 0}, 2.0, -1, 2, 2, 2},
        {"NaN dSpace: same pixel for circles, nothing for squares", {10, 10, 0, 0}, {10, 10, 0, 0}, NAN, 64, 1, 2, 1},
        {"huge dSpace saturates", {0, 0, 0, 0}, {255, 255, 0, 0}, 1e9, 64, 1, 1, 1},
        {"huge negative dSpace saturates", {0, 0, 0, 0}, {255, 255, 0, 0}, -1e9, 64, 1, 2, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto p = settings(c.dSpace, c.dTime);
        EXPECT_EQ(clustersOfPair(fullChain, c.a, c.b, p), c.fullChain);
        EXPECT_EQ(clustersOfPair(checkNext, c.a, c.b, p), c.checkNext);
        EXPECT_EQ(clustersOfPair(forwardChain, c.a, c.b, p), c.forwardChain);
    }
}

TEST(Reconstruction, CentroidIsTheWeightedMeanTruncatedWithoutHalfPixelOffset) {
    // Weights 1 and 3: x = (3 * 1 + 4 * 3) / 4 = 3.75 px; time of the first hit.
    const std::vector<Hit> hits{{3, 5, 100, 0}, {4, 5, 110, 2}};
    for (const AlgorithmFunction algorithm : {fullChain, checkNext, forwardChain}) {
        const auto photons = run(algorithm, hits, settings());
        ASSERT_EQ(photons.size(), 1u);
        EXPECT_EQ(photons[0], photon(3.75, 5, 100));
    }
    // Three equal weights on x = 0, 0, 1: 65536 / 3 = 21845.33, truncated.
    const auto third = run(fullChain, {{0, 7, 0, 4}, {0, 7, 1, 4}, {1, 7, 2, 4}}, settings());
    ASSERT_EQ(third.size(), 1u);
    EXPECT_EQ(third[0].x.get_value(), 21845);
    EXPECT_EQ(third[0].y.get_value(), 7 * 65536);
    // A ToT of 65535 weighs 65536, not 0.
    const auto heavy = run(fullChain, {{0, 0, 0, 65535}, {2, 0, 0, 0}}, settings(2, 64, 1, 200, 1, 1e6));
    ASSERT_EQ(heavy.size(), 1u);
    EXPECT_EQ(heavy[0].x.get_value(), static_cast<int>((2ULL << 16) / 65537));
}

TEST(Reconstruction, AcceptanceBoundsAreInclusive) {
    const std::vector<Hit> pair{{5, 5, 0, 1}, {5, 6, 1, 1}}; // two hits, weight 4, mean weight 2
    struct Case {
        std::uint64_t nPxMin, nPxMax;
        double weightMin, weightMax;
        bool accepted;
    };
    const Case cases[] = {
        {2, 2, 4, 4, true},      {3, 200, 1, 5000, false}, {1, 1, 1, 5000, false},     {1, 200, 4.5, 5000, false},
        {1, 200, 1, 3.5, false}, {3, 1, 1, 5000, false},   {1, 200, NAN, 5000, false}, {1, 200, 1, NAN, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.nPxMin << " " << c.nPxMax << " " << c.weightMin << " " << c.weightMax);
        const auto p = settings(2.0, 64, c.nPxMin, c.nPxMax, c.weightMin, c.weightMax);
        EXPECT_EQ(run(fullChain, pair, p).size(), c.accepted ? 1u : 0u);
        EXPECT_EQ(run(forwardChain, pair, p).size(), c.accepted ? 1u : 0u);
    }
    // checkNextOnly bounds the truncated mean: weights 1, 1, 2 give 4 / 3 = 1, below 1.5.
    const std::vector<Hit> three{{1, 1, 0, 0}, {1, 1, 1, 0}, {1, 1, 2, 1}};
    EXPECT_TRUE(run(checkNext, three, settings(2.0, 64, 1, 200, 1.5, 5000)).empty());
    EXPECT_EQ(run(checkNext, three, settings(2.0, 64, 1, 200, 1.0, 1.0)).size(), 1u);
    EXPECT_EQ(run(fullChain, three, settings(2.0, 64, 1, 200, 4.0, 4.0)).size(), 1u);
}

TEST(Reconstruction, FullChainTestsACandidateOnceWhenTheScanReachesIt) {
    // P, Q, R within dTime; Q neighbours only R, R neighbours P: R joins P, Q was tested before and stays out.
    const std::vector<Hit> hits{{0, 0, 0, 0}, {4, 0, 1, 0}, {2, 0, 2, 0}};
    EXPECT_EQ(run(fullChain, hits, settings()), (std::vector{photon(1, 0, 0), photon(4, 0, 1)}));
    // The forward chain places Q and R looking backwards: R joins the most recent neighbour, Q.
    EXPECT_EQ(run(forwardChain, hits, settings()), (std::vector{photon(0, 0, 0), photon(3, 0, 1)}));
}

TEST(Reconstruction, FullChainHorizonFollowsTheLatestMember) {
    const std::vector<Hit> chain{{0, 0, 0, 0}, {1, 0, 60, 0}, {2, 0, 124, 0}, {3, 0, 189, 0}};
    EXPECT_EQ(run(fullChain, chain, settings()), (std::vector{photon(1, 0, 0), photon(3, 0, 189)}));
    // A member taken by an earlier cluster does not end the scan.
    const std::vector<Hit> interleaved{{0, 0, 0, 0}, {100, 0, 1, 0}, {101, 0, 2, 0}, {1, 0, 3, 0}};
    EXPECT_EQ(run(fullChain, interleaved, settings()), (std::vector{photon(0.5, 0, 0), photon(100.5, 0, 1)}));
}

TEST(Reconstruction, FullChainReusesTheNumberOfARejectedCluster) {
    // Cluster 1 = {p0, p3} is rejected (weight 202 > 10). Cluster 2, seeded at p1, has the same number, so p3,
    // marked by cluster 1 and later than p2, links p2 into cluster 2 without being counted in it.
    const std::vector<Hit> hits{{0, 0, 0, 100}, {50, 50, 1, 0}, {4, 0, 2, 0}, {2, 0, 3, 100}};
    const auto p = settings(2.0, 64, 2, 200, 1.0, 10.0);
    EXPECT_EQ(run(fullChain, hits, p), (std::vector{photon(27, 25, 1)}));
}

TEST(Reconstruction, CheckNextOnlyCutsAtAnyForeignHit) {
    const std::vector<Hit> hits{{10, 10, 0, 0}, {200, 200, 1, 0}, {11, 10, 2, 0}};
    EXPECT_EQ(run(checkNext, hits, settings()).size(), 3u);
    EXPECT_EQ(run(fullChain, hits, settings()).size(), 2u);
    EXPECT_EQ(run(checkNext, {{1, 1, 0, 0}}, settings(2, 64, 2)).size(), 0u);
}

TEST(Reconstruction, ForwardChainJoinsTheMostRecentNeighbourAndNeverMerges) {
    // (10,10), (100,100), (11,10): the third passes over the second and joins the first.
    EXPECT_EQ(run(forwardChain, {{10, 10, 0, 0}, {100, 100, 1, 0}, {11, 10, 2, 0}}, settings()),
              (std::vector{photon(10.5, 10, 0), photon(100, 100, 1)}));
    // The last hit neighbours chain A (at 0,0) and chain B (at 4,0): it joins B, the most recent; A stays apart.
    EXPECT_EQ(run(forwardChain, {{0, 0, 0, 0}, {4, 0, 1, 0}, {2, 0, 2, 0}}, settings()),
              (std::vector{photon(0, 0, 0), photon(3, 0, 1)}));
}

TEST(Reconstruction, ResultCarriesTriggersOnlyWhenAsked) {
    const std::vector<Time> triggers{Time(3), Time(1)};
    for (const AlgorithmFunction algorithm : {fullChain, checkNext, forwardChain}) {
        auto p = settings(2, 64, 5);
        EXPECT_FALSE(algorithm(dataOf({{1, 1, 0, 0}}, triggers), p).extTriggers.has_value());
        p.TDC1 = true;
        EXPECT_EQ(algorithm(dataOf({{1, 1, 0, 0}}, triggers), p).extTriggers, triggers);
        EXPECT_EQ(algorithm(dataOf({}), p).extTriggers, std::vector<Time>{});
        EXPECT_TRUE(algorithm(dataOf({}), p).photonEvents.empty());
    }
}

TEST(Reconstruction, DispatcherMatchesNamesExactly) {
    Parameters parameters = [] {
        char name[] = "vundrel";
        char* argv[] = {name, nullptr};
        std::int32_t threshold = 4;
        return Parameters(1, argv, threshold);
    }();
    const auto p = settings();
    const std::vector<Hit> hits{{1, 1, 0, 0}, {2, 1, 1, 0}, {100, 1, 2, 0}};
    for (const char* name : {"default", "fullChain_direct", "checkNextOnly", "forwardChain_pixelBuildup"}) {
        parameters.algorithm = name;
        EXPECT_EQ(reconstruct_photonEvents_switchAlgoritms(dataOf(hits), parameters, p).photonEvents.size(), 2u)
            << name;
    }
    for (const char* name : {"Default", "default ", "", "checkNextOnly\n"}) {
        parameters.algorithm = name;
        EXPECT_THAT([&] { reconstruct_photonEvents_switchAlgoritms(dataOf(hits), parameters, p); },
                    ThrowsMessage<std::invalid_argument>(StrEq(std::string("Unrecognized algorithm") + name + "!")));
    }
    const auto defaults = make_reconstructionParameters(parameters);
    EXPECT_EQ(defaults.dTime, Time(64)) << "1e-7 s in ticks";
}

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

/// The full-chain search step by step as it is defined: optional cluster numbers, the link search walking its
/// window from k0 up to the first position later than t_j + dTime.
std::vector<PhotonEvent_type> referenceFullChain(const Data_Tpx3Spidr& data,
                                                 const ReconstructionParameters_PhotonEvents& p) {
    const std::size_t N = data.size();
    std::vector<PhotonEvent_type> photons;
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
        for (std::size_t j = i + 1; j < N; ++j) {
            const long tj = data[j].get_toa().get_value();
            if (tj > horizon) {
                break;
            }
            if (clusterOfPixel[j]) {
                continue;
            }
            std::size_t k = j - 1;
            while (k > i && data[k - 1].get_toa().get_value() >= tj - dT) {
                --k;
            }
            bool link = false;
            for (; k < N; ++k) {
                if (data[k].get_toa().get_value() > tj + dT) {
                    break;
                }
                if (clusterOfPixel[k] == c && PixelActivation::distSpace_smallerEqualThan(data[k], data[j], d)) {
                    link = true;
                    break;
                }
            }
            if (link) {
                chain.add_pixelActivation_notFirst(data[j]);
                clusterOfPixel[j] = c;
                horizon = std::max(horizon, tj + dT);
            }
        }
        if (p.nPxMin <= chain.nPx && chain.nPx <= p.nPxMax && p.weightMin <= static_cast<double>(chain.weightSum) &&
            static_cast<double>(chain.weightSum) <= p.weightMax) {
            photons.push_back(photonEvent_fromChain(chain));
        }
    }
    return photons;
}

/// The forward chain as it is defined: all chains first, then the photons in the order the chains were opened.
std::vector<PhotonEvent_type> referenceForwardChain(const Data_Tpx3Spidr& data,
                                                    const ReconstructionParameters_PhotonEvents& p) {
    const std::size_t N = data.size();
    std::vector<PixelActivationChain> chains;
    std::vector<std::size_t> chainOfPixel(N);
    const short d = spaceLimit_px(p.dSpace);
    for (std::size_t i = 0; i < N; ++i) {
        std::optional<std::size_t> neighbour;
        for (std::size_t k = i; k-- > 0;) {
            if (data[i].get_toa().get_value() - data[k].get_toa().get_value() > p.dTime.get_value()) {
                break;
            }
            if (PixelActivation::distSpace_smallerEqualThan(data[i], data[k], d)) {
                neighbour = k;
                break;
            }
        }
        if (neighbour) {
            chainOfPixel[i] = chainOfPixel[*neighbour];
            chains[chainOfPixel[i]].add_pixelActivation_notFirst(data[i]);
        } else {
            chainOfPixel[i] = chains.size();
            chains.emplace_back(data[i]);
        }
    }
    std::vector<PhotonEvent_type> photons;
    for (const auto& chain : chains) {
        if (p.nPxMin <= chain.nPx && chain.nPx <= p.nPxMax && p.weightMin <= static_cast<double>(chain.weightSum) &&
            static_cast<double>(chain.weightSum) <= p.weightMax) {
            photons.push_back(photonEvent_fromChain(chain));
        }
    }
    return photons;
}

/// checkNextOnly as it is defined: runs of positions, each linked to the one before it.
std::vector<PhotonEvent_type> referenceCheckNextOnly(const Data_Tpx3Spidr& data,
                                                     const ReconstructionParameters_PhotonEvents& p) {
    std::vector<PhotonEvent_type> photons;
    for (std::size_t s = 0; s < data.size();) {
        PixelActivationChain chain(data[s]);
        std::size_t j = s + 1;
        while (j < data.size() && std::abs(data[j].get_x_px() - data[j - 1].get_x_px()) < p.dSpace &&
               std::abs(data[j].get_y_px() - data[j - 1].get_y_px()) < p.dSpace &&
               data[j].get_toa().get_value() - data[j - 1].get_toa().get_value() < p.dTime.get_value()) {
            chain.add_pixelActivation_notFirst(data[j++]);
        }
        const auto mean = static_cast<double>(chain.weightSum / chain.nPx);
        if (p.nPxMin <= chain.nPx && chain.nPx <= p.nPxMax && p.weightMin <= mean && mean <= p.weightMax) {
            photons.push_back(photonEvent_fromChain(chain));
        }
        s = j;
    }
    return photons;
}

/// The activations of a data set as a stream that holds a few more at a time and moves what it holds on every
/// call of `has` past them, also when nothing is left, as a decoding stream may. It spoils the old storage
/// first: an algorithm that keeps a view across such a call then reads wrong activations.
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

/// The photons of `algorithm(sequence, sink)` over the data set as a restless stream.
template <typename Algorithm>
std::vector<PhotonEvent_type> restless(const Data_Tpx3Spidr& data, int seed, Algorithm algorithm) {
    RestlessSequence sequence(data, static_cast<std::uint64_t>(seed));
    VectorPhotonSink sink;
    algorithm(sequence, sink);
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
        ASSERT_EQ(
            restless(data, round,
                     [&](auto& sequence, auto& sink) { reconstruct_photonEvents_checkNextOnly(sequence, p, sink); }),
            referenceCheckNextOnly(data, p))
            << "round " << round;
    }
}

TEST(Reconstruction, ForwardChainEqualsBuildingAllChainsFirst) {
    std::mt19937_64 random(23);
    for (int round = 0; round < 1000; ++round) {
        // Up to 20000 hits, so that the emitted chains and the dropped positions cross the tables' compaction;
        // every third round a burst, where more hits lie within dTime than the disc of dSpace has pixels (the
        // search looks up the latest hit per pixel then), now and then with pixels outside the detector.
        const std::size_t n = round % 50 == 0 ? 20000 : 20 + random() % 300;
        const long spread =
            round % 3 == 0 ? 20 + static_cast<long>(random() % 100) : 20 + static_cast<long>(random() % (n * 20));
        auto hits = randomHits(random, n, spread, 2 + random() % 30);
        if (round % 7 == 0) {
            hits[random() % n].y = -2;
        }
        const double dSpace = round % 11 == 0 ? 20.0 : static_cast<double>(random() % 30) / 10.0 - 0.5;
        const auto p = settings(dSpace, static_cast<long>(random() % 80) - 4, random() % 3, random() % 8, 1.0,
                                static_cast<double>(random() % 5000));
        const auto data = dataOf(hits);
        ASSERT_EQ(restless(data, round,
                           [&](auto& sequence, auto& sink) {
                               reconstruct_photonEvents_forwardChain_pixelBuildup(sequence, p, sink);
                           }),
                  referenceForwardChain(data, p))
            << "round " << round;
    }
}

TEST(Reconstruction, FullChainEqualsTheStepByStepSearch) {
    std::mt19937_64 random(17);
    for (int round = 0; round < 1500; ++round) {
        // Dense hits on a few pixels: clusters touch, and rejected clusters leave marks beside later candidates.
        // Every third round is a burst whose window holds more hits than the search tests one by one (it counts
        // them per pixel then), some with pixels outside the detector, which such a count cannot hold.
        const bool burst = round % 3 == 0;
        auto hits =
            randomHits(random, 20 + random() % (burst ? 600 : 200),
                       20 + static_cast<long>(random() % (burst ? 200 : 2000)), 2 + random() % (burst ? 40 : 8));
        if (round % 7 == 0) {
            for (auto& hit : hits) {
                hit.x = static_cast<short>(hit.x - 3);
            }
        }
        const auto data = dataOf(hits);
        // Bounds that reject many clusters, so that cluster numbers are often reused; negative and zero dTime;
        // now and then a distance beyond the one counted per pixel.
        const double dSpace = round % 11 == 0 ? 20.0 : static_cast<double>(random() % 45) / 10.0 - 0.5;
        const auto p = settings(dSpace, static_cast<long>(random() % 80) - 4, random() % 3, random() % 5,
                                static_cast<double>(random() % 40), static_cast<double>(random() % 3000));
        ASSERT_EQ(
            restless(data, round,
                     [&](auto& sequence, auto& sink) { reconstruct_photonEvents_fullChain_direct(sequence, p, sink); }),
            referenceFullChain(data, p))
            << "round " << round;
    }
}

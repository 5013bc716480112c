// The three clustering algorithms at their limits, and their properties on random data read as a stream.

#include "Data_Tpx3Spidr.hpp"
#include "Reconstruction_switch.hpp"
#include "TestSupport.hpp"

using namespace kavot_tpx3spidr;
using testsupport::u64;
using Settings = ReconstructionParameters_PhotonEvents;
using Photons = std::vector<PhotonEvent_type>;

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

/// Clustering settings by the program's option letters, dTime (t) in ticks.
Settings settings(double s = 2, long t = 64, u64 k = 1, u64 K = 200, double m = 1, double M = 5000) {
    return {s, Time(t), k, K, m, M, false};
}

PhotonEvent_type raw(int x, int y, long toa) {
    return PhotonEvent_type(Length(x), Length(y), Time(toa));
}
PhotonEvent_type photon(double x_px, double y_px, long toa) {
    return raw(static_cast<int>(x_px * 65536), static_cast<int>(y_px * 65536), toa);
}

using AlgorithmFunction = PhotonResult (*)(const Data_Tpx3Spidr&, const Settings&);
const AlgorithmFunction full = reconstruct_photonEvents_fullChain_direct;
const AlgorithmFunction nextOnly = reconstruct_photonEvents_checkNextOnly;
const AlgorithmFunction forward = reconstruct_photonEvents_forwardChain_pixelBuildup;

Photons run(AlgorithmFunction algorithm, const std::vector<Hit>& hits, const Settings& parameters = settings()) {
    return algorithm(dataOf(hits), parameters).photonEvents;
}

} // namespace

TEST(Reconstruction, PairsAtTheSpaceAndTimeLimits) {
    // The number of clusters of two hits for each algorithm: 1 when linked, 2 when not.
    const struct {
        const char* what;
        Hit a, b;
        double dSpace;
        long dTime;
        std::size_t full, nextOnly, forward;
    } cases[] = {
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
        EXPECT_EQ(run(full, {c.a, c.b}, p).size(), c.full);
        EXPECT_EQ(run(nextOnly, {c.a, c.b}, p).size(), c.nextOnly);
        EXPECT_EQ(run(forward, {c.a, c.b}, p).size(), c.forward);
    }
}

TEST(Reconstruction, CentroidsAcceptanceAndSmallScenes) {
    const auto all = {full, nextOnly, forward};
    const auto circles = {full, forward};
    const std::vector<Hit> pair{{5, 5, 0, 1}, {5, 6, 1, 1}};                // weight 4, mean weight 2
    const std::vector<Hit> three{{1, 1, 0, 0}, {1, 1, 1, 0}, {1, 1, 2, 1}}; // weights 1, 1, 2
    const Photons paired{photon(5, 5.5, 0)}, tripled{photon(1, 1, 0)}, none;
    const struct {
        std::vector<AlgorithmFunction> algorithms;
        std::vector<Hit> hits;
        Photons photons;
        Settings p = settings();
    } cases[] = {
        // The centroid is the weighted mean, truncated, without half-pixel offset, at the time of the first hit:
        // weights 1 and 3 give x = (3 * 1 + 4 * 3) / 4 = 3.75 px; three equal weights on x = 0, 0, 1 give
        // 65536 / 3 = 21845.33; a ToT of 65535 weighs 65536, not 0.
        {all, {{3, 5, 100, 0}, {4, 5, 110, 2}}, {photon(3.75, 5, 100)}},
        {{full}, {{0, 7, 0, 4}, {0, 7, 1, 4}, {1, 7, 2, 4}}, {raw(21845, 7 << 16, 0)}},
        {{full}, {{0, 0, 0, 65535}, {2, 0, 0, 0}}, {raw((2 << 16) / 65537, 0, 0)}, settings(2, 64, 1, 200, 1, 1e6)},
        // The bounds of acceptance are inclusive; checkNextOnly bounds the truncated mean weight (4 / 3 = 1).
        {circles, pair, paired, settings(2.0, 64, 2, 2, 4, 4)},
        {circles, pair, none, settings(2.0, 64, 3, 200, 1, 5000)},
        {circles, pair, none, settings(2.0, 64, 1, 1, 1, 5000)},
        {circles, pair, none, settings(2.0, 64, 1, 200, 4.5, 5000)},
        {circles, pair, none, settings(2.0, 64, 1, 200, 1, 3.5)},
        {circles, pair, none, settings(2.0, 64, 3, 1, 1, 5000)},
        {circles, pair, none, settings(2.0, 64, 1, 200, NAN, 5000)},
        {circles, pair, none, settings(2.0, 64, 1, 200, 1, NAN)},
        {{nextOnly}, three, none, settings(2.0, 64, 1, 200, 1.5, 5000)},
        {{nextOnly}, three, tripled, settings(2.0, 64, 1, 200, 1.0, 1.0)},
        {{full}, three, tripled, settings(2.0, 64, 1, 200, 4.0, 4.0)},
        // P, Q, R within dTime; Q neighbours only R, R neighbours P: the full chain joins R to P, Q was tested
        // before and stays out; the forward chain looks backwards and joins R to the most recent neighbour, Q.
        {{full}, {{0, 0, 0, 0}, {4, 0, 1, 0}, {2, 0, 2, 0}}, {photon(1, 0, 0), photon(4, 0, 1)}},
        {{forward}, {{0, 0, 0, 0}, {4, 0, 1, 0}, {2, 0, 2, 0}}, {photon(0, 0, 0), photon(3, 0, 1)}},
        {{forward}, {{10, 10, 0, 0}, {100, 100, 1, 0}, {11, 10, 2, 0}}, {photon(10.5, 10, 0), photon(100, 100, 1)}},
        // The full chain's horizon follows the latest member; one taken by an earlier cluster does not end it.
        {{full}, {{0, 0, 0, 0}, {1, 0, 60, 0}, {2, 0, 124, 0}, {3, 0, 189, 0}}, {photon(1, 0, 0), photon(3, 0, 189)}},
        {{full},
         {{0, 0, 0, 0}, {100, 0, 1, 0}, {101, 0, 2, 0}, {1, 0, 3, 0}},
         {photon(0.5, 0, 0), photon(100.5, 0, 1)}},
        // Cluster 1 = {p0, p3} is rejected (weight 202 > 10). Cluster 2, seeded at p1, has the same number, so p3,
        // marked by cluster 1 and later than p2, links p2 into cluster 2 without being counted in it.
        {{full},
         {{0, 0, 0, 100}, {50, 50, 1, 0}, {4, 0, 2, 0}, {2, 0, 3, 100}},
         {photon(27, 25, 1)},
         settings(2.0, 64, 2, 200, 1.0, 10.0)},
        // checkNextOnly cuts at any foreign hit.
        {{nextOnly},
         {{10, 10, 0, 0}, {200, 200, 1, 0}, {11, 10, 2, 0}},
         {photon(10, 10, 0), photon(200, 200, 1), photon(11, 10, 2)}},
    };
    for (std::size_t k = 0; k < std::size(cases); ++k) {
        for (const AlgorithmFunction algorithm : cases[k].algorithms) {
            EXPECT_EQ(run(algorithm, cases[k].hits, cases[k].p), cases[k].photons) << "case " << k;
        }
    }
    // The result carries the trigger times when asked, also without any photon.
    for (const AlgorithmFunction algorithm : all) {
        auto p = settings(2, 64, 5);
        EXPECT_FALSE(algorithm(dataOf({{1, 1, 0, 0}}, {Time(3), Time(1)}), p).extTriggers.has_value());
        p.TDC1 = true;
        EXPECT_EQ(algorithm(dataOf({{1, 1, 0, 0}}, {Time(3), Time(1)}), p).extTriggers,
                  (std::vector{Time(3), Time(1)}));
        EXPECT_EQ(algorithm(dataOf({}), p).extTriggers, std::vector<Time>{});
    }
}

TEST(Reconstruction, DispatcherMatchesNamesExactly) {
    std::int32_t threshold = 4;
    auto parameters = testsupport::parseCommandLine<Parameters>({}, threshold);
    const std::vector<Hit> hits{
        {0, 0, 0, 0}, {4, 0, 1, 0}, {2, 0, 2, 0}}; // the three algorithms cluster them differently
    for (const auto& [name, algorithm] : {std::pair{"default", full},
                                          {"fullChain_direct", full},
                                          {"checkNextOnly", nextOnly},
                                          {"forwardChain_pixelBuildup", forward}}) {
        parameters.algorithm = name;
        EXPECT_EQ(reconstruct_photonEvents_switchAlgoritms(dataOf(hits), parameters, settings()).photonEvents,
                  run(algorithm, hits))
            << name;
    }
    for (const char* name : {"Default", "default ", "", "checkNextOnly\n"}) {
        parameters.algorithm = name;
        EXPECT_THROW_MESSAGE(reconstruct_photonEvents_switchAlgoritms(dataOf(hits), parameters, settings()),
                             std::invalid_argument, std::string("Unrecognized algorithm") + name + "!");
    }
    EXPECT_EQ(make_reconstructionParameters(parameters).dTime, Time(64)) << "1e-7 s in ticks";
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

/// The photons of `algorithm` over the data set as a restless stream.
Photons restless(Algorithm algorithm, const Data_Tpx3Spidr& data, const Settings& p, int seed) {
    RestlessSequence sequence(data, static_cast<std::uint64_t>(seed));
    VectorPhotonSink sink;
    reconstruct_photonEvents_into(algorithm, sequence, p, sink);
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
        const auto data = dataOf(hits);
        // Bounds that reject many clusters (their numbers are reused); dTime to -4; now and then a large distance.
        const double dSpace = round % 11 == 0 ? 20.0 : static_cast<double>(random() % 45) / 10.0 - 0.5;
        const auto p = settings(dSpace, static_cast<long>(random() % 80) - 4, random() % 3, random() % 5,
                                static_cast<double>(random() % 40), static_cast<double>(random() % 3000));
        ASSERT_EQ(restless(Algorithm::fullChain_direct, data, p, round), referenceFullChain(data, p))
            << "round " << round;
    }
}

// The three clustering algorithms at their limits and on small scenes, and the choice of an algorithm by name.

#include "ReconstructionSupport.hpp"
#include "Reconstruction_switch.hpp"

using namespace reconstructionsupport;

namespace {

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

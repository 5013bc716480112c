// The data set's time order, against a literal insertion reference.

#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Data_Tpx3Spidr.hpp"

using namespace kavot_tpx3spidr;

namespace {

std::vector<PixelActivation> withTimes(const std::vector<long>& times) {
    std::vector<PixelActivation> activations;
    for (std::size_t i = 0; i < times.size(); ++i) {
        activations.emplace_back(static_cast<short>(i % 256), static_cast<short>(i / 256 % 256), Time(times[i]), 0);
    }
    return activations;
}

/// The ordering as the data set is defined: in file order, repair against the last entry of the index, then
/// insert behind every entry whose time is not later.
std::vector<PixelActivation> referenceOrder(std::vector<PixelActivation> activations) {
    std::vector<std::size_t> index;
    for (std::size_t i = 0; i < activations.size(); ++i) {
        Time& toa = activations[i].get_toa();
        if (!index.empty()) {
            const long latest = activations[index.back()].get_toa().get_value();
            if (latest - toa.get_value() > (1L << 33)) {
                toa = Time(toa.get_value() + (1L << 34));
            }
        }
        std::size_t k = index.size();
        while (k > 0 && activations[index[k - 1]].get_toa() > toa) {
            --k;
        }
        index.insert(index.begin() + static_cast<std::ptrdiff_t>(k), i);
    }
    std::vector<PixelActivation> ordered;
    for (const auto i : index) {
        ordered.push_back(activations[i]);
    }
    return ordered;
}

std::vector<PixelActivation> inOrder(const Data_Tpx3Spidr& data) {
    std::vector<PixelActivation> ordered;
    for (std::size_t k = 0; k < data.size(); ++k) {
        ordered.push_back(data[k]);
    }
    return ordered;
}

} // namespace

TEST(Data_Tpx3Spidr, OrdersStablyAndRepairsOneRollover) {
    struct Case {
        std::vector<long> times;
        std::vector<long> ordered;       // times in index order
        std::vector<short> fromPosition; // file position (x) of each index entry
    };
    const long P = 1L << 34;
    const long H = 1L << 33;
    const Case cases[] = {
        {{}, {}, {}},
        {{5, 3, 3, 8}, {3, 3, 5, 8}, {1, 2, 0, 3}},
        {{P - 100, 50}, {P - 100, P + 50}, {0, 1}},
        {{H + 50, 50}, {50, H + 50}, {1, 0}},     // exactly 2^33 behind: no repair
        {{H + 51, 50}, {H + 51, P + 50}, {0, 1}}, // one tick more: repaired
        {{0, 3 * P}, {0, 3 * P}, {0, 1}},         // the first activation is never repaired
        {{3 * P, 0}, {P, 3 * P}, {1, 0}},         // two periods behind: one period only
        {{P - 1, 0, 10, P - 2}, {P - 2, P - 1, P, P + 10}, {3, 0, 1, 2}},
        {{-20, 5, -(P)}, {-20, 0, 5}, {0, 2, 1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.times));
        const Data_Tpx3Spidr data(withTimes(c.times), {});
        ASSERT_EQ(data.size(), c.times.size());
        for (std::size_t k = 0; k < data.size(); ++k) {
            EXPECT_EQ(data[k].get_toa().get_value(), c.ordered[k]) << "entry " << k;
            EXPECT_EQ(data[k].get_x_px(), c.fromPosition[k]) << "entry " << k;
        }
    }
}

TEST(Data_Tpx3Spidr, FastOrderEqualsInsertionOnEveryInputShape) {
    std::mt19937_64 random(7);
    const auto check = [](const std::vector<long>& times, const char* shape) {
        SCOPED_TRACE(shape);
        const auto activations = withTimes(times);
        const Data_Tpx3Spidr data(std::vector<PixelActivation>(activations), {});
        ASSERT_EQ(inOrder(data), referenceOrder(activations));
    };
    for (int round = 0; round < 4; ++round) {
        const std::size_t n = 3000 + static_cast<std::size_t>(round) * 1111;
        std::vector<long> nearly, reversed, random_, rollovers, ties;
        for (std::size_t i = 0; i < n; ++i) {
            const long t = static_cast<long>(i) * 40;
            nearly.push_back(t + static_cast<long>(random() % 400));
            reversed.push_back(static_cast<long>(n - i) * 40);
            random_.push_back(static_cast<long>(random() % (1ULL << 40)) - (1L << 39));
            // Times that jump around the 2^34 clock and the 2^33 repair threshold.
            rollovers.push_back(static_cast<long>(random() % 5) * (1L << 32) + static_cast<long>(random() % 3) - 1);
            ties.push_back(static_cast<long>(random() % 4));
        }
        check(nearly, "nearly ordered");
        check(reversed, "reversed");
        check(random_, "random");
        check(rollovers, "rollover heavy");
        check(ties, "many ties");
    }
}

TEST(Data_Tpx3Spidr, CopiesAreDeepAndTriggersKeepFileOrder) {
    const std::vector<Time> triggers{Time(9), Time(2), Time(5)};
    auto original = std::make_unique<Data_Tpx3Spidr>(withTimes({4, 1}), std::vector<Time>(triggers));
    const Data_Tpx3Spidr copy(*original);
    original.reset();
    ASSERT_EQ(copy.size(), 2u);
    EXPECT_EQ(copy[0].get_toa(), Time(1));
    EXPECT_EQ(copy.get_tdc1Triggers(), triggers);
}

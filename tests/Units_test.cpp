// Time and length units, pixel activations and the chain accumulator.

#include <cmath>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PixelActivationChain.hpp"

using namespace kavot_tpx3spidr;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

TEST(Time, MakeFromSecondsRoundsHalfAwayFromZero) {
    struct Case {
        double seconds;
        long ticks;
    };
    const Case cases[] = {
        {0.0, 0},
        {1e-6, 640},
        {-1e-6, -640},
        {1e-7, 64},
        {7.8125e-10, 1},   // half a tick
        {3.90625e-9, 3},   // 2.5 ticks
        {-2.34375e-9, -2}, // -1.5 ticks: away from zero
        {7.8e-10, 0},
        {7205759403.792793, 1L << 62}, // the bound itself is accepted
        {-7205759403.792793, -(1L << 62)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.seconds);
        EXPECT_EQ(Time::make_from_seconds<true>(c.seconds).get_value(), c.ticks);
    }
}

TEST(Time, MakeFromSecondsRefusesValuesBeyondTwoToTheSixtyTwoTicks) {
    struct Case {
        double seconds;
        const char* message;
    };
    const Case cases[] = {
        {std::nextafter(7205759403.792793, INFINITY), "Value 7205759403.792794 s out of range!"},
        {std::nextafter(-7205759403.792793, -INFINITY), "Value -7205759403.792794 s out of range!"},
        {1e10, "Value 10000000000.000000 s out of range!"},
        {INFINITY, "Value inf s out of range!"},
        {std::nan(""), "Value nan s out of range!"},
    };
    for (const auto& c : cases) {
        EXPECT_THAT([&] { (void)Time::make_from_seconds<true>(c.seconds); },
                    ThrowsMessage<std::invalid_argument>(StrEq(c.message)));
    }
}

TEST(PixelActivation, DistanceEqualToLimitCountsAsNear) {
    struct Case {
        short ax, ay, bx, by, d;
        bool near;
    };
    const Case cases[] = {
        {0, 0, 1, 1, 2, true},
        {0, 0, 1, 1, 1, false},
        {0, 0, 3, 4, 5, true},
        {0, 0, 3, 4, 4, false},
        {7, 7, 7, 7, 0, true},
        {7, 7, 7, 8, 0, false},
        {0, 0, 1, 1, -2, true}, // a negative d acts as its magnitude
        {0, 0, 2, 0, -1, false},
        // Coordinates far outside the detector still square without overflow in 64 bits.
        {-32768, -32768, 32767, 32767, 32767, false},
        {-32768, 0, 0, 0, -32768, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.ax << "," << c.ay << " " << c.bx << "," << c.by << " d=" << c.d);
        const PixelActivation a(c.ax, c.ay, Time(0), 0);
        const PixelActivation b(c.bx, c.by, Time(0), 0);
        EXPECT_EQ(PixelActivation::distSpace_smallerEqualThan(a, b, c.d), c.near);
        EXPECT_EQ(PixelActivation::distSpace_smallerEqualThan(b, a, c.d), c.near);
    }
    const PixelActivation early(0, -32768, Time(-5), 0);
    const PixelActivation late(255, 32767, Time(7), 0);
    EXPECT_EQ(early.calcDist_x_px(late), 255);
    EXPECT_EQ(early.calcDist_y_px(late), 65535);
    EXPECT_EQ(early.calcDist_toa(late), Time(12));
    EXPECT_EQ(late.calcDist_toa(early), Time(12));
}

TEST(PixelActivationChain, SumsWeightsAndKeepsTheStrictlyEarliestTime) {
    PixelActivationChain chain(PixelActivation(2, 3, Time(10), 0));            // weight 1
    chain.add_pixelActivation(PixelActivation(4, 1, Time(7), 2));              // weight 3, earlier: the chain's time
    chain.add_pixelActivation_notFirst(PixelActivation(0, 0, Time(1), 65535)); // weight 65536, time ignored
    EXPECT_EQ(chain.nPx, 3u);
    EXPECT_EQ(chain.weightSum, 65540u);
    EXPECT_EQ(chain.xWeightedSum, 2u + 12u);
    EXPECT_EQ(chain.yWeightedSum, 3u + 3u);
    EXPECT_EQ(chain.toa, Time(7));

    PixelActivationChain later(PixelActivation(1, 1, Time(7), 4)); // an equal time is not strictly earlier
    later.add_chain(chain);
    EXPECT_EQ(later.nPx, 4u);
    EXPECT_EQ(later.weightSum, 65545u);
    EXPECT_EQ(later.xWeightedSum, 5u + 14u);
    EXPECT_EQ(later.toa, Time(7));
    later.add_chain(PixelActivationChain(PixelActivation(1, 1, Time(-3), 0)));
    EXPECT_EQ(later.toa, Time(-3));
}

#include <gtest/gtest.h>

#include "PixelActivationChain.hpp"

using kavot_tpx3spidr::PixelActivation;
using kavot_tpx3spidr::PixelActivationChain;
using kavot_tpx3spidr::Time;

namespace {
PixelActivation at(short x, short y, long toa = 0) {
    return PixelActivation(x, y, Time(toa), 0);
}
} // namespace

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
        {0, 0, 1, 1, -2, true},
        {0, 0, 2, 0, -1, false},
        // Coordinates far outside the detector still square without overflow in 64 bits.
        {-32768, -32768, 32767, 32767, 32767, false},
        {-32768, 0, 0, 0, -32768, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.ax << "," << c.ay << " " << c.bx << "," << c.by << " d=" << c.d);
        EXPECT_EQ(PixelActivation::distSpace_smallerEqualThan(at(c.ax, c.ay), at(c.bx, c.by), c.d), c.near);
        EXPECT_EQ(PixelActivation::distSpace_smallerEqualThan(at(c.bx, c.by), at(c.ax, c.ay), c.d), c.near);
    }
}

TEST(PixelActivation, DistancesAreSymmetricAndNeverNegative) {
    EXPECT_EQ(at(0, 0).calcDist_x_px(at(255, 0)), 255);
    EXPECT_EQ(at(255, 0).calcDist_x_px(at(0, 0)), 255);
    EXPECT_EQ(at(0, -32768).calcDist_y_px(at(0, 32767)), 65535);
    EXPECT_EQ(at(0, 0, -5).calcDist_toa(at(0, 0, 7)), Time(12));
    EXPECT_EQ(at(0, 0, 7).calcDist_toa(at(0, 0, -5)), Time(12));
    EXPECT_EQ(at(0, 0, 3).calcDist_toa(at(0, 0, 3)), Time(0));
}

TEST(PixelActivation, ToaIsModifiableInPlace) {
    PixelActivation a(1, 2, Time(10), 1023);
    a.get_toa() = Time(20);
    EXPECT_EQ(a.get_toa(), Time(20));
    EXPECT_EQ(a.get_tot(), 1023);
    EXPECT_EQ(a.get_x_px(), 1);
    EXPECT_EQ(a.get_y_px(), 2);
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

    PixelActivationChain later(PixelActivation(1, 1, Time(7), 4)); // equal time: not strictly earlier
    later.add_chain(chain);
    EXPECT_EQ(later.nPx, 4u);
    EXPECT_EQ(later.weightSum, 65545u);
    EXPECT_EQ(later.xWeightedSum, 5u + 14u);
    EXPECT_EQ(later.toa, Time(7));
    PixelActivationChain earliest(PixelActivation(1, 1, Time(-3), 0));
    later.add_chain(earliest);
    EXPECT_EQ(later.toa, Time(-3));
}

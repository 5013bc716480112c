// Time units and the distance of pixel activations.

#include "PixelActivation.hpp"
#include "TestSupport.hpp"

using namespace kavot_tpx3spidr;

TEST(Time, MakeFromSecondsRoundsHalfAwayFromZeroUpToTwoToTheSixtyTwoTicks) {
    const struct {
        double seconds;
        long ticks;
        const char* refusal = nullptr;
    } cases[] = {
        {0.0, 0},
        {-1e-6, -640},
        {1e-7, 64},
        {7.8125e-10, 1},   // half a tick
        {3.90625e-9, 3},   // 2.5 ticks
        {-2.34375e-9, -2}, // -1.5 ticks: away from zero
        {7.8e-10, 0},
        {7205759403.792793, 1L << 62}, // the bound itself is accepted
        {-7205759403.792793, -(1L << 62)},
        {std::nextafter(7205759403.792793, INFINITY), 0, "Value 7205759403.792794 s out of range!"},
        {std::nextafter(-7205759403.792793, -INFINITY), 0, "Value -7205759403.792794 s out of range!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.seconds);
        if (c.refusal != nullptr) {
            EXPECT_THROW_MESSAGE(Time::make_from_seconds<true>(c.seconds), std::invalid_argument, c.refusal);
        } else {
            EXPECT_EQ(Time::make_from_seconds<true>(c.seconds).get_value(), c.ticks);
        }
    }
}

TEST(PixelActivation, DistanceEqualToLimitCountsAsNear) {
    const struct {
        short ax, ay, bx, by, d;
        bool near;
    } cases[] = {
        {0, 0, 1, 1, 2, true},
        {0, 0, 1, 1, 1, false},
        {0, 0, 3, 4, 5, true},
        {0, 0, 3, 4, 4, false},
        {7, 7, 7, 7, 0, true},
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
    EXPECT_EQ(PixelActivation(0, -32768, Time(0), 0).calcDist_y_px(PixelActivation(0, 32767, Time(0), 0)), 65535);
}

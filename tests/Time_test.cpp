#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Units.hpp"

using kavot_tpx3spidr::Length;
using kavot_tpx3spidr::Time;
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
        {2.5e-8, 16},
        {7.8125e-10, 1},
        {3.90625e-9, 3},
        {-2.34375e-9, -2},
        {7.8e-10, 0},
        {-7.8125e-10, -1},
        {7205759403.792793, 1L << 62},
        {-7205759403.792793, -(1L << 62)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.seconds);
        EXPECT_EQ(Time::make_from_seconds<true>(c.seconds).get_value(), c.ticks);
    }
    EXPECT_EQ(Time::make_from_seconds<true>(1e-6), Time(640));
}

TEST(Time, MakeFromSecondsRefusesValuesBeyondTwoToTheSixtyTwoTicks) {
    const double above = std::nextafter(7205759403.792793, INFINITY);
    const double below = std::nextafter(-7205759403.792793, -INFINITY);
    EXPECT_THAT([&] { (void)Time::make_from_seconds<true>(above); },
                ThrowsMessage<std::invalid_argument>(StrEq("Value 7205759403.792794 s out of range!")));
    EXPECT_THAT([&] { (void)Time::make_from_seconds<true>(below); },
                ThrowsMessage<std::invalid_argument>(StrEq("Value -7205759403.792794 s out of range!")));
    EXPECT_THAT([] { (void)Time::make_from_seconds<true>(1e10); },
                ThrowsMessage<std::invalid_argument>(StrEq("Value 10000000000.000000 s out of range!")));
    EXPECT_THAT([] { (void)Time::make_from_seconds<true>(INFINITY); },
                ThrowsMessage<std::invalid_argument>(StrEq("Value inf s out of range!")));
    EXPECT_THAT([] { (void)Time::make_from_seconds<true>(std::nan("")); },
                ThrowsMessage<std::invalid_argument>(StrEq("Value nan s out of range!")));
}

TEST(Time, ComparesAndSubtractsRawCounts) {
    EXPECT_LT(Time(-5), Time(3));
    EXPECT_EQ((Time(3) - Time(-5)).get_value(), 8);
    EXPECT_EQ((Time(3) + Time(-5)).get_value(), -2);
    EXPECT_EQ(Time(std::numeric_limits<long>::min()).get_value(), std::numeric_limits<long>::min());
}

TEST(Length, RawValueIsPixelsTimes65536) {
    EXPECT_EQ(Length(65536).get_px(), 1.0);
    EXPECT_EQ(Length(8192).get_px(), 0.125);
    EXPECT_EQ(Length(-65536).get_px(), -1.0);
    EXPECT_LT(Length(-1), Length(0));
}

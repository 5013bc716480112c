#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Image_2D_Photons.hpp"
#include "TestSupport.hpp"

using namespace kavot_tpx3spidr;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace {
PhotonEvent_type at(int x, int y) {
    return PhotonEvent_type(Length(x), Length(y), Time(0));
}
} // namespace

TEST(Image_2D_Photons, BinsPositionsOfAnEighthPixel) {
    Image_2D_Photons image(Length(8192));
    ASSERT_EQ(image.nPixels_x, 2048u);
    ASSERT_EQ(image.nPixels_y, 2048u);
    struct Case {
        int x, y;
        std::size_t index;
    };
    const Case cases[] = {
        {0, 0, 0},           {8191, 8192, 2048},           {-1, 0, 0},
        {-8191, -8191, 0}, // quotient 0 is not moved down
        {16777215, 0, 2047}, {0, 16777215, 2047u * 2048u}, {8192 * 5, 8192 * 7 + 1, 7u * 2048u + 5u},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.x << "," << c.y);
        const auto before = image.get_counts()[c.index];
        image.add_photonEvent<true>(at(c.x, c.y));
        EXPECT_EQ(image.get_counts()[c.index], before + 1);
    }
}

TEST(Image_2D_Photons, OutOfRangeBinsAreRefusedXFirst) {
    Image_2D_Photons image(Length(8192));
    struct Case {
        int x, y;
        std::string message;
    };
    const Case cases[] = {
        {16777216, 0, "X coordinate out of range! 2048 >= 2048!"},
        {-8192, 0, "X coordinate out of range! 18446744073709551615 >= 2048!"},
        {-8193, 0, "X coordinate out of range! 18446744073709551614 >= 2048!"},
        {0, 16777216, "Y coordinate out of range! 2048 >= 2048!"},
        {-8192, -8192, "X coordinate out of range! 18446744073709551615 >= 2048!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        EXPECT_THAT([&] { image.add_photonEvent<true>(at(c.x, c.y)); },
                    ThrowsMessage<std::out_of_range>(StrEq(c.message)));
    }
    for (const auto count : image.get_counts()) {
        ASSERT_EQ(count, 0u) << "a refused photon leaves the image unchanged";
    }
    EXPECT_THROW(Image_2D_Photons(Length(0)), std::invalid_argument);
    EXPECT_THROW(Image_2D_Photons(Length(-8192)), std::invalid_argument);
    EXPECT_EQ(Image_2D_Photons(Length(50000)).nPixels_x, 335u); // 16777216 / 50000, truncated
}

TEST(Image_2D_Photons, WritesRawNativeCountersAndStaysSilentOnFailure) {
    const testsupport::TempDir dir;
    Image_2D_Photons image(Length(8192));
    image.add_photonEvent<true>(at(8192, 0));
    image.add_photonEvent<true>(at(8192, 0));
    image.write_toFile_raw(dir / "image.raw");
    const std::string bytes = testsupport::readFile(dir / "image.raw");
    ASSERT_EQ(bytes.size(), 16777216u);
    EXPECT_EQ(bytes.substr(0, 8), std::string("\0\0\0\0\2\0\0\0", 8));
    EXPECT_NO_THROW(image.write_toFile_raw(dir / "missing/dir/image.raw"));
}

#include "Image_2D_Photons.hpp"
#include "TestSupport.hpp"

using namespace kavot_tpx3spidr;

TEST(Image_2D_Photons, BinsPositionsOfAnEighthPixelAndRefusesOthersXFirst) {
    Image_2D_Photons image(Length(8192)); // 2048 x 2048 bins
    const struct {
        int x, y;
        std::size_t index;
        std::string refusal;
    } cases[] = {
        {0, 0, 0, ""},
        {8191, 8192, 2048, ""},
        {-8191, -8191, 0, ""}, // quotient 0 is not moved down
        {16777215, 0, 2047, ""},
        {0, 16777215, 2047u * 2048u, ""},
        {8192 * 5, 8192 * 7 + 1, 7u * 2048u + 5u, ""},
        {16777216, 0, 0, "X coordinate out of range! 2048 >= 2048!"},
        {-8192, 0, 0, "X coordinate out of range! 18446744073709551615 >= 2048!"},
        {-8193, 0, 0, "X coordinate out of range! 18446744073709551614 >= 2048!"},
        {0, 16777216, 0, "Y coordinate out of range! 2048 >= 2048!"},
        {-8192, -8192, 0, "X coordinate out of range! 18446744073709551615 >= 2048!"},
    };
    std::vector<std::uint32_t> expected(2048 * 2048);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.x << "," << c.y);
        const PhotonEvent_type photon(Length(c.x), Length(c.y), Time(0));
        if (c.refusal.empty()) {
            image.add_photonEvent<true>(photon);
            ++expected[c.index];
        } else {
            EXPECT_THROW_MESSAGE(image.add_photonEvent<true>(photon), std::out_of_range, c.refusal);
        }
        ASSERT_EQ(image.get_counts(), expected);
    }
    EXPECT_THROW(Image_2D_Photons(Length(0)), std::invalid_argument);
    EXPECT_EQ(Image_2D_Photons(Length(50000)).nPixels_x, 335u); // 16777216 / 50000, truncated
}

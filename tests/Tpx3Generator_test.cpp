// The generator's whole-detector recordings against code it does not share: the layout's transforms and the
// one-chip decoder.

#include <utility>

#include <gtest/gtest.h>

#include "ChipLayout.hpp"
#include "DetectorCanvas.hpp"

using kavot_tpx3spidr::ChipLayout;

TEST(Tpx3Generator, CanvasPixelsMapBackThroughTheLayoutsTransforms) {
    const std::pair<unsigned, ChipLayout> cases[] = {{1, ChipLayout::single()}, {4, ChipLayout::quad()}};
    for (const auto& [chips, layout] : cases) {
        SCOPED_TRACE(chips);
        const tpx3gen::DetectorCanvas canvas(chips);
        ASSERT_EQ(canvas.side_px(), layout.width_px());
        ASSERT_EQ(canvas.side_px(), layout.height_px());
        unsigned placed = 0;
        for (int gy = -1; gy <= canvas.side_px(); ++gy) {
            for (int gx = -1; gx <= canvas.side_px(); ++gx) {
                const auto pixel = canvas.chipPixel_at(gx, gy);
                const bool onCanvas = gx >= 0 && gy >= 0 && gx < canvas.side_px() && gy < canvas.side_px();
                const bool overGap = chips == 4 && (gx == 256 || gx == 257 || gy == 256 || gy == 257);
                ASSERT_EQ(pixel.has_value(), onCanvas && !overGap) << gx << ", " << gy;
                if (pixel) {
                    ASSERT_TRUE(layout.places(pixel->chip));
                    ASSERT_LT(pixel->x, 256);
                    ASSERT_LT(pixel->y, 256);
                    const auto transform = layout.transform(pixel->chip);
                    ASSERT_EQ(transform.x(pixel->x, pixel->y), gx) << "chip " << pixel->chip;
                    ASSERT_EQ(transform.y(pixel->x, pixel->y), gy) << "chip " << pixel->chip;
                    ++placed;
                }
            }
        }
        EXPECT_EQ(placed, chips * 256 * 256); // with the checks above: every chip pixel exactly once
    }
}

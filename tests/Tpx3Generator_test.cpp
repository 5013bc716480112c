// The generator's whole-detector recordings against code it does not share: the layout's transforms and the
// packet decoder. Conversion_test.cpp checks a conversion against their truth; this file checks what that cannot see.

#include <algorithm>
#include <cstdint>
#include <map>
#include <vector>

#include <gtest/gtest.h>

#include "AcquisitionGenerator.hpp"
#include "ChipLayout.hpp"
#include "DetectorCanvas.hpp"
#include "Tpx3Packet.hpp"

using kavot_tpx3spidr::ChipLayout;
namespace tpx3 = kavot_tpx3spidr::tpx3;

namespace {

/// A recording and its trigger times, kept in memory.
struct Recording {
    std::vector<std::uint64_t> file;
    std::vector<std::int64_t> triggers;
    void words(const std::uint64_t* data, std::size_t count) { file.insert(file.end(), data, data + count); }
    void trigger(std::int64_t t) { triggers.push_back(t); }
    void photon(const tpx3gen::TruthPhoton& /*photon*/) {}
};

} // namespace

TEST(Tpx3Generator, CanvasPixelsMapBackThroughTheLayoutsTransforms) {
    const std::pair<unsigned, ChipLayout> cases[] = {{1, ChipLayout::single()}, {4, ChipLayout::quad()}};
    for (const auto& [chips, layout] : cases) {
        SCOPED_TRACE(chips);
        const tpx3gen::DetectorCanvas canvas(chips);
        ASSERT_EQ(canvas.side_px(), layout.width_px());
        unsigned placed = 0;
        for (int gy = -1; gy <= canvas.side_px(); ++gy) {
            for (int gx = -1; gx <= canvas.side_px(); ++gx) {
                const auto pixel = canvas.chipPixel_at(gx, gy);
                const bool onCanvas = gx >= 0 && gy >= 0 && gx < canvas.side_px() && gy < canvas.side_px();
                const bool overGap = chips == 4 && (gx == 256 || gx == 257 || gy == 256 || gy == 257);
                ASSERT_EQ(pixel.has_value(), onCanvas && !overGap) << gx << ", " << gy;
                if (pixel) {
                    ASSERT_TRUE(layout.places(pixel->chip) && pixel->x < 256 && pixel->y < 256) << gx << ", " << gy;
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

TEST(Tpx3Generator, EachChipHasEveryTriggerOnceAndItsHeartbeatsAfterTheStaleOnes) {
    const struct {
        double heartbeat_seconds;
        unsigned stale;
        unsigned maxChunk;
    } cases[] = {{0.5, 0, 1000}, {0.25, 3, 2}, {1, 1, 8}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.heartbeat_seconds << " s, " << c.stale << " stale");
        Recording recording;
        tpx3gen::AcquisitionGenerator({{.hits = 8000, .hitRate_perSecond = 4000, .maxChunkPackets = c.maxChunk},
                                       4,
                                       c.heartbeat_seconds,
                                       c.stale,
                                       false})
            .run(recording);
        const std::vector<std::uint64_t>& file = recording.file;
        // By chip: heartbeats and trigger times, in ticks.
        std::map<std::uint64_t, std::vector<std::int64_t>> beats, triggers;
        for (std::size_t i = 0; i < file.size();) {
            const std::uint64_t chip = file[i] >> 32 & 0xFF;
            const std::size_t end = i + 1 + (file[i] >> 48) / 8;
            ASSERT_LE(end - i - 1, c.maxChunk);
            for (std::size_t w = i + 1; w < end; ++w) {
                const std::uint64_t type = file[w] >> 56;
                if (type != 0x44) {
                    ASSERT_GE(beats[chip].size(), c.stale) << "word " << w; // the stale heartbeats come first
                    if (type == 0x6F) {
                        triggers[chip].push_back(static_cast<std::int64_t>(tpx3::decode_tdcTime(file[w])));
                    }
                    continue;
                }
                // The two halves of a heartbeat lie side by side in one chunk.
                ASSERT_TRUE(w + 1 < end && file[w + 1] >> 56 == 0x45) << "word " << w;
                beats[chip].push_back(
                    static_cast<std::int64_t>(tpx3::globalTimestamp_ticks(file[w + 1], tpx3::globalLow(file[w]))));
                ++w;
            }
            i = end;
        }
        ASSERT_EQ(beats.size(), 4u);
        for (auto& [chip, times] : beats) {
            SCOPED_TRACE(chip);
            std::sort(triggers[chip].begin(), triggers[chip].end());
            EXPECT_EQ(triggers[chip], recording.triggers);
            // About 2 s of hits: after the stale heartbeats, each later than the chip's next one (as a conversion
            // tells them), one per interval from 1 s on, the chip's first up to 1 ms late (unsigned: not early).
            ASSERT_GE(times.size(), c.stale + static_cast<std::size_t>(1.9 / c.heartbeat_seconds));
            for (std::size_t k = 0; k < c.stale; ++k) {
                EXPECT_GT(times[k], times[k + 1]);
            }
            EXPECT_LE(static_cast<std::uint64_t>(times[c.stale] - 640'000'000), 640'000u);
            EXPECT_EQ(times.back() - times[c.stale], static_cast<std::int64_t>(times.size() - 1 - c.stale) *
                                                         std::llround(c.heartbeat_seconds / tpx3gen::tick_seconds));
        }
    }
}

// The generator's whole-detector recordings against code it does not share: the layout's transforms and the
// one-chip decoder.

#include <algorithm>
#include <cstdint>
#include <map>
#include <vector>

#include <gtest/gtest.h>

#include "AcquisitionGenerator.hpp"
#include "ChipLayout.hpp"
#include "DetectorCanvas.hpp"
#include "Tpx3DataSet.hpp"

namespace {

using kavot_tpx3spidr::ChipLayout;
using tpx3gen::AcquisitionSettings;
using u64 = std::uint64_t;

/// A recording and its truth, kept in memory.
struct Recording {
    std::vector<u64> file;
    std::vector<std::int64_t> triggers;
    std::vector<tpx3gen::TruthPhoton> photons;
    void words(const u64* data, std::size_t count) { file.insert(file.end(), data, data + count); }
    void trigger(std::int64_t t) { triggers.push_back(t); }
    void photon(const tpx3gen::TruthPhoton& p) { photons.push_back(p); }
};

Recording generate(const AcquisitionSettings& settings) {
    Recording recording;
    tpx3gen::AcquisitionGenerator(settings).run(recording);
    return recording;
}

/// The chunks of each chip, in file order, as a recording of that chip alone.
std::map<unsigned, std::vector<u64>> chipStreams(const std::vector<u64>& file) {
    std::map<unsigned, std::vector<u64>> streams;
    for (std::size_t i = 0; i < file.size();) {
        const u64 packets = (file[i] >> 48) / 8;
        auto& stream = streams[static_cast<unsigned>((file[i] >> 32) & 0xFF)];
        stream.insert(stream.end(), file.begin() + static_cast<std::ptrdiff_t>(i),
                      file.begin() + static_cast<std::ptrdiff_t>(i + 1 + packets));
        i += 1 + packets;
    }
    return streams;
}

struct CanvasHit {
    long t;
    int gx;
    int gy;
    unsigned tot;
    unsigned chip;
};

bool linked(const CanvasHit& a, const CanvasHit& b) {
    return (a.gx - b.gx) * (a.gx - b.gx) + (a.gy - b.gy) * (a.gy - b.gy) <= 9;
}

/// Whether every hit is linked to the first through hits no more than 3 pixels apart.
bool linkedAtDSpace3(const std::vector<CanvasHit>& hits) {
    std::vector<bool> reached(hits.size(), false);
    std::vector<std::size_t> open{0};
    reached[0] = true;
    while (!open.empty()) {
        const std::size_t k = open.back();
        open.pop_back();
        for (std::size_t j = 0; j < hits.size(); ++j) {
            if (!reached[j] && linked(hits[k], hits[j])) {
                reached[j] = true;
                open.push_back(j);
            }
        }
    }
    return std::all_of(reached.begin(), reached.end(), [](bool r) { return r; });
}

} // namespace

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

TEST(Tpx3Generator, PhotonsOverTheGapStayLinkedAtDSpace3) {
    // Whatever falls into the gap, the hits left on its two sides are at most 3 pixels from each other.
    const tpx3gen::DetectorCanvas canvas(4);
    for (int cy = 250; cy <= 263; ++cy) {
        for (int cx = 250; cx <= 263; ++cx) {
            for (std::size_t n = 1; n <= tpx3gen::PhotonShape::maxHits; ++n) {
                std::vector<CanvasHit> landed;
                for (std::size_t h = 0; h < n; ++h) {
                    const auto& offset = tpx3gen::PhotonShape::offsets()[h];
                    if (canvas.chipPixel_at(cx + offset[0], cy + offset[1])) {
                        landed.push_back({0, cx + offset[0], cy + offset[1], 0, 0});
                    }
                }
                EXPECT_TRUE(landed.empty() || linkedAtDSpace3(landed)) << cx << ", " << cy << ", n " << n;
            }
        }
    }
}

TEST(Tpx3Generator, EachChipDecodedAloneHoldsTheTruth) {
    struct Case {
        const char* name;
        AcquisitionSettings settings;
    };
    // 6000 hits over about 1.5 s: within 13.4 s of each chip's first heartbeat, where the decoder is exact.
    const auto with = [](unsigned chips, u64 seed, double disorder, unsigned maxChunk, double start) {
        return AcquisitionSettings{{.hits = 6000,
                                    .hitRate_perSecond = 4000,
                                    .seed = seed,
                                    .noiseFraction = 0,
                                    .disorder_seconds = disorder,
                                    .tdcRate_perSecond = 50,
                                    .startTime_seconds = start,
                                    .maxChunkPackets = maxChunk},
                                   chips,
                                   0.5,
                                   0,
                                   true};
    };
    const Case cases[] = {
        {"one chip", with(1, 1, 0, 1000, 1)},
        {"quad, chunks of 8, 1 ms lag", with(4, 2, 1e-3, 8, 1)},
        {"quad, chunks of 2, 30 ms lag", with(4, 3, 3e-2, 2, 1)},
        {"quad past the pixel clock's 26.8 s", with(4, 4, 1e-3, 100, 26.5)},
    };
    for (const auto& [name, settings] : cases) {
        SCOPED_TRACE(name);
        const Recording recording = generate(settings);
        const ChipLayout layout = settings.chips == 4 ? ChipLayout::quad() : ChipLayout::single();
        const auto streams = chipStreams(recording.file);
        ASSERT_EQ(streams.size(), settings.chips);
        ASSERT_GT(recording.triggers.size(), 50u);
        std::vector<CanvasHit> hits;
        for (const auto& [chip, words] : streams) {
            const auto data = kavot_tpx3spidr::Data_Tpx3Spidr::make_from_data_tpx3spidr</*useGlobalTime=*/true>(
                words.data(), words.size());
            std::vector<std::int64_t> triggers;
            for (const auto& trigger : data.get_tdc1Triggers()) {
                triggers.push_back(trigger.get_value());
            }
            std::sort(triggers.begin(), triggers.end());
            EXPECT_EQ(triggers, recording.triggers) << "chip " << chip; // each trigger once in every chip
            const auto transform = layout.transform(chip);
            for (std::size_t k = 0; k < data.size(); ++k) {
                const auto& hit = data[k];
                hits.push_back({hit.get_toa().get_value(), transform.x(hit.get_x_px(), hit.get_y_px()),
                                transform.y(hit.get_x_px(), hit.get_y_px()), hit.get_tot(), chip});
            }
        }
        std::stable_sort(hits.begin(), hits.end(), [](const auto& a, const auto& b) { return a.t < b.t; });
        // The photons, cut where no hit follows within 500 ns (the truth puts 1 us between them).
        std::size_t first = 0;
        std::size_t photon = 0;
        for (std::size_t end = 1; end <= hits.size(); ++end) {
            if (end < hits.size() && hits[end].t - hits[end - 1].t <= 320) {
                continue;
            }
            ASSERT_LT(photon, recording.photons.size());
            const auto& truth = recording.photons[photon++];
            const std::vector<CanvasHit> group(hits.begin() + static_cast<std::ptrdiff_t>(first),
                                               hits.begin() + static_cast<std::ptrdiff_t>(end));
            first = end;
            u64 sumW = 0, sumWx = 0, sumWy = 0;
            unsigned totSum = 0, totMax = 0;
            bool earliestOnChip = false;
            for (const auto& hit : group) {
                sumW += hit.tot + 1;
                sumWx += (hit.tot + 1) * static_cast<u64>(hit.gx);
                sumWy += (hit.tot + 1) * static_cast<u64>(hit.gy);
                totSum += hit.tot;
                totMax = std::max(totMax, hit.tot);
                earliestOnChip = earliestOnChip || (hit.t == group.front().t && hit.chip == truth.chip);
            }
            const auto trigger = std::upper_bound(recording.triggers.begin(), recording.triggers.end(), group[0].t);
            const long index = trigger - recording.triggers.begin() - 1;
            ASSERT_EQ(truth.t_ticks, group[0].t) << "photon " << photon;
            EXPECT_EQ(truth.nHits, group.size()) << "photon " << photon;
            EXPECT_EQ(truth.x_raw, sumWx * 65536 / sumW) << "photon " << photon;
            EXPECT_EQ(truth.y_raw, sumWy * 65536 / sumW) << "photon " << photon;
            EXPECT_EQ(truth.totSum, totSum) << "photon " << photon;
            EXPECT_EQ(truth.totMax, totMax) << "photon " << photon;
            EXPECT_TRUE(earliestOnChip) << "photon " << photon;
            EXPECT_EQ(truth.trigger, index) << "photon " << photon;
            EXPECT_EQ(truth.tof_ticks, index < 0 ? -1 : group[0].t - trigger[-1]) << "photon " << photon;
            EXPECT_LE(std::abs(truth.cx_px - static_cast<double>(group[0].gx)), 2.5) << "photon " << photon;
            EXPECT_LE(std::abs(truth.cy_px - static_cast<double>(group[0].gy)), 2.5) << "photon " << photon;
            EXPECT_TRUE(linkedAtDSpace3(group)) << "photon " << photon;
        }
        EXPECT_EQ(photon, recording.photons.size());
    }
}

TEST(Tpx3Generator, EachChipHasItsHeartbeatsAfterTheStaleOnes) {
    struct Case {
        double heartbeat_seconds;
        unsigned stale;
        unsigned maxChunk;
    };
    const Case cases[] = {{0.5, 0, 1000}, {0.25, 3, 2}, {1, 1, 8}, {0, 0, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.heartbeat_seconds << " s, " << c.stale << " stale");
        AcquisitionSettings settings{{.hits = 8000, .hitRate_perSecond = 4000, .maxChunkPackets = c.maxChunk},
                                     4,
                                     c.heartbeat_seconds,
                                     c.stale,
                                     false};
        const Recording recording = generate(settings);
        const auto interval_ticks = static_cast<std::int64_t>(c.heartbeat_seconds / tpx3gen::tick_seconds);
        for (const auto& [chip, words] : chipStreams(recording.file)) {
            SCOPED_TRACE(chip);
            std::vector<std::int64_t> beats; // in ticks
            std::size_t packet = 0;          // of the chip, headers not counted
            for (std::size_t i = 0; i < words.size();) {
                const std::size_t end = i + 1 + (words[i] >> 48) / 8;
                ASSERT_LE(end - i - 1, c.maxChunk);
                for (std::size_t w = i + 1; w < end; ++w, ++packet) {
                    const u64 type = words[w] >> 56;
                    ASSERT_NE(type, 0x45u) << "packet " << packet;
                    if (type == 0x44) {
                        // The two halves of one global time lie side by side in one chunk; the stale ones first.
                        ASSERT_TRUE(w + 1 < end && words[w + 1] >> 56 == 0x45) << "packet " << packet;
                        if (beats.size() < c.stale) {
                            EXPECT_EQ(packet, 2 * beats.size());
                        }
                        beats.push_back(static_cast<std::int64_t>(
                            ((words[w + 1] >> 16 & 0xFFFF) << 32 | (words[w] >> 16 & 0xFFFFFFFF)) * 16));
                        ++w;
                        ++packet;
                    }
                }
                i = end;
            }
            if (c.heartbeat_seconds == 0) {
                EXPECT_TRUE(beats.empty());
                continue;
            }
            // About 2 s of hits: a heartbeat per interval, after the stale ones.
            ASSERT_GE(beats.size(), c.stale + static_cast<std::size_t>(1.9 / c.heartbeat_seconds));
            ASSERT_LE(beats.size(), c.stale + static_cast<std::size_t>(2.1 / c.heartbeat_seconds) + 1);
            const auto trueBeats = std::vector<std::int64_t>(beats.begin() + c.stale, beats.end());
            const std::int64_t start_ticks = 640'000'000; // 1 s
            EXPECT_GE(trueBeats.front(), start_ticks);
            EXPECT_LE(trueBeats.front(), start_ticks + 640'000); // staggered by at most 1 ms
            for (std::size_t k = 1; k < trueBeats.size(); ++k) {
                EXPECT_EQ(trueBeats[k] - trueBeats[k - 1], interval_ticks);
            }
            for (std::size_t k = 0; k < c.stale; ++k) {
                EXPECT_GT(beats[k], trueBeats.back() + 60000 * 640'000'000L); // from an acquisition 61000 s on
                EXPECT_GT(beats[k], beats[k + 1]); // later than the chip's next heartbeat: told stale
            }
        }
    }
}

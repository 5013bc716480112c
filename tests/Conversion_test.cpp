// kavot convert against the ground truth of generated recordings (quad or one chip, heartbeats or none, stale
// heartbeats, readout lag, chunks of a few words, parts on several threads) and on the real quad recordings.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AcquisitionGenerator.hpp"
#include "Conversion.hpp"
#include "Data_Tpx3Spidr.hpp"

namespace {

using namespace kavot_tool;
using kavot_tpx3spidr::SpillingList;
using kavot_tpx3spidr::Time;

/// A conversion's photons and triggers, kept in memory.
class Collected : public ConversionOutput {
public:
    void photons(const ConvertedPhoton* first, std::size_t count) override {
        all.insert(all.end(), first, first + count);
    }
    void finish(const ConversionFacts& /*facts*/, const SpillingList<Time>& triggers_) override {
        triggers = triggers_.to_vector();
    }
    std::vector<ConvertedPhoton> all;
    std::vector<Time> triggers;
};

/// A generated recording on disk and what its generator drew.
struct Truth {
    std::ofstream file;
    std::vector<std::int64_t> triggers;
    std::vector<tpx3gen::TruthPhoton> photons;
    void words(const std::uint64_t* data, std::size_t count) {
        file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(count * 8));
    }
    void trigger(std::int64_t t) { triggers.push_back(t); }
    void photon(const tpx3gen::TruthPhoton& p) { photons.push_back(p); }
};

std::filesystem::path scratch() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kavot_conversion_XXXXXX").string();
    return mkdtemp(pattern.data());
}

} // namespace

TEST(Conversion, RecoversTheGeneratedPhotonsTriggersAndTimesOfFlight) {
    const struct Case {
        const char* name;
        unsigned chips;
        double seconds, hitRate, heartbeat, lag;
        unsigned stale, maxChunk, threads;
    } cases[] = {
        {"quad, 2 minutes, heartbeats every second, chunks of 8", 4, 120, 6000, 1, 1e-3, 1, 8, 1},
        {"quad, heartbeats every 10 s, two stale per chip", 4, 45, 6000, 10, 1e-3, 2, 8, 1},
        {"one chip, no heartbeat at all", 1, 70, 3000, 0, 1e-4, 0, 100, 1},
        {"quad in parts on three threads", 4, 12, 400000, 1, 5e-4, 1, 8, 3},
    };
    const std::filesystem::path dir = scratch();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        tpx3gen::AcquisitionSettings settings;
        settings.camera.hitRate_perSecond = c.hitRate;
        settings.camera.hits = static_cast<std::uint64_t>(c.hitRate * c.seconds);
        settings.camera.noiseFraction = 0;
        settings.camera.disorder_seconds = c.lag;
        settings.camera.tdcRate_perSecond = 60;
        settings.camera.maxChunkPackets = c.maxChunk;
        settings.chips = c.chips;
        settings.heartbeat_seconds = c.heartbeat;
        settings.staleHeartbeats = c.stale;
        settings.truth = true;
        Truth truth{std::ofstream(dir / "r.tpx3", std::ios::binary), {}, {}};
        tpx3gen::AcquisitionGenerator(settings).run(truth);
        truth.file.close();

        // dSpace 3 links the hits of a photon on both sides of the gap; every cluster is accepted.
        ConversionSettings convert;
        convert.clustering.dSpace = 3;
        convert.clustering.nPxMin = 1;
        convert.clustering.weightMax = 1e9;
        convert.threads = c.threads;
        Collected got;
        const ConversionFacts facts = convert_recording((dir / "r.tpx3").string(), convert, {&got}, dir.string());
        EXPECT_EQ(facts.layout.width_px(), c.chips == 4 ? 514 : 256);
        EXPECT_EQ(facts.staleHeartbeats, c.chips * c.stale);
        EXPECT_EQ(facts.followsData, c.heartbeat == 0);
        EXPECT_EQ(facts.gapCount, 0u);
        ASSERT_EQ(got.triggers.size(), truth.triggers.size());
        for (std::size_t k = 0; k < truth.triggers.size(); ++k) {
            ASSERT_EQ(got.triggers[k].get_value(), truth.triggers[k]) << "trigger " << k;
        }
        ASSERT_EQ(got.all.size(), truth.photons.size());
        for (std::size_t k = 0; k < got.all.size(); ++k) {
            const ConvertedPhoton& p = got.all[k];
            const tpx3gen::TruthPhoton& expected = truth.photons[k];
            SCOPED_TRACE(testing::Message() << "photon " << k << " of " << got.all.size());
            ASSERT_EQ(p.measures.photon.toa.get_value(), expected.t_ticks);
            ASSERT_EQ(p.measures.photon.x.get_value(), static_cast<int>(expected.x_raw));
            ASSERT_EQ(p.measures.photon.y.get_value(), static_cast<int>(expected.y_raw));
            // The centroid lies within the cluster's spread (at most 2 pixels) of the point drawn around.
            ASSERT_NEAR(p.measures.photon.x.get_px(), expected.cx_px, 2.5);
            ASSERT_NEAR(p.measures.photon.y.get_px(), expected.cy_px, 2.5);
            ASSERT_EQ(p.trigger, expected.trigger);
            ASSERT_EQ(p.tof_ticks, expected.tof_ticks);
            ASSERT_EQ(p.measures.nHits, expected.nHits);
            ASSERT_EQ(p.measures.totSum, expected.totSum);
            ASSERT_EQ(p.measures.totMax, expected.totMax);
            ASSERT_EQ(p.measures.chip, expected.chip);
        }
    }
    std::filesystem::remove_all(dir);
}

TEST(RealRecordings, WithinVundrelsTimeRangeThePhotonsAreVundrels) {
    const std::filesystem::path folder(KAVOT_TEST_DATA_DIR);
    if (!std::filesystem::exists(folder / "Tantalum_IronPowder.tpx3")) {
        GTEST_SKIP() << "no real recordings in " << folder;
    }
    // One chip within 13.4 s of its heartbeat, and a quad of 2 s on one frame: the photons (and the triggers)
    // vundrel finds with -T, through the data set in memory.
    for (const auto& [name, layout] : {std::pair{"Tantalum_IronPowder.tpx3", kavot_tpx3spidr::ChipLayout::single()},
                                       {"raw_test_data_serval_4_3_0.tpx3", kavot_tpx3spidr::ChipLayout::overlay()}}) {
        SCOPED_TRACE(name);
        const std::string path = (folder / name).string();
        const auto data = kavot_tpx3spidr::Data_Tpx3Spidr::make_from_file_tpx3spidr<true>(path);
        ConversionSettings settings;
        settings.layout = layout;
        const auto expected = kavot_tpx3spidr::reconstruct_photonEvents_fullChain_direct(data, settings.clustering);
        Collected got;
        convert_recording(path, settings, {&got}, "");
        ASSERT_EQ(got.all.size(), expected.photonEvents.size());
        for (std::size_t k = 0; k < got.all.size(); ++k) {
            ASSERT_EQ(got.all[k].measures.photon, expected.photonEvents[k]) << "photon " << k;
        }
        EXPECT_EQ(got.triggers, *expected.extTriggers);
    }
}

TEST(RealRecordings, QuadRecordingsRunOnContinuousTime) {
    const std::filesystem::path folder(KAVOT_TEST_DATA_DIR);
    if (!std::filesystem::exists(folder / "suann_socket_background_serval32.tpx3")) {
        GTEST_SKIP() << "no real recordings in " << folder;
    }
    constexpr double tick = Time::tick_seconds;
    {
        // 120 s of four chips with a 60 Hz trigger carried by each: photons over the whole acquisition, the
        // triggers once each, 1/60 s apart.
        Collected got;
        const ConversionFacts facts = convert_recording((folder / "suann_socket_background_serval32.tpx3").string(),
                                                        ConversionSettings{}, {&got}, "");
        EXPECT_EQ(facts.layout.get_name(), "quad");
        ASSERT_FALSE(got.all.empty());
        EXPECT_NEAR(static_cast<double>(got.all.front().measures.photon.toa.get_value()) * tick, 0.16, 0.1);
        EXPECT_NEAR(static_cast<double>(got.all.back().measures.photon.toa.get_value()) * tick, 119.9, 0.2);
        ASSERT_EQ(got.triggers.size(), 7200u);
        for (std::size_t k = 1; k < got.triggers.size(); ++k) {
            ASSERT_NEAR(static_cast<double>((got.triggers[k] - got.triggers[k - 1]).get_value()) * tick, 1.0 / 60,
                        1e-6);
        }
    }
    {
        // Four stale heartbeats at the start; the triggers run for about 220 s without a backward step.
        Collected got;
        const ConversionFacts facts = convert_recording(
            (folder / "greg_220ms_TDC_GDC_enabled_20230214_3.tpx3").string(), ConversionSettings{}, {&got}, "");
        EXPECT_EQ(facts.staleHeartbeats, 4u);
        ASSERT_EQ(got.triggers.size(), 13290u);
        EXPECT_NEAR(static_cast<double>((got.triggers.back() - got.triggers.front()).get_value()) * tick, 225.7, 0.5);
        EXPECT_NEAR(static_cast<double>(got.triggers.back().get_value()) * tick, 221.3, 0.1);
    }
}

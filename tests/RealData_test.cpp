// Real recordings, against an independent count of their packets, streamed and clustered in parts as in memory
// in both time modes. Skipped with a message when the folder of recordings is not there.

#include "Data_Tpx3Spidr.hpp"
#include "Reconstruction_switch.hpp"
#include "TestSupport.hpp"
#include "Tpx3Parts.hpp"

using namespace kavot_tpx3spidr;

namespace {

struct Counts {
    std::size_t pixels = 0, tdc = 0, globalHigh = 0;
};

/// Counts packet types with a plain byte-wise walk, independent of the decoder's code.
Counts countPackets(const std::string& bytes) {
    Counts counts;
    std::size_t at = 0;
    while (at + 8 <= bytes.size()) {
        const auto size = static_cast<unsigned char>(bytes[at + 6]) | static_cast<unsigned char>(bytes[at + 7]) << 8;
        at += 8;
        for (std::size_t w = 0; w < static_cast<std::size_t>(size) / 8; ++w, at += 8) {
            const auto top = static_cast<unsigned char>(bytes[at + 7]);
            counts.pixels += (top >> 4) == 0xB;
            counts.tdc += (top >> 4) == 0x6;
            counts.globalHigh += top == 0x45;
        }
    }
    return counts;
}

std::vector<std::filesystem::path> recordings() {
    std::vector<std::filesystem::path> files;
    std::error_code absent;
    for (const auto& entry : std::filesystem::directory_iterator(KAVOT_TEST_DATA_DIR, absent)) {
        if (entry.path().extension() == ".tpx3") {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

/// The data set decodes every packet, in time order; the file streamed block by block gives the same order.
template <bool useGlobalTime>
void checkDecoded(const std::filesystem::path& file, const Counts& counts) {
    SCOPED_TRACE(useGlobalTime ? "global time" : "raw time");
    const auto data = Data_Tpx3Spidr::make_from_file_tpx3spidr<useGlobalTime>(file.string());
    ASSERT_EQ(data.size(), counts.pixels);
    ASSERT_EQ(data.get_tdc1Triggers().size(), counts.tdc);
    const Tpx3InputFile input(file.string());
    const Tpx3Census census = census_tpx3<useGlobalTime>(input);
    EXPECT_EQ(census.tdcTriggers.to_vector(), data.get_tdc1Triggers());
    Tpx3HitSource source(input, census, Tpx3ScaleDecoding<useGlobalTime>(census));
    std::size_t k = 0;
    for (; source.has(k); ++k) {
        ASSERT_LT(k, data.size());
        ASSERT_EQ(source[k], data[k]) << "position " << k;
        const auto& hit = data[k];
        ASSERT_TRUE(hit.get_x_px() >= 0 && hit.get_x_px() <= 255 && hit.get_y_px() <= 255 && hit.get_tot() <= 1023);
        source.discardBefore(k);
    }
    EXPECT_EQ(k, data.size());
    // Clustered in parts of a block each on three threads: the photons of the whole, for every algorithm.
    const ReconstructionParameters_PhotonEvents p{2.0, Time(64), 2, 200, 1.0, 5000.0, false};
    for (const Algorithm algorithm :
         {Algorithm::fullChain_direct, Algorithm::checkNextOnly, Algorithm::forwardChain_pixelBuildup}) {
        DataSetSequence whole(data);
        VectorPhotonSink expected;
        reconstruct_photonEvents_into(algorithm, whole, p, expected);
        VectorPhotonSink inParts;
        cluster_inParts(
            input, census, Tpx3ScaleDecoding<useGlobalTime>(census), plan_parts(census, 1), p.dTime.get_value(), 3, "",
            1 << 21, [&](auto& sequence, auto& sink) { reconstruct_photonEvents_into(algorithm, sequence, p, sink); },
            inParts);
        EXPECT_EQ(inParts.photons, expected.photons) << static_cast<int>(algorithm);
    }
}

} // namespace

TEST(RealData, RecordingsDecodeInBothTimeModes) {
    const auto files = recordings();
    if (files.empty()) {
        GTEST_SKIP() << "no real recordings in " << KAVOT_TEST_DATA_DIR << "; set KAVOT_TEST_DATA_DIR to run this test";
    }
    // The documented packet counts of known recordings, which anchor the independent count.
    const std::map<std::string, std::pair<std::size_t, std::size_t>> documented{
        {"Tantalum_IronPowder.tpx3", {505721, 100}},
        {"suann_socket_background_serval32.tpx3", {98548, 28800}},
        {"greg_220ms_TDC_GDC_enabled_20230214_3.tpx3", {365, 13291}},
        {"Example_1kHz_5frames.tpx3", {34, 21632}},
        {"rollover_test_data.tpx3", {26, 0}},
    };
    for (const auto& file : files) {
        SCOPED_TRACE(file.filename().string());
        const Counts counts = countPackets(testsupport::readFile(file.string()));
        if (const auto known = documented.find(file.filename().string()); known != documented.end()) {
            EXPECT_EQ(std::pair(counts.pixels, counts.tdc), known->second);
        }
        checkDecoded<false>(file, counts);
        if (counts.globalHigh > 0) {
            checkDecoded<true>(file, counts);
        } else {
            EXPECT_THROW(Data_Tpx3Spidr::make_from_file_tpx3spidr<true>(file.string()), std::invalid_argument);
        }
    }
}

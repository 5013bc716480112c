// The streaming run against the in-memory functions: the same photons, the same file bytes.

#include <cstring>
#include <filesystem>
#include <random>

#include <gtest/gtest.h>

#include "Data_Tpx3Spidr.hpp"
#include "Parameters.hpp"
#include "PhotonEvents.hpp"
#include "Reconstruction_switch.hpp"
#include "TestSupport.hpp"
#include "Tpx3Generator.hpp"

using namespace kavot_tpx3spidr;
using namespace testsupport;

namespace {

struct Shape {
    const char* name;
    tpx3gen::Settings settings;
};

std::vector<Shape> shapes(std::mt19937_64& random) {
    std::vector<Shape> all;
    tpx3gen::Settings base;
    base.hits = 2000 + random() % 3000;
    base.seed = random();
    base.maxChunkPackets = 1 + static_cast<unsigned>(random() % 500);
    all.push_back({"ordered", base});
    auto disordered = base;
    disordered.disorder_seconds = 5e-6;
    all.push_back({"disordered", disordered});
    auto reversed = base;
    reversed.reverse = true;
    all.push_back({"reversed", reversed});
    auto bursts = base;
    bursts.hitRate_perSecond = 5e8; // denser than dTime: clusters overlap
    bursts.meanClusterSize = 12;
    all.push_back({"bursts", bursts});
    auto gaps = base;
    gaps.hitRate_perSecond = 200; // 20 to 40 s: long gaps, times wrap around the reference and are repaired
    gaps.hits = 2000 + random() % 3000;
    gaps.startTime_seconds = 20;
    all.push_back({"gaps and rollovers", gaps});
    return all;
}

ReconstructionParameters_PhotonEvents randomSettings(std::mt19937_64& random) {
    return {static_cast<double>(random() % 40) / 10.0 - 0.5,
            Time(static_cast<long>(random() % 200) - 5),
            random() % 4,
            2 + random() % 30,
            static_cast<double>(random() % 50),
            static_cast<double>(500 + random() % 5000),
            random() % 2 == 0};
}

template <bool useGlobalTime>
std::vector<PhotonEvent_type> streamed(const std::vector<std::uint64_t>& words,
                                       Algorithm algorithm,
                                       const ReconstructionParameters_PhotonEvents& p,
                                       long window) {
    const Tpx3Census census = census_tpx3(words.data(), words.size());
    Tpx3HitStream<useGlobalTime> stream(words.data(), words.size(), census, window);
    VectorPhotonSink sink(0);
    reconstruct_photonEvents_into(algorithm, stream, p, sink);
    return sink.photons;
}

template <bool useGlobalTime>
std::vector<PhotonEvent_type>
inMemory(const std::vector<std::uint64_t>& words, Algorithm algorithm, const ReconstructionParameters_PhotonEvents& p) {
    const auto data = Data_Tpx3Spidr::make_from_data_tpx3spidr<useGlobalTime>(words.data(), words.size());
    DataSetSequence sequence(data);
    VectorPhotonSink sink(0);
    reconstruct_photonEvents_into(algorithm, sequence, p, sink);
    return sink.photons;
}

/// Every activation the stream releases, in order.
template <bool useGlobalTime>
std::vector<PixelActivation> released(const std::vector<std::uint64_t>& words, long window, bool portableCode) {
    Tpx3HitStream<useGlobalTime> stream(words.data(), words.size(), census_tpx3(words.data(), words.size()), window);
    if (portableCode) {
        stream.restrict_toPortableCode();
    }
    std::vector<PixelActivation> all;
    for (std::size_t j = 0; stream.has(j); ++j) {
        all.push_back(stream[j]);
        stream.discardBefore(j);
    }
    return all;
}

} // namespace

TEST(Streaming, StreamReleasesTheDataSetOrderOrRefusesTheWindow) {
    std::mt19937_64 random(29);
    std::size_t compared = 0;
    std::size_t refused = 0;
    for (int round = 0; round < 4; ++round) {
        for (auto shape : shapes(random)) {
            // Many decoding batches, so that activations are released long before the end of the data.
            shape.settings.hits *= 20;
            const auto words = tpx3gen::generate(shape.settings).words;
            const auto data = Data_Tpx3Spidr::make_from_data_tpx3spidr<true>(words.data(), words.size());
            // Small windows release often, so that batches alternate between the register ordering (eight or
            // more pending activations) and the portable one.
            for (const long window : {1L, 256L, 1L << 14, 1L << 21}) {
                for (const bool portableCode : {false, true}) {
                    SCOPED_TRACE(testing::Message()
                                 << shape.name << " window " << window << (portableCode ? " portable" : " default"));
                    try {
                        const auto order = released<true>(words, window, portableCode);
                        ASSERT_EQ(order.size(), data.size());
                        for (std::size_t k = 0; k < order.size(); ++k) {
                            ASSERT_EQ(order[k], data[k]) << "position " << k;
                        }
                        ++compared;
                    } catch (const ReorderWindowExceeded&) {
                        ++refused;
                    }
                }
            }
        }
    }
    EXPECT_GT(compared, 60u);
    EXPECT_GT(refused, 20u);
}

TEST(Streaming, StreamedPhotonsEqualInMemoryOnEveryShapeOrTheWindowIsRefused) {
    std::mt19937_64 random(31);
    std::size_t compared = 0;
    std::size_t refused = 0;
    for (int round = 0; round < 6; ++round) {
        for (const auto& shape : shapes(random)) {
            const auto words = tpx3gen::generate(shape.settings).words;
            for (const Algorithm algorithm :
                 {Algorithm::fullChain_direct, Algorithm::checkNextOnly, Algorithm::forwardChain_pixelBuildup}) {
                const auto p = randomSettings(random);
                // From a window that only ordered input survives to one wider than any disorder generated here.
                for (const long window : {1L, 64L, 1L << 12, 1L << 21}) {
                    SCOPED_TRACE(testing::Message() << shape.name << " algorithm " << static_cast<int>(algorithm)
                                                    << " window " << window << " round " << round);
                    try {
                        ASSERT_EQ(streamed<true>(words, algorithm, p, window), inMemory<true>(words, algorithm, p));
                        ++compared;
                    } catch (const ReorderWindowExceeded&) {
                        ++refused;
                    }
                }
                try {
                    ASSERT_EQ(streamed<false>(words, algorithm, p, 1L << 40), inMemory<false>(words, algorithm, p));
                } catch (const ReorderWindowExceeded&) {
                    ++refused; // reversed input exceeds the insertion budget whatever the window
                }
            }
        }
    }
    EXPECT_GT(compared, 200u);
    EXPECT_GT(refused, 10u) << "small windows must be refused on disordered input, never give another order";
}

TEST(Streaming, RealRecordingsStreamToTheInMemoryPhotons) {
    const std::filesystem::path dir = KAVOT_TEST_DATA_DIR;
    if (!std::filesystem::is_directory(dir)) {
        GTEST_SKIP() << "no real recordings in " << dir;
    }
    std::mt19937_64 random(37);
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().extension() != ".tpx3") {
            continue;
        }
        SCOPED_TRACE(entry.path().filename().string());
        const std::string bytes = readFile(entry.path().string());
        std::vector<std::uint64_t> words(bytes.size() / 8);
        std::memcpy(words.data(), bytes.data(), words.size() * 8);
        const auto census = census_tpx3(words.data(), words.size());
        for (const Algorithm algorithm :
             {Algorithm::fullChain_direct, Algorithm::checkNextOnly, Algorithm::forwardChain_pixelBuildup}) {
            const auto p = randomSettings(random);
            if (census.hasGlobalTimestamp) {
                try {
                    EXPECT_EQ(streamed<true>(words, algorithm, p, 1L << 21), inMemory<true>(words, algorithm, p));
                } catch (const ReorderWindowExceeded&) {
                    // Hits a whole clock period behind (two recordings): the run orders those in memory.
                }
            }
            try {
                EXPECT_EQ(streamed<false>(words, algorithm, p, 1L << 21), inMemory<false>(words, algorithm, p));
            } catch (const ReorderWindowExceeded&) {
            }
        }
    }
}

TEST(Streaming, ProgramWritesTheBytesOfTheInMemoryResult) {
    const TempDir dir;
    std::mt19937_64 random(41);
    for (const auto& shape : shapes(random)) {
        const std::string input = dir / (std::string(shape.name) + ".tpx3");
        writeWords(input, tpx3gen::generate(shape.settings).words);
        for (const char* algorithm : {"default", "checkNextOnly", "forwardChain_pixelBuildup"}) {
            for (const bool tdc1 : {false, true}) {
                SCOPED_TRACE(testing::Message() << shape.name << " " << algorithm << " TDC1 " << tdc1);
                std::vector<std::string> args{"-i",      input,           "-o",        "out.kavotphot", "--algorithm",
                                              algorithm, "--photImgPath", "image.raw", "--verbose",     "-1"};
                if (tdc1) {
                    args.push_back("-T");
                }
                const auto result = runProcess(VUNDREL_BINARY, args, dir.path.string());
                ASSERT_EQ(result.status, 0) << result.err;

                Parameters parameters = [] {
                    char name[] = "vundrel";
                    char* argv[] = {name, nullptr};
                    return Parameters(1, argv);
                }();
                parameters.algorithm = algorithm;
                parameters.TDC1 = tdc1;
                const auto expected =
                    reconstruct_photonEvents_switchAlgoritms(Data_Tpx3Spidr::make_from_file_tpx3spidr<true>(input),
                                                             parameters, make_reconstructionParameters(parameters));
                std::vector<std::unique_ptr<PhotonFile::IO_Block>> blocks;
                blocks.push_back(std::make_unique<PhotonFile::IO_PhotonEvents>(expected.photonEvents));
                if (expected.extTriggers) {
                    blocks.push_back(std::make_unique<PhotonFile::IO_ExtTriggers>(*expected.extTriggers));
                }
                {
                    std::ofstream stream(dir / "expected.kavotphot", std::ios::binary);
                    PhotonFile::IO_File(std::move(blocks)).write(stream);
                }
                EXPECT_EQ(readFile(dir / "out.kavotphot"), readFile(dir / "expected.kavotphot"));
                if (tdc1) {
                    EXPECT_EQ(readFile(dir / "image.raw").size(), 16777216u);
                }
            }
        }
    }
}

TEST(Streaming, OutputFailuresAreReportedAfterThePhotonTotalLikeTheInMemoryRun) {
    const TempDir dir;
    tpx3gen::Settings settings;
    settings.hits = 3000;
    writeWords(dir / "in.tpx3", tpx3gen::generate(settings).words);
    writeFile(dir / "blocker", "x");
    // The directory cannot be created: the photon total is logged first, then the file system's error.
    const auto blocked =
        runProcess(VUNDREL_BINARY, {"-i", "in.tpx3", "-o", "blocker/sub/out.kavotphot"}, dir.path.string());
    EXPECT_EQ(blocked.status, 1);
    EXPECT_NE(blocked.out.find("Total number of reconstructed photons"), std::string::npos);
    EXPECT_NE(blocked.err.find("ERROR:"), std::string::npos);
    // An image in the directory the run creates is not written, as the in-memory run writes it before it
    // creates the directory; the photon file is written.
    const auto created =
        runProcess(VUNDREL_BINARY, {"-i", "in.tpx3", "-o", "new/out.kavotphot", "--photImgPath", "new/image.raw"},
                   dir.path.string());
    EXPECT_EQ(created.status, 0) << created.err;
    EXPECT_TRUE(std::filesystem::exists(dir / "new/out.kavotphot"));
    EXPECT_FALSE(std::filesystem::exists(dir / "new/image.raw"));
    // The image named like the output is replaced by the photon file.
    const auto same =
        runProcess(VUNDREL_BINARY, {"-i", "in.tpx3", "-o", "same.kavotphot", "--photImgPath", "./same.kavotphot"},
                   dir.path.string());
    EXPECT_EQ(same.status, 0) << same.err;
    EXPECT_NO_THROW((void)PhotonFile().read_fromFile(dir / "same.kavotphot"));
    // An output hard-linked to the input is written after the input was read, as in memory.
    std::filesystem::copy_file(dir / "in.tpx3", dir / "linked.tpx3");
    std::filesystem::create_hard_link(dir / "linked.tpx3", dir / "linked.kavotphot");
    const auto linked = runProcess(VUNDREL_BINARY, {"-i", "linked.tpx3", "-o", "linked.kavotphot"}, dir.path.string());
    EXPECT_EQ(linked.status, 0) << linked.err;
    EXPECT_NO_THROW((void)PhotonFile().read_fromFile(dir / "linked.kavotphot"));
}

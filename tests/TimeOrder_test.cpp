// The time order of a recording: the data set against a literal insertion reference, and the blocks decoded
// and merged from a file against the data set.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Data_Tpx3Spidr.hpp"
#include "Reconstruction_switch.hpp"
#include "TestSupport.hpp"
#include "Tpx3Generator.hpp"
#include "Tpx3Parts.hpp"

using namespace kavot_tpx3spidr;
using namespace testsupport;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace {

std::vector<PixelActivation> withTimes(const std::vector<long>& times) {
    std::vector<PixelActivation> activations;
    for (std::size_t i = 0; i < times.size(); ++i) {
        activations.emplace_back(static_cast<short>(i % 256), static_cast<short>(i / 256 % 256), Time(times[i]), 0);
    }
    return activations;
}

/// The order as the data set is defined: in file order, repair against the last entry of the index, then
/// insert behind every entry whose time is not later.
std::vector<PixelActivation> referenceOrder(std::vector<PixelActivation> activations) {
    std::vector<std::size_t> index;
    for (std::size_t i = 0; i < activations.size(); ++i) {
        Time& toa = activations[i].get_toa();
        if (!index.empty() && activations[index.back()].get_toa().get_value() - toa.get_value() > (1L << 33)) {
            toa = Time(toa.get_value() + (1L << 34));
        }
        std::size_t k = index.size();
        while (k > 0 && activations[index[k - 1]].get_toa() > toa) {
            --k;
        }
        index.insert(index.begin() + static_cast<std::ptrdiff_t>(k), i);
    }
    std::vector<PixelActivation> ordered;
    for (const auto i : index) {
        ordered.push_back(activations[i]);
    }
    return ordered;
}

template <typename Sequence>
std::vector<PixelActivation> all(Sequence& sequence) {
    std::vector<PixelActivation> ordered;
    for (std::size_t k = 0; sequence.has(k); ++k) {
        ordered.push_back(sequence[k]);
        sequence.discardBefore(k); // as the algorithms do, so that the source drops what it released
    }
    return ordered;
}

} // namespace

TEST(Data_Tpx3Spidr, OrdersStablyAndRepairsOneRollover) {
    struct Case {
        std::vector<long> times;
        std::vector<long> ordered;       // times in index order
        std::vector<short> fromPosition; // file position (x) of each index entry
    };
    const long P = 1L << 34;
    const long H = 1L << 33;
    const Case cases[] = {
        {{}, {}, {}},
        {{5, 3, 3, 8}, {3, 3, 5, 8}, {1, 2, 0, 3}},
        {{P - 100, 50}, {P - 100, P + 50}, {0, 1}},
        {{H + 50, 50}, {50, H + 50}, {1, 0}},     // exactly 2^33 behind: no repair
        {{H + 51, 50}, {H + 51, P + 50}, {0, 1}}, // one tick more: repaired
        {{0, 3 * P}, {0, 3 * P}, {0, 1}},         // the first activation is never repaired
        {{3 * P, 0}, {P, 3 * P}, {1, 0}},         // two periods behind: one period only
        {{P - 1, 0, 10, P - 2}, {P - 2, P - 1, P, P + 10}, {3, 0, 1, 2}},
        {{-20, 5, -(P)}, {-20, 0, 5}, {0, 2, 1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.times));
        const Data_Tpx3Spidr data(withTimes(c.times), {Time(9), Time(2)});
        ASSERT_EQ(data.size(), c.times.size());
        for (std::size_t k = 0; k < data.size(); ++k) {
            EXPECT_EQ(data[k].get_toa().get_value(), c.ordered[k]) << "entry " << k;
            EXPECT_EQ(data[k].get_x_px(), c.fromPosition[k]) << "entry " << k;
        }
        EXPECT_EQ(data.get_tdc1Triggers(), (std::vector{Time(9), Time(2)})) << "triggers keep file order";
    }
}

TEST(Data_Tpx3Spidr, OrderEqualsInsertionOnEveryInputShape) {
    // Insertion for nearly ordered input, the radix sort once insertion would cost too much.
    std::mt19937_64 random(7);
    for (int round = 0; round < 3; ++round) {
        const std::size_t n = 3000 + static_cast<std::size_t>(round) * 1111;
        std::vector<long> nearly, reversed, scattered, rollovers, ties;
        for (std::size_t i = 0; i < n; ++i) {
            nearly.push_back(static_cast<long>(i) * 40 + static_cast<long>(random() % 400));
            reversed.push_back(static_cast<long>(n - i) * 40);
            scattered.push_back(static_cast<long>(random() % (1ULL << 40)) - (1L << 39));
            // Times that jump around the 2^34 clock and the 2^33 repair threshold.
            rollovers.push_back(static_cast<long>(random() % 5) * (1L << 32) + static_cast<long>(random() % 3) - 1);
            ties.push_back(static_cast<long>(random() % 4));
        }
        for (const auto* times : {&nearly, &reversed, &scattered, &rollovers, &ties}) {
            const auto activations = withTimes(*times);
            const Data_Tpx3Spidr data(std::vector<PixelActivation>(activations), {});
            DataSetSequence sequence(data);
            ASSERT_EQ(all(sequence), referenceOrder(activations)) << "round " << round;
        }
    }
}

namespace {

struct Shape {
    const char* name;
    std::vector<std::uint64_t> words;
};

/// Recordings of many blocks in the shapes of real detector data.
std::vector<Shape> recordingShapes() {
    std::vector<Shape> shapes;
    tpx3gen::Settings base;
    base.hits = 150000;
    base.maxChunkPackets = 700;
    const auto with = [&](const char* name, auto change) {
        tpx3gen::Settings settings = base;
        change(settings);
        shapes.push_back({name, tpx3gen::generate(settings).words});
    };
    with("ordered", [](tpx3gen::Settings&) {});
    with("lag beyond a block", [](tpx3gen::Settings& s) { s.disorder_seconds = 5e-3; }); // blocks hold 3 ms
    with("reversed", [](tpx3gen::Settings& s) { s.reverse = true; });
    with("a clock period behind", [](tpx3gen::Settings& s) {
        s.hitRate_perSecond = 4000; // 20 to 57 s: the clock wraps and is repaired, later times are extended once
        s.startTime_seconds = 20;
        s.hits = 40000;
    });
    with("bursts", [](tpx3gen::Settings& s) {
        s.hitRate_perSecond = 5e8;
        s.meanClusterSize = 12;
    });
    with("chain", [](tpx3gen::Settings& s) { s.pattern = tpx3gen::Pattern::chain; });
    with("spot", [](tpx3gen::Settings& s) { s.pattern = tpx3gen::Pattern::spot; });
    // Four distinct times only: ties across every block boundary, which must keep file order.
    std::vector<std::uint64_t> ties{globalLow(0), globalHigh(0)};
    for (std::uint64_t i = 0; i < 100000; ++i) {
        ties.push_back(pixelWord(i % 256, i / 256 % 256, 1000 + 16 * (i * 7 % 4), i % 1024));
    }
    shapes.push_back({"ties", chunk(ties)});
    // Groups of three neighbours exactly dTime (64 ticks) apart, 65 ticks between groups: only there may a
    // recording be cut. A pause of a second after every 4000 groups.
    std::vector<std::uint64_t> spaced{globalLow(0), globalHigh(0)};
    for (std::uint64_t group = 0; group < 30000; ++group) {
        const std::uint64_t time = 4096 + group * 193 + group / 4000 * 640000000;
        for (std::uint64_t k = 0; k < 3; ++k) {
            spaced.push_back(pixelWord(group % 150 + k, group / 150 % 256, time + k * 64, 10));
        }
    }
    shapes.push_back({"gaps of exactly dTime, long pauses", chunk(spaced, 1000)});
    return shapes;
}

std::vector<PhotonEvent_type>
photonsOf(Algorithm algorithm, const Data_Tpx3Spidr& data, const ReconstructionParameters_PhotonEvents& p) {
    DataSetSequence sequence(data);
    VectorPhotonSink sink;
    reconstruct_photonEvents_into(algorithm, sequence, p, sink);
    return sink.photons;
}

constexpr Algorithm algorithms[] = {Algorithm::fullChain_direct, Algorithm::checkNextOnly,
                                    Algorithm::forwardChain_pixelBuildup};

} // namespace

TEST(Tpx3HitSource, GivesTheDataSetOrderAndPhotonsOfEveryShape) {
    // Streamed as the program reads them (in memory, and holding at most 1000 waiting hits so that every block
    // waits in a temporary file) against the data set: the same activations in the same order, and the same
    // photons from every algorithm.
    const TempDir dir;
    const TempDir spill;
    const ReconstructionParameters_PhotonEvents p{2.0, Time(64), 2, 200, 1.0, 5000.0, false};
    for (const auto& shape : recordingShapes()) {
        SCOPED_TRACE(shape.name);
        writeWords(dir / "r.tpx3", shape.words);
        const Tpx3InputFile file(dir / "r.tpx3");
        const Tpx3Census census = census_tpx3<true>(file);
        ASSERT_GE(census.blocks.size(), 2u);
        const auto data = Data_Tpx3Spidr::make_from_file_tpx3spidr<true>(dir / "r.tpx3");
        DataSetSequence inMemory(data);
        const auto expected = all(inMemory);
        Tpx3HitSource<true> source(file, census);
        ASSERT_EQ(all(source), expected);
        for (const Algorithm algorithm : algorithms) {
            SCOPED_TRACE(static_cast<int>(algorithm));
            Tpx3HitSource<true> spilling(file, census, spill.path.string(), 1000);
            VectorPhotonSink streamed;
            reconstruct_photonEvents_into(algorithm, spilling, p, streamed);
            ASSERT_EQ(streamed.photons, photonsOf(algorithm, data, p));
        }
    }
    EXPECT_TRUE(std::filesystem::is_empty(spill.path)) << "temporary files have no name";
}

TEST(Tpx3Parts, GiveThePhotonsOfTheWhole) {
    // Parts of one block each, clustered side by side on three threads, for dTime from the gap of every hit (negative)
    // up to one that leaves few gaps to cut at; where the order is far from the file's, the recording stays one part.
    const TempDir dir;
    for (const auto& shape : recordingShapes()) {
        SCOPED_TRACE(shape.name);
        writeWords(dir / "r.tpx3", shape.words);
        const Tpx3InputFile file(dir / "r.tpx3");
        const Tpx3Census census = census_tpx3<true>(file);
        const auto parts = plan_parts(census, 1);
        const std::string name = shape.name;
        if (name == "ordered" || name == "lag beyond a block" || name == "gaps of exactly dTime, long pauses") {
            ASSERT_EQ(parts.size(), census.blocks.size());
        }
        const auto data = Data_Tpx3Spidr::make_from_file_tpx3spidr<true>(dir / "r.tpx3");
        for (const long dT : {-1L, 0L, 64L, 6400L}) {
            const ReconstructionParameters_PhotonEvents p{2.0, Time(dT), 2, 200, 1.0, 5000.0, false};
            for (const Algorithm algorithm : algorithms) {
                SCOPED_TRACE(testing::Message() << "dT " << dT << " algorithm " << static_cast<int>(algorithm));
                VectorPhotonSink inParts;
                cluster_inParts<true>(
                    file, census, parts, dT, 3, dir.path.string(), 1 << 16,
                    [&](auto& sequence, auto& sink) { reconstruct_photonEvents_into(algorithm, sequence, p, sink); },
                    inParts);
                ASSERT_EQ(inParts.photons, photonsOf(algorithm, data, p));
            }
        }
    }
}

TEST(Tpx3Parts, PlanCutsAtBlocksUnlessTheOrderIsFarFromTheFiles) {
    // 100 blocks of 10 activations, block b with the times [100 b - lag, 100 b + 99]; or in reverse order.
    const auto censusOf = [](long lag, bool reversed) {
        Tpx3Census census;
        long latest = noTime_ticks;
        for (long b = 0; b < 100; ++b) {
            const long first = reversed ? 100 * (99 - b) : 100 * b - lag;
            const long last = reversed ? first + 99 : 100 * b + 99;
            census.blocks.push_back({0, 0, 10, latest, std::max(latest, last), first});
            latest = std::max(latest, last);
        }
        long later = std::numeric_limits<long>::max(); // each block's own smallest time becomes the later ones'
        for (auto block = census.blocks.rbegin(); block != census.blocks.rend(); ++block) {
            const long own = block->minAfter;
            block->minAfter = later;
            later = std::min(later, own);
        }
        census.pixelCount = 1000;
        return census;
    };
    struct Case {
        const char* name;
        long lag;
        bool reversed;
        std::uint64_t hitsPerPart;
        std::size_t parts;
    };
    const Case cases[] = {
        {"ordered, a part per block", 0, false, 1, 100},
        {"ordered, parts of 20 blocks", 0, false, 200, 5},
        {"ordered, one part holds it all", 0, false, 1000, 1},
        {"lag of 3 blocks, a part per block would decode all 4 times: parts grow to 13 blocks", 300, false, 1, 8},
        {"lag of 3 blocks, parts of 20 blocks", 300, false, 200, 5},
        {"reversed", 0, true, 1, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Tpx3Census census = censusOf(c.lag, c.reversed);
        const auto parts = plan_parts(census, c.hitsPerPart);
        ASSERT_EQ(parts.size(), c.parts);
        EXPECT_FALSE(parts[0].start);
        for (std::size_t p = 1; p < parts.size(); ++p) {
            // Growing starts, the first block that reaches the start, and the latest time before that block.
            const long start = *parts[p].start;
            if (p > 1) {
                EXPECT_GT(start, *parts[p - 1].start);
            }
            const std::size_t firstBlock = parts[p].firstBlock;
            EXPECT_GE(census.blocks[firstBlock].latestAfter, start);
            EXPECT_LT(census.blocks[firstBlock].latestBefore, start);
            EXPECT_EQ(parts[p].latestBefore, census.blocks[firstBlock].latestBefore);
        }
    }
}

TEST(Tpx3HitSource, RefusesAFileThatChangedSinceItsCensus) {
    const TempDir dir;
    tpx3gen::Settings settings;
    settings.hits = 100000;
    const auto words = tpx3gen::generate(settings).words;
    const auto changed = [&](const std::string& path) {
        return "Input file \"" + path + "\" changed while it was read!";
    };
    // Shorter than the census found: the read of a later block comes up short.
    writeWords(dir / "shrinks.tpx3", words);
    const Tpx3InputFile shrinks(dir / "shrinks.tpx3");
    const Tpx3Census census = census_tpx3<true>(shrinks);
    ASSERT_EQ(truncate((dir / "shrinks.tpx3").c_str(), static_cast<off_t>(words.size() * 4)), 0);
    Tpx3HitSource<true> source(shrinks, census);
    EXPECT_THAT([&] { (void)source.has(census.pixelCount - 1); },
                ThrowsMessage<std::invalid_argument>(StrEq(changed(dir / "shrinks.tpx3"))));
    // Rewritten in place with other packets: the blocks do not hold what the census counted, or the file's
    // modification time tells.
    writeWords(dir / "rewritten.tpx3", words);
    const Tpx3InputFile rewritten(dir / "rewritten.tpx3");
    const Tpx3Census counted = census_tpx3<true>(rewritten);
    std::vector<std::uint64_t> other = words;
    std::reverse(other.begin() + 2, other.end() - 1);
    {
        std::ofstream stream(dir / "rewritten.tpx3", std::ios::binary | std::ios::in | std::ios::out);
        stream.write(reinterpret_cast<const char*>(other.data()), static_cast<std::streamsize>(other.size() * 8));
    }
    EXPECT_THAT([&] { rewritten.check_unchanged(); },
                ThrowsMessage<std::invalid_argument>(StrEq(changed(dir / "rewritten.tpx3"))));
}

TEST(HitMerge, ReleasesTheStableOrderOfItsRunsInAnyMemory) {
    // Runs that overlap in time and share times, released up to the smallest time of the runs still to come,
    // against a stable sort of all of them; in memory, and with so little memory that hundreds of temporary
    // files are merged over several generations.
    std::mt19937_64 random(19);
    std::vector<std::vector<PixelActivation>> runs(400);
    std::vector<PixelActivation> everything;
    for (std::size_t r = 0; r < runs.size(); ++r) {
        const long start = static_cast<long>(random() % 2000) - 1000 + static_cast<long>(r) * 3;
        for (std::size_t k = 0, n = random() % 60; k < n; ++k) {
            runs[r].emplace_back(static_cast<short>(r), static_cast<short>(k),
                                 Time(start + static_cast<long>(random() % 40)), 0);
        }
        std::stable_sort(runs[r].begin(), runs[r].end(),
                         [](const auto& a, const auto& b) { return a.get_toa() < b.get_toa(); });
        everything.insert(everything.end(), runs[r].begin(), runs[r].end());
    }
    std::stable_sort(everything.begin(), everything.end(),
                     [](const auto& a, const auto& b) { return a.get_toa() < b.get_toa(); });
    std::vector<long> laterMin(runs.size() + 1, std::numeric_limits<long>::max());
    for (std::size_t r = runs.size(); r-- > 0;) {
        laterMin[r] =
            runs[r].empty() ? laterMin[r + 1] : std::min(laterMin[r + 1], runs[r].front().get_toa().get_value());
    }
    const TempDir spill;
    for (const std::size_t limit : {std::size_t{0}, std::size_t{5}, std::size_t{500}}) {
        SCOPED_TRACE(limit);
        HitMerge merge = limit == 0 ? HitMerge() : HitMerge(spill.path.string(), limit);
        std::vector<PixelActivation> out;
        for (std::size_t r = 0; r < runs.size(); ++r) {
            merge.add_run(std::vector<PixelActivation>(runs[r]));
            merge.release(laterMin[r + 1], out, 1 + random() % 100);
        }
        while (merge.release(std::numeric_limits<long>::max(), out, 1000) > 0) {
        }
        EXPECT_TRUE(merge.empty());
        ASSERT_EQ(out, everything);
    }
}

TEST(SpillingList, GivesBackItsValuesInOrder) {
    const TempDir spill;
    for (const std::size_t n : {std::size_t{0}, std::size_t{99}, std::size_t{100}, std::size_t{10000}}) {
        SpillingList<Time> list(spill.path.string(), 100);
        for (std::size_t k = 0; k < n; ++k) {
            list.push_back(Time(static_cast<long>(k * 7) - 50));
        }
        ASSERT_EQ(list.size(), n);
        std::size_t k = 0;
        list.for_each([&](Time time) { ASSERT_EQ(time, Time(static_cast<long>(k++ * 7) - 50)); });
        EXPECT_EQ(k, n);
    }
}

// The time order of a recording: the data set against a literal insertion reference, and the blocks decoded
// and merged from a file against the data set.

#include "Data_Tpx3Spidr.hpp"
#include "Reconstruction_switch.hpp"
#include "TestSupport.hpp"
#include "Tpx3Generator.hpp"
#include "Tpx3Parts.hpp"

using namespace kavot_tpx3spidr;
using namespace testsupport;

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

TEST(Data_Tpx3Spidr, OrderEqualsInsertionOnEveryInputShape) {
    // Around the repair threshold: exactly 2^33 behind is not repaired, one tick more is; the first activation
    // never is; two periods behind gain one period only. Equal times keep file order.
    const long P = 1L << 34;
    const long H = 1L << 33;
    std::vector<std::vector<long>> shapes{{5, 3, 3, 8}, {P - 100, 50}, {H + 50, 50},          {H + 51, 50},
                                          {0, 3 * P},   {3 * P, 0},    {P - 1, 0, 10, P - 2}, {-20, 5, -P}};
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
        shapes.insert(shapes.end(), {nearly, reversed, scattered, rollovers, ties});
    }
    for (const auto& times : shapes) {
        const auto activations = withTimes(times);
        const Data_Tpx3Spidr data(std::vector<PixelActivation>(activations), {Time(9), Time(2)});
        DataSetSequence sequence(data);
        ASSERT_EQ(all(sequence), referenceOrder(activations)) << testing::PrintToString(times).substr(0, 100);
        EXPECT_EQ(data.get_tdc1Triggers(), (std::vector{Time(9), Time(2)})) << "triggers keep file order";
    }
}

namespace {

struct Shape {
    const char* name;
    std::vector<u64> words;
};

/// Recordings of many blocks in the shapes of real detector data.
std::vector<Shape> recordingShapes() {
    std::vector<Shape> shapes;
    const auto with = [&](const char* name, tpx3gen::Settings settings) {
        shapes.push_back({name, tpx3gen::generate(settings).words});
    };
    with("ordered", {.hits = 150000, .maxChunkPackets = 700});
    with("lag beyond a block", {.hits = 150000, .disorder_seconds = 5e-3, .maxChunkPackets = 700}); // blocks hold 3 ms
    with("reversed", {.hits = 150000, .reverse = true, .maxChunkPackets = 700});
    // 20 to 57 s: the clock wraps and is repaired, later times are extended once.
    with("a clock period behind",
         {.hits = 40000, .hitRate_perSecond = 4000, .startTime_seconds = 20, .maxChunkPackets = 700});
    with("bursts", {.hits = 150000, .hitRate_perSecond = 5e8, .meanClusterSize = 12, .maxChunkPackets = 700});
    with("chain", {.pattern = tpx3gen::Pattern::chain, .hits = 150000, .maxChunkPackets = 700});
    with("spot", {.pattern = tpx3gen::Pattern::spot, .hits = 150000, .maxChunkPackets = 700});
    // Four distinct times only: ties across every block boundary, which must keep file order.
    std::vector<u64> ties{globalLow(0), globalHigh(0)};
    for (u64 i = 0; i < 100000; ++i) {
        ties.push_back(pixelWord(i % 256, i / 256 % 256, 1000 + 16 * (i * 7 % 4), i % 1024));
    }
    shapes.push_back({"ties", chunk(ties)});
    // Groups of three neighbours exactly dTime (64 ticks) apart, 65 ticks between groups: only there may a
    // recording be cut. A pause of a second after every 4000 groups.
    std::vector<u64> spaced{globalLow(0), globalHigh(0)};
    for (u64 group = 0; group < 30000; ++group) {
        const u64 time = 4096 + group * 193 + group / 4000 * 640000000;
        for (u64 k = 0; k < 3; ++k) {
            spaced.push_back(pixelWord(group % 150 + k, group / 150 % 256, time + k * 64, 10));
        }
    }
    shapes.push_back({"gaps of exactly dTime, long pauses", chunk(spaced, 1000)});
    // One hit read out two blocks after its time: the blocks before it may release nothing later than it.
    spaced.push_back(pixelWord(200, 200, 4100, 10));
    shapes.push_back({"one hit blocks late", chunk(spaced, 1000)});
    return shapes;
}

} // namespace

TEST(Tpx3Parts, StreamedSpilledAndInPartsGiveTheDataSetOrderAndPhotons) {
    // Against the data set: the activations streamed, the photons streamed holding at most 1000 waiting hits
    // (every block waits in a temporary file), and in parts of one block each clustered on three threads, for
    // dTime from the gap of every hit up to one that leaves few gaps to cut at.
    const TempDir dir;
    const TempDir spill;
    for (const auto& shape : recordingShapes()) {
        SCOPED_TRACE(shape.name);
        writeWords(dir / "r.tpx3", shape.words);
        const Tpx3InputFile file(dir / "r.tpx3");
        const Tpx3Census census = census_tpx3<true>(file);
        ASSERT_GE(census.blocks.size(), 2u);
        const auto data = Data_Tpx3Spidr::make_from_file_tpx3spidr<true>(dir / "r.tpx3");
        DataSetSequence inMemory(data);
        Tpx3HitSource source(file, census, Tpx3ScaleDecoding<true>(census));
        ASSERT_EQ(all(source), all(inMemory));
        const auto parts = plan_parts(census, 1);
        const std::string name = shape.name;
        if (name == "ordered" || name == "lag beyond a block" || name == "gaps of exactly dTime, long pauses") {
            ASSERT_EQ(parts.size(), census.blocks.size());
        }
        for (const long dT : {-1L, 0L, 64L, 6400L}) {
            const ReconstructionParameters_PhotonEvents p{2.0, Time(dT), 2, 200, 1.0, 5000.0, false};
            for (const Algorithm algorithm :
                 {Algorithm::fullChain_direct, Algorithm::checkNextOnly, Algorithm::forwardChain_pixelBuildup}) {
                SCOPED_TRACE(testing::Message() << "dT " << dT << " algorithm " << static_cast<int>(algorithm));
                DataSetSequence whole(data);
                VectorPhotonSink expected;
                reconstruct_photonEvents_into(algorithm, whole, p, expected);
                VectorPhotonSink inParts;
                cluster_inParts(
                    file, census, Tpx3ScaleDecoding<true>(census), parts, dT, 3, dir.path.string(), 1 << 16,
                    [&](auto& sequence, auto& sink) { reconstruct_photonEvents_into(algorithm, sequence, p, sink); },
                    inParts);
                ASSERT_EQ(inParts.photons, expected.photons);
                if (dT == 64) {
                    Tpx3HitSource spilling(file, census, Tpx3ScaleDecoding<true>(census), spill.path.string(), 1000);
                    VectorPhotonSink streamed;
                    reconstruct_photonEvents_into(algorithm, spilling, p, streamed);
                    ASSERT_EQ(streamed.photons, expected.photons);
                }
            }
        }
    }
    EXPECT_TRUE(std::filesystem::is_empty(spill.path)) << "temporary files have no name";
}

TEST(Tpx3Parts, PlanCutsAtBlocksUnlessTheOrderIsFarFromTheFiles) {
    // 100 blocks of 10 activations, block b with the times [100 b - lag, 100 b + 99]; or in reverse order.
    const auto censusOf = [](long lag, bool reversed) {
        const auto first = [&](long b) { return reversed ? 100 * (99 - b) : 100 * b - lag; };
        Tpx3Census census;
        census.pixelCount = 1000;
        long latest = noTime_ticks;
        for (long b = 0; b < 100; ++b) {
            long later = std::numeric_limits<long>::max(); // the smallest time of the later blocks
            for (long c = b + 1; c < 100; ++c) {
                later = std::min(later, first(c));
            }
            const long last = reversed ? first(b) + 99 : 100 * b + 99;
            census.blocks.push_back({0, 0, 10, latest, std::max(latest, last), later, 0, false, first(b), last});
            latest = std::max(latest, last);
        }
        return census;
    };
    const struct {
        const char* name;
        long lag;
        bool reversed;
        u64 hitsPerPart;
        std::size_t parts;
        std::vector<std::size_t> firstBlocks; // of the parts, when checked
    } cases[] = {
        {"ordered, a part per block", 0, false, 1, 100, {}},
        // The last 400 activations in parts a quarter as large: the worker finishing last runs alone less long.
        {"ordered, parts of 20 blocks", 0, false, 200, 11, {0, 20, 40, 60, 65, 70, 75, 80, 85, 90, 95}},
        {"ordered, parts of all 100 blocks: quarters", 0, false, 1000, 4, {0, 25, 50, 75}},
        {"lag of 3 blocks, a part per block would decode all 4 times: parts grow", 300, false, 1, 13, {}},
        {"lag of 3 blocks, parts of 20 blocks", 300, false, 200, 11, {}},
        {"reversed", 0, true, 1, 1, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Tpx3Census census = censusOf(c.lag, c.reversed);
        const auto parts = plan_parts(census, c.hitsPerPart);
        ASSERT_EQ(parts.size(), c.parts);
        EXPECT_FALSE(parts[0].start);
        if (!c.firstBlocks.empty()) {
            std::vector<std::size_t> firstBlocks;
            for (const Tpx3Part& part : parts) {
                firstBlocks.push_back(part.firstBlock);
            }
            EXPECT_EQ(firstBlocks, c.firstBlocks);
        }
        for (std::size_t p = 1; p < parts.size(); ++p) {
            // Growing starts, the first block that reaches the start, and the latest time before that block.
            const long start = *parts[p].start;
            EXPECT_TRUE(p == 1 || start > *parts[p - 1].start);
            const Tpx3Block& first = census.blocks[parts[p].firstBlock];
            EXPECT_GE(first.latestAfter, start);
            EXPECT_LT(first.latestBefore, start);
            EXPECT_EQ(parts[p].latestBefore, first.latestBefore);
        }
    }
}

TEST(Tpx3HitSource, RefusesAFileThatChangedSinceItsCensus) {
    const TempDir dir;
    const auto words = tpx3gen::generate({.hits = 100000}).words;
    const auto changed = [&](const std::string& path) {
        return "Input file \"" + path + "\" changed while it was read!";
    };
    // Shorter than the census found: the read of a later block comes up short.
    writeWords(dir / "shrinks.tpx3", words);
    const Tpx3InputFile shrinks(dir / "shrinks.tpx3");
    const Tpx3Census census = census_tpx3<true>(shrinks);
    ASSERT_EQ(truncate((dir / "shrinks.tpx3").c_str(), static_cast<off_t>(words.size() * 4)), 0);
    Tpx3HitSource source(shrinks, census, Tpx3ScaleDecoding<true>(census));
    EXPECT_THROW_MESSAGE(source.has(census.pixelCount - 1), std::invalid_argument, changed(dir / "shrinks.tpx3"));
    // Rewritten in place with other packets: the blocks or the modification time tell.
    writeWords(dir / "rewritten.tpx3", words);
    const Tpx3InputFile rewritten(dir / "rewritten.tpx3");
    const Tpx3Census counted = census_tpx3<true>(rewritten);
    std::vector<u64> other = words;
    std::reverse(other.begin() + 2, other.end() - 1);
    writeWords(dir / "rewritten.tpx3", other);
    EXPECT_THROW_MESSAGE(rewritten.check_unchanged(), std::invalid_argument, changed(dir / "rewritten.tpx3"));
}

TEST(HitMerge, ReleasesTheStableOrderOfItsRunsInAnyMemory) {
    // Overlapping runs sharing times, released up to the smallest time still to come, against a stable sort; in
    // memory, and with so little memory that hundreds of temporary files merge over several generations.
    std::mt19937_64 random(19);
    const auto byTime = [](const PixelActivation& a, const PixelActivation& b) { return a.get_toa() < b.get_toa(); };
    std::vector<std::vector<PixelActivation>> runs(400);
    std::vector<PixelActivation> everything;
    for (std::size_t r = 0; r < runs.size(); ++r) {
        const long start = static_cast<long>(random() % 2000) - 1000 + static_cast<long>(r) * 3;
        for (std::size_t k = 0, n = random() % 60; k < n; ++k) {
            runs[r].emplace_back(static_cast<short>(r), static_cast<short>(k),
                                 Time(start + static_cast<long>(random() % 40)), 0);
        }
        std::stable_sort(runs[r].begin(), runs[r].end(), byTime);
        everything.insert(everything.end(), runs[r].begin(), runs[r].end());
    }
    std::stable_sort(everything.begin(), everything.end(), byTime);
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
    for (const long n : {0L, 99L, 100L, 10000L}) {
        SpillingList<Time> list(spill.path.string(), 100);
        std::vector<Time> expected;
        for (long k = 0; k < n; ++k) {
            expected.emplace_back(k * 7 - 50);
            list.push_back(expected.back());
        }
        EXPECT_EQ(list.size(), expected.size());
        EXPECT_EQ(list.to_vector(), expected);
    }
}

TEST(HitMerge, GrowsRecordsWithBlanksKeepingThoseHeld) {
    // From empty and from held records, to sizes around the block of blanks copied at a time; never shrinks.
    const std::pair<std::size_t, std::size_t> cases[] = {{0, 0}, {0, 1}, {5, 1023}, {1000, 1024}, {1, 3000}, {9, 4}};
    for (const auto& [held, size] : cases) {
        std::vector<PixelActivation> records;
        for (std::size_t i = 0; i < held; ++i) {
            records.emplace_back(static_cast<short>(i), 1, Time(static_cast<long>(i) + 7), 3, 2);
        }
        const std::vector<PixelActivation> before = records;
        grow_blank(records, size);
        ASSERT_EQ(records.size(), std::max(held, size)) << held << " to " << size;
        EXPECT_TRUE(std::equal(before.begin(), before.end(), records.begin()));
        EXPECT_TRUE(std::all_of(records.begin() + static_cast<std::ptrdiff_t>(held), records.end(),
                                [](const PixelActivation& r) { return r == PixelActivation(0, 0, Time(0), 0); }));
    }
}

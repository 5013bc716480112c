// Decoding of SPIDR packet streams built word by word, and of generated recordings.

#include <cstdio>
#include <filesystem>
#include <set>
#include <tuple>

#include "Data_Tpx3Spidr.hpp"
#include "TestSupport.hpp"
#include "ThreadWithoutSignals.hpp"
#include "Tpx3Generator.hpp"
#include "Tpx3HitSource.hpp"

using namespace kavot_tpx3spidr;
using namespace testsupport;

namespace {

template <bool useGlobalTime>
Data_Tpx3Spidr decode(const std::vector<u64>& words) {
    return Data_Tpx3Spidr::make_from_data_tpx3spidr<useGlobalTime>(words.data(), words.size());
}

/// One chunk: a global timestamp of `reference` ticks (a multiple of 16), then `packets`.
std::vector<u64> withReference(u64 reference, std::vector<u64> packets) {
    const u64 units = reference / 16;
    packets.insert(packets.begin(), {globalLow(units & 0xFFFFFFFF), globalHigh(units >> 32)});
    return chunk(packets);
}

} // namespace

TEST(Tpx3Decoder, DecodesPixelFieldsAndTheColumnCorrection) {
    // dcol 97, spix 10, pix 0b101: x = 2 * 97 + 1 = 195, y = 4 * 10 + 1 = 41.
    const u64 word = pixelFields(97, 10, 0b101, /*toa=*/3, /*tot=*/1023, /*ftoa=*/2, /*spidr=*/1);
    const auto data = decode<false>(chunk({word}));
    ASSERT_EQ(data.size(), 1u);
    EXPECT_EQ(data[0].get_x_px(), 195);
    EXPECT_EQ(data[0].get_y_px(), 41);
    EXPECT_EQ(data[0].get_tot(), 1023);
    EXPECT_EQ(data[0].get_toa(), Time((1 << 18) + 3 * 16 + (15 - 2) - 16));
    for (const auto& [x, shift] : {std::pair{193, 0}, {194, -16}, {203, -16}, {204, 0}, {0, 0}, {255, 0}}) {
        SCOPED_TRACE(x);
        const auto one = decode<false>(chunk({pixelWord(static_cast<u64>(x), 255, 5000, 1)}));
        EXPECT_EQ(one[0].get_x_px(), x);
        EXPECT_EQ(one[0].get_y_px(), 255);
        EXPECT_EQ(one[0].get_toa().get_value(), 5000 + shift);
    }
}

TEST(Tpx3Decoder, DecodesTdcTimesOfEveryEventType) {
    const struct {
        u64 coarse, fine, eventType;
        long ticks;
    } cases[] = {
        {1, 1, 0xF, 2}, {1, 12, 0xA, 3},
        {0, 1, 0xE, 0}, {0, 0, 0xB, 0}, // coarse 0 / fine 0 reads as 0
        {1, 0, 0xF, 1}, {(1ULL << 35) - 1, 12, 0xF, static_cast<long>(((((1ULL << 35) - 1) * 12) + 11) / 6)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.coarse << "/" << c.fine);
        const auto data = decode<false>(chunk({tdcWord(c.coarse, c.fine, c.eventType)}));
        ASSERT_EQ(data.get_tdc1Triggers().size(), 1u);
        EXPECT_EQ(data.get_tdc1Triggers()[0].get_value(), c.ticks);
    }
}

TEST(Tpx3Decoder, ExtendsTimesAroundTheFirstGlobalTimestamp) {
    const u64 P = 1ULL << 34;
    const struct {
        u64 reference, raw, x, expected;
    } cases[] = {
        {P + 160, 50, 0, P + 50},
        {P + 160, P - 10, 0, P - 10},
        {160, P - 10, 0, -10UL},
        {160, 50, 0, 50},
        {P / 2 + 16, 16, 0, 16}, // the window [R - P/2, R + P/2) starts at 16
        {P / 2 + 16, 0, 0, P},   // upper half: earlier raw times are the next period
        {P / 2 + 16, P / 2 + 32, 0, P / 2 + 32},
        {5 * P + P / 2, 0, 0, 5 * P},
        {5 * P + P / 2, P - 1, 0, 6 * P - 1},
        // Column correction below zero: extended like the raw time it is congruent to.
        {5 * P + 32, 0, 194, 5 * P - 16},
        {160, 0, 200, -16UL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.reference << " " << c.raw);
        const auto words = withReference(c.reference, {pixelWord(c.x, 0, c.raw, 0)});
        EXPECT_EQ(decode<true>(words)[0].get_toa().get_value(), static_cast<long>(c.expected));
        EXPECT_EQ(decode<false>(words)[0].get_toa().get_value(),
                  static_cast<long>(c.raw) - (c.x >= 194 && c.x <= 203 ? 16 : 0));
    }
    // TDC times use the 2^36 period: 2^36 - 2 ticks is just before a reference of 160 ticks.
    const u64 tdc = ((1ULL << 36) - 2) / 2;
    EXPECT_EQ(decode<true>(withReference(160, {tdcWord(tdc, 1)})).get_tdc1Triggers()[0].get_value(), -2);
}

TEST(Tpx3Decoder, OnlyTheFirstGlobalTimestampIsTheReferenceAndLowPartStartsAtZero) {
    const u64 P = 1ULL << 34;
    // A high part before any low part: the low part is 0, so the reference is 2^32 * 16 * 4 = 4 * 2^36.
    const auto data = decode<true>(chunk({globalHigh(4), globalLow(7), globalHigh(9), pixelWord(0, 0, 32, 0)}));
    EXPECT_EQ(data[0].get_toa().get_value(), static_cast<long>((4ULL << 36) + 32));
    // Later timestamps and other packet types change nothing; subtypes other than 4 and 5 are skipped.
    const auto skipped =
        decode<true>(chunk({globalLow(10), 0x4600000000000000ULL, globalHigh(0), 0x7100000000000000ULL,
                            0x5000000000000000ULL, globalLow(99), globalHigh(99), pixelWord(0, 0, P - 16, 0)}));
    EXPECT_EQ(skipped.size(), 1u);
    EXPECT_EQ(skipped[0].get_toa().get_value(), -16);
}

TEST(Tpx3Decoder, WalksChunksOfAnySizeAndFindsStructuralErrorsBeforeDecoding) {
    const std::pair<std::vector<u64>, std::string> cases[] = {
        {{}, ""},
        {{chunkHeader(0), chunkHeader(12), pixelWord(1, 1, 1, 1)}, ""}, // 12 bytes: one packet word
        {{chunkHeader(7)}, ""},                                         // 7 / 8 = 0 packet words
        {{chunkHeader(16), pixelWord(0, 0, 0, 0)}, "End of data reached before block is complete!"},
        {{chunkHeader(8), pixelWord(0, 0, 0, 0), 0x33585055ULL}, "Invalid header entry!"},
        {{pixelWord(0, 0, 0, 0)}, "Invalid header entry!"},
        {{chunkHeader(65535)}, "End of data reached before block is complete!"},
        // The header is checked before the size it would claim.
        {{0x3358505400000000ULL | (0xFFFFULL << 48) | 1}, "Invalid header entry!"},
    };
    for (const auto& [words, message] : cases) {
        SCOPED_TRACE(message);
        if (message.empty()) {
            EXPECT_EQ(decode<false>(words).size(), words.size() > 1 ? 1u : 0u);
        } else {
            EXPECT_THROW_MESSAGE(decode<false>(words), std::logic_error, message);
            EXPECT_THROW_MESSAGE(decode<true>(words), std::logic_error, message);
        }
    }
    const std::string noGlobal = "Supplied file does not contain a global timestamp!";
    EXPECT_THROW_MESSAGE(decode<true>({}), std::invalid_argument, noGlobal);
    EXPECT_THROW_MESSAGE(decode<true>(chunk({globalLow(5), pixelWord(0, 0, 0, 0)})), std::invalid_argument, noGlobal);
}

TEST(Tpx3Decoder, FileWalkInSmallWindowsVisitsEveryChunkOnce) {
    // Windows smaller than a chunk make every chunk straddle a refill of the buffer; read ahead, a chunk also
    // straddles the ring's buffers. Walks from a later chunk, and walks that a handler ends, see what the walk in
    // memory sees; a cut last chunk is refused the same way.
    const TempDir dir;
    const auto words = tpx3gen::generate({.hits = 20000, .maxChunkPackets = 900}).words;
    writeWords(dir / "r.tpx3", words);
    writeWords(dir / "cut.tpx3", std::vector<u64>(words.begin(), words.end() - 1));
    const Tpx3InputFile file(dir / "r.tpx3");
    const Tpx3InputFile cut(dir / "cut.tpx3");
    u64 later = 0; // the header of a chunk past the first tenth
    for_eachChunk_tpx3(words.data(), words.size(), [&](const u64*, const u64*, u64 header) {
        later = header;
        return header < words.size() / 10;
    });
    struct Case {
        std::size_t window;
        bool readAhead;
        u64 from;
        std::size_t chunks; ///< the handler ends the walk after this many (0: never)
    };
    const Case cases[] = {
        {1, false, 0, 0},      {700, false, 0, 0}, {std::size_t{1} << 20, false, 0, 0},
        {5, true, 0, 0},       {700, true, 0, 0},  {700, true, later, 0},
        {1, false, later, 0},  {700, true, 0, 3},  {9000, true, 0, 100},
        {700, true, later, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.window << (c.readAhead ? " ahead from " : " from ") << c.from << " for "
                                        << c.chunks);
        std::vector<u64> walked[2];
        const auto into = [&c](std::vector<u64>& to) {
            return [&to, &c, seen = std::size_t{0}](const u64* first, const u64* last, u64 header) mutable {
                to.push_back(header);
                to.insert(to.end(), first, last);
                return c.chunks == 0 || ++seen < c.chunks;
            };
        };
        for_eachChunk_tpx3(
            file, into(walked[0]), c.window, c.from, [] {}, c.readAhead);
        for_eachChunk_tpx3(words.data(), words.size(), into(walked[1]), c.from);
        ASSERT_EQ(walked[0], walked[1]);
        if (c.chunks == 0) {
            EXPECT_THROW_MESSAGE(for_eachChunk_tpx3(
                                     cut, into(walked[0]), c.window, c.from, [] {}, c.readAhead),
                                 std::logic_error, "End of data reached before block is complete!");
        }
    }
    // A file cut after it was opened: a read ahead fails on its own thread, and the walk reports it.
    writeWords(dir / "shrinks.tpx3", words);
    const Tpx3InputFile shrinks(dir / "shrinks.tpx3");
    std::filesystem::resize_file(dir / "shrinks.tpx3", words.size() * 4);
    EXPECT_THROW_MESSAGE(for_eachChunk_tpx3(
                             shrinks, [](const u64*, const u64*, u64) {}, 700, 0, [] {}, true),
                         std::invalid_argument,
                         "Input file \"" + (dir / "shrinks.tpx3") + "\" changed while it was read!");
}

TEST(Tpx3Decoder, GeneratedRecordingsDecodeToTheGeneratedHits) {
    const std::pair<const char*, tpx3gen::Settings> cases[] = {
        {"ordered", {.hits = 30000}},
        {"disordered", {.hits = 30000, .seed = 2, .disorder_seconds = 1e-6}},
        {"reversed", {.hits = 30000, .reverse = true}},
        // 30 s: beyond the 2^33-tick half period, repaired once.
        {"long", {.hits = 3000, .hitRate_perSecond = 100, .startTime_seconds = 30}},
    };
    for (const auto& [name, settings] : cases) {
        SCOPED_TRACE(name);
        const auto generated = tpx3gen::generate(settings);
        const auto data = decode<true>(generated.words);
        ASSERT_EQ(data.size(), generated.hits.size());
        std::multiset<std::tuple<long, int, int, int>> expected, decoded;
        for (const auto& hit : generated.hits) {
            expected.emplace(generated.reference_ticks + hit.toa_ticks, hit.x, hit.y, hit.tot);
        }
        for (std::size_t k = 0; k < data.size(); ++k) {
            decoded.emplace(data[k].get_toa().get_value(), data[k].get_x_px(), data[k].get_y_px(), data[k].get_tot());
            ASSERT_TRUE(k == 0 || data[k - 1].get_toa() <= data[k].get_toa()) << "position " << k;
        }
        EXPECT_EQ(decoded, expected);
        EXPECT_GT(data.get_tdc1Triggers().size(), 0u);
    }
}

TEST(Tpx3Census, CountsEveryPacketBesideChunkHeadersThatReadAsPackets) {
    // Headers of 5632, 2048 and 3072 packets read as a pixel, global time and TDC packet (the top bits of the
    // size): summed up with the packets of the chunks around them, they would be counted (and the streamed
    // decode refuse the file as changed since its census). Then runs of small chunks longer than the census sums
    // up at once, with triggers among them.
    std::vector<std::size_t> sizes = {5, 5632, 3, 2048, 1, 3072, 16, 2, 5632, 7};
    for (std::size_t c = 0; c < 3000; ++c) {
        sizes.push_back(1 + c % 13);
    }
    std::vector<u64> words;
    u64 pixels = 0;
    u64 tdcs = 0;
    u64 time = 1000;
    for (std::size_t c = 0; c < sizes.size(); ++c) {
        words.push_back(chunkHeader(sizes[c] * 8, c % 4));
        for (std::size_t k = 0; k < sizes[c]; ++k) {
            if (k % 10 == 9) {
                words.push_back(tdcWord(time, 1));
                ++tdcs;
            } else {
                words.push_back(pixelWord(k % 256, c, time, 5));
                ++pixels;
            }
            time += 16;
        }
    }
    const TempDir dir;
    writeWords(dir / "r.tpx3", words);
    const Tpx3InputFile file(dir / "r.tpx3");
    const Tpx3Census census = census_tpx3<false>(file);
    EXPECT_EQ(census.pixelCount, pixels);
    EXPECT_EQ(census.tdcCount, tdcs);
    Tpx3HitSource source(file, census, Tpx3ScaleDecoding<false>(census));
    const auto data = Data_Tpx3Spidr::make_from_file_tpx3spidr<false>(dir / "r.tpx3");
    std::vector<Time> triggers;
    census.tdcTriggers.for_each([&](Time trigger) { triggers.push_back(trigger); });
    EXPECT_EQ(triggers, data.get_tdc1Triggers());
    std::size_t k = 0;
    for (; source.has(k); ++k) {
        ASSERT_LT(k, data.size());
        ASSERT_EQ(source[k], data[k]);
    }
    EXPECT_EQ(k, pixels);
}

TEST(GuardedMapping, AFileCutWhileMappedReadsZerosFromItsEndOnAnyThread) {
    // Three pages of words, cut to one and a half after the mapping: the words before the cut stay, those after
    // it read as zeros, from this thread and from a thread of the engine's, and the mapping is marked cut.
    const TempDir dir;
    const std::size_t perPage = static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 8;
    std::vector<u64> words(3 * perPage);
    for (std::size_t i = 0; i < words.size(); ++i) {
        words[i] = i + 1;
    }
    writeWords(dir / "cut.tpx3", words);
    const Tpx3InputFile file(dir / "cut.tpx3");
    const u64* mapped = file.words_inMemory();
    ASSERT_NE(mapped, nullptr);
    ASSERT_EQ(truncate((dir / "cut.tpx3").c_str(), static_cast<off_t>(perPage * 12)), 0);
    EXPECT_EQ(mapped[perPage + perPage / 2 - 1], perPage + perPage / 2);
    EXPECT_FALSE(file.cut());
    u64 onThread = 1;
    kavot::thread_withoutSignals([&] { onThread = mapped[2 * perPage + 5]; }).join();
    EXPECT_EQ(onThread, 0U);
    EXPECT_EQ(mapped[perPage + perPage / 2 + 1], 0U);
    EXPECT_TRUE(file.cut());
    EXPECT_THROW(file.check_unchanged(), std::invalid_argument);

    // A bus error elsewhere is not the guard's: the process ends as it would have.
    EXPECT_DEATH(
        {
            const int fd = ::open((dir / "cut.tpx3").c_str(), O_RDONLY);
            const auto* other =
                static_cast<const volatile u64*>(::mmap(nullptr, words.size() * 8, PROT_READ, MAP_SHARED, fd, 0));
            std::printf("%llu\n", static_cast<unsigned long long>(other[2 * perPage]));
        },
        "");
}

// The vector decodes and summaries of packet words against the packet decoder word by word, on every
// implementation this processor runs; and the sort of a block against a stable sort.

#include <algorithm>
#include <optional>
#include <random>

#include "TestSupport.hpp"
#include "TimeOrder.hpp"
#include "Tpx3PixelWords.hpp"

using namespace kavot_tpx3spidr;
using namespace testsupport;

namespace {

template <typename Function>
struct Variant {
    const char* name;
    Function function;
};

/// Every implementation of a dispatched function that this processor can run.
template <typename Function>
std::vector<Variant<Function>>
runnable(Function portable, [[maybe_unused]] Function avx2, [[maybe_unused]] Function avx512) {
    std::vector<Variant<Function>> variants{{"portable", portable}};
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx2")) {
        variants.push_back({"avx2", avx2});
    }
    if (__builtin_cpu_supports("avx512f")) {
        variants.push_back({"avx512", avx512});
    }
#endif
    return variants;
}

/// Chunks of 0 to 20 packets of random bits under every packet type; pixel packets also in and beside the
/// delayed columns 194-203 (dcol 96, 97, 101, 102) and at the extremes of every time field.
std::vector<u64> randomChunks(std::mt19937_64& random, std::size_t chunks) {
    const u64 types[] = {0xB, 0xB, 0xB, 0x6, 0x4, 0x0, 0x7, 0xF};
    std::vector<u64> words;
    for (std::size_t c = 0; c < chunks; ++c) {
        const std::size_t size = random() % 21;
        words.push_back(chunkHeader(size * 8, random() % 4));
        for (std::size_t k = 0; k < size; ++k) {
            u64 word = (random() >> 4) | (types[random() % 8] << 60);
            if (random() % 4 == 0) {
                const u64 dcols[] = {96, 97, 101, 102};
                word = (word & ~(u64{0x7F} << 53)) | (dcols[random() % 4] << 53);
            }
            if (random() % 8 == 0) {
                word |= 0xFFFF | (u64{0x3FFF} << 30) | (u64{0xF} << 16); // latest raw time, FToA 15
            }
            words.push_back(word);
        }
    }
    return words;
}

/// The time nearest `reference` on the pixel clock, as the decoder's time extension places it.
long extended(std::int64_t raw, long reference) {
    return tpx3::TimeExtension<tpx3::pixelPeriod_ticks>(static_cast<u64>(reference))
        .extend(tpx3::pixelTime_forExtension(raw));
}

} // namespace

TEST(Tpx3PixelWords, EveryDecodeEqualsThePacketDecoderWordByWord) {
    using namespace kavot_tpx3spidr::detail;
    const auto variants = runnable<DecodeChunks>(&decode_chunks_portable,
#if defined(__x86_64__)
                                                 &decode_chunks_avx2, &decode_chunks_avx512
#else
                                                 &decode_chunks_portable, &decode_chunks_portable
#endif
    );
    const long P = 1L << 34;
    struct Case {
        const char* name;
        std::optional<long> reference; // none: the raw times
        ChipTransform transform;
    };
    const Case cases[] = {
        {"raw times", std::nullopt, {}},
        {"around 0", 0, {}},
        {"around half a period", P / 2, {}},
        {"around just under a period", P - 1, {}},
        {"around many periods on", 5 * P + 12345, {-1, 0, 511, 0, -1, 255}}, // turned half round, on the right
        {"mirrored and swapped", 3, {0, 1, 0, 1, 0, 256}},
    };
    std::mt19937_64 random(11);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ChipPlacements placements{};
        for (unsigned chip = 0; chip < 4; ++chip) {
            placements[chip] = c.reference ? PixelPlacement::around(*c.reference, static_cast<std::uint8_t>(chip))
                                           : PixelPlacement::raw(static_cast<std::uint8_t>(chip));
            placements[chip].transform = chip % 2 == 1 ? c.transform : ChipTransform{};
        }
        const std::vector<u64> words = randomChunks(random, 300);
        // The reference: packet by packet; with `stop`, up to the first chunk with a global time packet.
        for (const bool stop : {false, true}) {
            std::vector<PixelActivation> expected;
            std::size_t expectedWords = 0;
            for (std::size_t i = 0; i < words.size(); i += 1 + tpx3::chunkWords(words[i])) {
                const auto first = words.begin() + static_cast<std::ptrdiff_t>(i) + 1;
                const auto last = first + static_cast<std::ptrdiff_t>(tpx3::chunkWords(words[i]));
                if (stop &&
                    std::any_of(first, last, [](u64 w) { return tpx3::packetType(w) == tpx3::type_globalTime; })) {
                    break;
                }
                const unsigned chip = tpx3::chunkChip(words[i]);
                const ChipTransform& t = placements[chip].transform;
                for (auto w = first; w != last; ++w) {
                    if (tpx3::packetType(*w) != tpx3::type_pixel) {
                        continue;
                    }
                    const tpx3::PixelFields pixel = tpx3::decode_pixel(*w);
                    const long time = c.reference ? extended(pixel.time_ticks, *c.reference) : pixel.time_ticks;
                    expected.emplace_back(static_cast<short>(t.x(pixel.x, pixel.y)),
                                          static_cast<short>(t.y(pixel.x, pixel.y)), Time(time), pixel.tot,
                                          static_cast<std::uint8_t>(chip));
                }
                expectedWords = i + 1 + tpx3::chunkWords(words[i]);
            }
            for (const auto& variant : variants) {
                SCOPED_TRACE(testing::Message() << variant.name << (stop ? ", stopping at global time" : ""));
                std::vector<PixelActivation> out(words.size() + pixelWords_slack, PixelActivation(0, 0, Time(0), 0));
                const ChunksDecoded decoded =
                    variant.function(words.data(), words.size(), placements, stop, out.data());
                out.resize(decoded.activations, PixelActivation(0, 0, Time(0), 0));
                EXPECT_EQ(decoded.words, expectedWords);
                ASSERT_EQ(out, expected);
            }
        }
    }
}

TEST(Tpx3PacketSummary, EverySummaryEqualsThePacketDecoderForEveryLengthAndPlacement) {
    using namespace kavot_tpx3spidr::detail;
    const auto variants = runnable<Summarize>(&summarize_portable,
#if defined(__x86_64__)
                                              &summarize_avx2, &summarize_avx512
#else
                                              &summarize_portable, &summarize_portable
#endif
    );
    std::mt19937_64 random(5);
    const std::vector<u64> chunks = randomChunks(random, 40);
    const long P = 1L << 34;
    for (const long reference : {0L, P - 1, 7 * P + 99}) {
        const auto lowest = static_cast<u64>(reference) - tpx3::pixelPeriod_ticks / 2;
        // Lengths 0 to 19 end inside a vector's lanes; the words past the end must count for nothing.
        for (std::size_t count = 0; count < chunks.size(); count += count < 20 ? 1 : 97) {
            PacketSummary expected;
            for (std::size_t i = 0; i < count; ++i) {
                const u64 type = tpx3::packetType(chunks[i]);
                expected.tdcs += type == tpx3::type_tdc;
                expected.globals += type == tpx3::type_globalTime;
                if (type == tpx3::type_pixel) {
                    const tpx3::PixelFields pixel = tpx3::decode_pixel(chunks[i]);
                    const long time = extended(pixel.time_ticks, reference);
                    ++expected.pixels;
                    expected.earliest = std::min(expected.earliest, time);
                    expected.latest = std::max(expected.latest, time);
                }
            }
            for (const auto& variant : variants) {
                SCOPED_TRACE(testing::Message() << variant.name << " reference " << reference << " count " << count);
                const PacketSummary s = variant.function(chunks.data(), count, lowest, tpx3::pixelPeriod_ticks - 1);
                EXPECT_EQ(s.pixels, expected.pixels);
                EXPECT_EQ(s.tdcs, expected.tdcs);
                EXPECT_EQ(s.globals, expected.globals);
                EXPECT_EQ(s.earliest, expected.earliest);
                EXPECT_EQ(s.latest, expected.latest);
            }
        }
    }
}

TEST(TimeOrder, SortByTimeEqualsAStableSortOnEveryShape) {
    std::mt19937_64 random(3);
    std::vector<std::pair<const char*, std::vector<long>>> shapes{
        {"empty", {}}, {"one", {5}}, {"two reversed", {5, 4}}};
    for (const std::size_t n : {40UL, 1000UL, 20000UL}) { // short runs are sorted by insertion alone
        std::vector<long> ordered, late, manyLate, reversed, ties, wide, bunched;
        for (std::size_t i = 0; i < n; ++i) {
            const auto t = static_cast<long>(i) * 40;
            ordered.push_back(t);
            late.push_back(i % 50 == 0 ? t - 400 : t);      // a few hits a few entries late: insertion keeps them
            manyLate.push_back(i % 2 == 0 ? t - 40000 : t); // every other hit far late: insertion gives up
            reversed.push_back(-t);
            ties.push_back(static_cast<long>(random() % 3));
            // Times over 2^45 ticks apart and negative: radix passes over every part of the span.
            wide.push_back(static_cast<long>(random() >> 18) - (1L << 45));
            // One far time and the rest bunched in random order: five radix passes, most buckets empty.
            bunched.push_back(i == 0 ? 1L << 50 : static_cast<long>(random() % (1U << 20)));
        }
        shapes.insert(shapes.end(), {{"ordered", ordered},
                                     {"few late", late},
                                     {"many late", manyLate},
                                     {"reversed", reversed},
                                     {"ties", ties},
                                     {"wide", wide},
                                     {"bunched", bunched}});
    }
    std::vector<PixelActivation> scratch;
    for (const auto& [name, times] : shapes) {
        SCOPED_TRACE(testing::Message() << name << " of " << times.size());
        std::vector<PixelActivation> run;
        for (std::size_t i = 0; i < times.size(); ++i) { // x and y number the file order
            run.emplace_back(static_cast<short>(i % 256), static_cast<short>(i / 256), Time(times[i]), 0);
        }
        std::vector<PixelActivation> expected = run;
        std::stable_sort(expected.begin(), expected.end(),
                         [](const PixelActivation& a, const PixelActivation& b) { return a.get_toa() < b.get_toa(); });
        // The span the caller expects only decides how the order is found: none, the exact one, one that misses
        // the earliest or the latest time (the sort finds the span itself), and a looser one.
        const long lo = times.empty() ? 0 : *std::min_element(times.begin(), times.end());
        const long hi = times.empty() ? 0 : *std::max_element(times.begin(), times.end());
        const std::optional<std::pair<long, long>> spans[] = {std::nullopt, std::pair{lo, hi}, std::pair{lo + 1, hi},
                                                              std::pair{lo, hi - 1}, std::pair{lo - 7, hi + 3000}};
        for (const auto& span : spans) {
            std::vector<PixelActivation> sorted = run;
            sort_byTime(sorted, scratch, span); // the memory of the shape before is reused
            ASSERT_EQ(sorted, expected) << (span ? span->first - lo : -1) << " " << (span ? span->second - hi : -1);
        }
    }
}

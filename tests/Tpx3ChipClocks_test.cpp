// Continuous time with a clock per chip, and chips placed on a canvas: recordings built chunk by chunk, whose true
// times are known, through the census and the streamed decode.

#include <tuple>

#include "Data_Tpx3Spidr.hpp"
#include "TestSupport.hpp"
#include "Tpx3CanvasDecoding.hpp"
#include "Tpx3ChipClockCensus.hpp"
#include "TriggerTimes.hpp"

using namespace kavot_tpx3spidr;
using namespace testsupport;

namespace {

constexpr long second = 640000000; // ticks

u64 hit(long ticks, u64 x = 10, u64 y = 10) {
    return pixelWord(x, y, static_cast<u64>(ticks) & (tpx3::pixelPeriod_ticks - 1), 5);
}
std::vector<u64> heartbeat(long ticks) {
    const auto units = static_cast<u64>(ticks) / 16;
    return {globalLow(units & 0xFFFFFFFF), globalHigh(units >> 32)};
}
/// A TDC packet at `ticks`: 35-bit coarse time in 3.125 ns, a fine time that gives the odd tick back, or 0.
u64 trigger(long ticks, u64 edge = 0xF, bool valid = true) {
    const auto t = static_cast<u64>(ticks);
    return tdcWord((t >> 1) & ((u64{1} << 35) - 1), valid ? ((t & 1) != 0 ? 7 : 1) : 0, edge);
}

struct Chunk {
    u64 chip;
    std::vector<std::vector<u64>> parts; ///< packets, joined
};

std::vector<u64> recording(const std::vector<Chunk>& chunks) {
    std::vector<u64> words;
    for (const Chunk& c : chunks) {
        std::vector<u64> packets;
        for (const auto& part : c.parts) {
            packets.insert(packets.end(), part.begin(), part.end());
        }
        const auto chunked = chunk(packets, 8000, c.chip);
        words.insert(words.end(), chunked.begin(), chunked.end());
    }
    return words;
}

using Hits = std::vector<std::tuple<long, int, int>>;

struct Converted {
    Hits hits;
    std::vector<Time> triggers;
    std::uint64_t stale;
    bool followsData;
    std::uint64_t gaps;
};

/// The census with a clock per chip, the hits streamed in time order from a file, the distinct triggers.
Converted convert(const std::vector<u64>& words, const ChipLayout& layout, tpx3::TdcKind edge) {
    const TempDir dir;
    writeWords(dir / "r.tpx3", words);
    const Tpx3InputFile file(dir / "r.tpx3");
    Tpx3ChipClockCensus clock(edge);
    const Tpx3Census census = census_tpx3(clock, file, dir.path.string());
    Converted out{{},
                  sorted_triggers(census.tdcTriggers, "", 3).to_vector(),
                  census.clocks.staleHeartbeats.size(),
                  census.clocks.followsData,
                  census.clocks.gapCount};
    Tpx3HitSource source(file, census, Tpx3CanvasDecoding(census, layout), dir.path.string(), 1000);
    for (std::size_t k = 0; source.has(k); ++k) {
        out.hits.emplace_back(source[k].get_toa().get_value(), source[k].get_x_px(), source[k].get_y_px());
        source.discardBefore(k + 1);
    }
    return out;
}

std::vector<u64> filler(long from, long step, std::size_t n) {
    std::vector<u64> packets;
    for (std::size_t k = 0; k < n; ++k) {
        packets.push_back(hit(from + static_cast<long>(k) * step));
    }
    return packets;
}
Hits fillerHits(long from, long step, std::size_t n) {
    Hits hits;
    for (std::size_t k = 0; k < n; ++k) {
        hits.emplace_back(from + static_cast<long>(k) * step, 10, 10);
    }
    return hits;
}
Hits join(Hits a, const Hits& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

} // namespace

TEST(Tpx3ChipClocks, NearestPeriodEqualsTheFixedReferenceExtension) {
    constexpr u64 P = tpx3::pixelPeriod_ticks;
    for (const long reference : {0L, 160L, static_cast<long>(P) + 160, -100L, -(1L << 40), 1L << 61, 61000 * second}) {
        for (const u64 raw :
             {u64{0}, u64{1}, P / 2 - 1, P / 2, P / 2 + 1, P - 1, (static_cast<u64>(reference) + P / 2) % P,
              (static_cast<u64>(reference) + P / 2 - 1) % P}) {
            SCOPED_TRACE(testing::Message() << reference << " " << raw);
            const long placed = tpx3::extend_nearest<P>(raw, reference);
            EXPECT_EQ(placed, tpx3::TimeExtension<P>(static_cast<u64>(reference)).extend(raw));
            EXPECT_GE(placed, reference - static_cast<long>(P / 2));
            EXPECT_LT(placed, reference + static_cast<long>(P / 2));
        }
    }
}

TEST(Tpx3ChipClocks, HeartbeatsPlaceEveryHitAndTriggerInTime) {
    const auto quad = ChipLayout::quad();
    const auto single = ChipLayout::single();
    const struct Case {
        const char* name;
        std::vector<u64> words;
        const ChipLayout& layout;
        tpx3::TdcKind edge;
        Hits hits;
        std::vector<long> triggers;
        std::uint64_t stale;
        bool followsData;
        std::uint64_t gaps;
    } cases[] = {
        // One reference would put the hits after 13.4 s a period early; the moving reference follows them. The
        // heartbeats 24 s apart leave a stretch the clock cannot bridge: reported.
        {"the reference moves with every heartbeat",
         recording({{0, {heartbeat(1 * second), {hit(second + second / 2)}}},
                    {0, {heartbeat(12 * second), {hit(12 * second + second / 2)}}},
                    {0, {heartbeat(24 * second), {hit(24 * second + second / 2), hit(23 * second)}}},
                    {0, {heartbeat(48 * second), {hit(47 * second), trigger(48 * second + 3)}}}}),
         single,
         tpx3::TdcKind::tdc1Rising,
         Hits{{second + second / 2, 10, 10},
              {12 * second + second / 2, 10, 10},
              {23 * second, 10, 10},
              {24 * second + second / 2, 10, 10},
              {47 * second, 10, 10}},
         {48 * second + 3},
         0,
         false,
         1},
        // A stale heartbeat is never a reference: what comes before the first valid one lies around it.
        {"stale heartbeats at the start",
         recording({{0, {heartbeat(61000 * second), {trigger(second / 2), hit(second - 640)}}},
                    {0, {heartbeat(1 * second), {hit(second + 640)}}},
                    {0, {heartbeat(2 * second), {hit(2 * second)}}}}),
         single,
         tpx3::TdcKind::tdc1Rising,
         Hits{{second - 640, 10, 10}, {second + 640, 10, 10}, {2 * second, 10, 10}},
         {second / 2},
         1,
         false,
         0},
        // A reset in the middle, found only at the chip's next heartbeat blocks later: the census walks back.
        {"a clock reset found blocks later",
         recording({{0, {heartbeat(1 * second), filler(second + 100, 7, 40000)}},
                    {0, {heartbeat(2 * second), heartbeat(50 * second)}},
                    {0, {filler(2 * second + 100, 7, 40000)}},
                    {0, {heartbeat(3 * second), {hit(3 * second)}}}}),
         single,
         tpx3::TdcKind::tdc1Rising,
         join(join(fillerHits(second + 100, 7, 40000), fillerHits(2 * second + 100, 7, 40000)), {{3 * second, 10, 10}}),
         {},
         1,
         false,
         0},
        // The first heartbeat of the recording is stale: every chip starts at the first valid one, of any chip.
        {"each chip its own clock, on the quad canvas",
         recording({{0, {heartbeat(61000 * second), {hit(second / 2, 0, 0)}}},
                    {1, {heartbeat(20 * second), {hit(20 * second, 1, 2)}}},
                    {0, {heartbeat(900 * second)}},
                    {0, {heartbeat(30 * second), {hit(30 * second, 255, 255)}}},
                    {1, {{hit(21 * second, 255, 0)}}}}),
         quad,
         tpx3::TdcKind::tdc1Rising,
         Hits{{20 * second, 512, 511},
              {21 * second, 258, 513},
              {30 * second, 513, 255},
              {second / 2 + 17179869184L, 258, 0}},
         {},
         2,
         false,
         0},
        // Without heartbeats each chip follows its data across wraps of the pixel clock; a silence of 20 s cannot
        // be bridged: the hit after it lands a period early, and the step is reported.
        {"without heartbeats the clock follows the data",
         recording({{0,
                     {{hit(second / 2), hit(5 * second), hit(10 * second), hit(15 * second), hit(20 * second),
                       hit(25 * second), hit(30 * second), hit(35 * second), hit(55 * second)}}}}),
         single,
         tpx3::TdcKind::tdc1Rising,
         Hits{{second / 2, 10, 10},
              {5 * second, 10, 10},
              {10 * second, 10, 10},
              {15 * second, 10, 10},
              {20 * second, 10, 10},
              {25 * second, 10, 10},
              {55 * second - 17179869184L, 10, 10},
              {30 * second, 10, 10},
              {35 * second, 10, 10}},
         {},
         0,
         true,
         1},
        // Copies of one trigger count once; other edges, invalid stamps and garbage upper bits do not matter.
        {"each trigger once, of the chosen edge",
         recording({{0, {heartbeat(4 * second), {trigger(5 * second), trigger(6 * second, 0xA)}}},
                    {1, {{trigger(5 * second), trigger(7 * second, 0xF, false)}}},
                    {2, {{trigger(5 * second)}}},
                    {3, {{trigger(5 * second), trigger(8 * second) | (u64{3} << 42)}}}}),
         quad,
         tpx3::TdcKind::tdc1Rising,
         Hits{},
         {5 * second, 8 * second},
         0,
         false,
         0},
        {"the falling edge",
         recording({{0, {heartbeat(4 * second), {trigger(5 * second), trigger(6 * second, 0xA)}}}}),
         single,
         tpx3::TdcKind::tdc1Falling,
         Hits{},
         {6 * second},
         0,
         false,
         0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Converted got = convert(c.words, c.layout, c.edge);
        Hits expected = c.hits;
        std::stable_sort(expected.begin(), expected.end(),
                         [](const auto& a, const auto& b) { return std::get<0>(a) < std::get<0>(b); });
        EXPECT_EQ(got.hits, expected);
        std::vector<Time> triggers;
        for (const long t : c.triggers) {
            triggers.emplace_back(t);
        }
        EXPECT_EQ(got.triggers, triggers);
        EXPECT_EQ(got.stale, c.stale);
        EXPECT_EQ(got.followsData, c.followsData);
        EXPECT_EQ(got.gaps, c.gaps);
    }
}

TEST(Tpx3ChipClocks, RefusesAChipTheLayoutDoesNotPlace) {
    const std::vector<u64> words = recording({{5, {heartbeat(second), {hit(second)}}}});
    EXPECT_THROW_MESSAGE(convert(words, ChipLayout::quad(), tpx3::TdcKind::tdc1Rising), std::invalid_argument,
                         "chip 5 appears in the recording but not in the layout \"quad\"!");
}

TEST(TriggerTimes, SortsEachTimeOnceInAnyMemoryAndFindsTheLatest) {
    std::mt19937_64 random(5);
    std::vector<Time> found;
    for (int k = 0; k < 5000; ++k) {
        found.emplace_back(static_cast<long>(random() % 3000) - 1000);
    }
    std::vector<Time> expected = found;
    std::sort(expected.begin(), expected.end());
    expected.erase(std::unique(expected.begin(), expected.end()), expected.end());
    const TempDir spill;
    for (const std::size_t run : {std::size_t{1}, std::size_t{7}, std::size_t{100000}}) {
        SCOPED_TRACE(run);
        SpillingList<Time> list(spill.path.string(), run);
        for (const Time t : found) {
            list.push_back(t);
        }
        const SpillingList<Time> sorted = sorted_triggers(list, spill.path.string(), run);
        ASSERT_EQ(sorted.to_vector(), expected);
        LatestTrigger latest(sorted);
        EXPECT_FALSE(latest.at(expected.front().get_value() - 1));
        for (std::size_t k = 0; k < expected.size(); k += 97) {
            const long t = expected[k].get_value();
            EXPECT_EQ(latest.at(t), std::make_pair(static_cast<std::uint64_t>(k), t)); // at a trigger: that one
            if (k + 1 < expected.size() && expected[k + 1].get_value() > t + 1) {
                EXPECT_EQ(latest.at(t + 1), std::make_pair(static_cast<std::uint64_t>(k), t)); // between two
            }
        }
    }
}

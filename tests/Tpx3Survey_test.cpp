#include <array>

#include "TestSupport.hpp"
#include "Tpx3Survey.hpp"

using namespace kavot_tpx3spidr;
using namespace testsupport;

namespace {

constexpr long P = 1L << 34; // pixel clock period
constexpr long R = P + 160;  // a first global timestamp in the lower half of its period

Tpx3Survey surveyWords(const std::vector<u64>& words) {
    const TempDir dir;
    writeWords(dir / "r.tpx3", words);
    return survey_tpx3(Tpx3InputFile(dir / "r.tpx3"));
}

/// One chunk of hits at the given times (x = 0, where no column correction applies), then the global timestamp
/// R when asked, then a chunk of the later hits.
std::vector<u64> hitsAround(const std::vector<long>& before, bool reference, const std::vector<long>& after) {
    std::vector<u64> words;
    for (const auto* times : {&before, &after}) {
        std::vector<u64> packets;
        for (const long t : *times) {
            packets.push_back(pixelWord(0, 0, static_cast<u64>(t % P), 0));
        }
        if (times == &before && reference) {
            packets.insert(packets.end(), {globalLow(static_cast<u64>(R / 16)), globalHigh(0)});
        }
        const auto one = chunk(packets);
        words.insert(words.end(), one.begin(), one.end());
    }
    return words;
}

/// Times from `from` to `to` in steps of 2^32 ticks, short enough to be followed across rollovers.
std::vector<long> climb(long from, long to) {
    std::vector<long> times;
    for (long t = from; t < to; t += 1L << 32) {
        times.push_back(t);
    }
    times.push_back(to);
    return times;
}

} // namespace

TEST(Tpx3Survey, TimeModelCoversThreeHalfPeriodsAfterTheReferenceAndOneHalfBefore) {
    const long half = P / 2;
    const struct {
        const char* name;
        std::vector<long> before;
        bool reference;
        std::vector<long> after;
        bool exceeds;
    } cases[] = {
        {"last hit just inside", {}, true, climb(R, R + 3 * half - 1), false},
        {"last hit at the end", {}, true, climb(R, R + 3 * half), true},
        // Hits before the timestamp move with the latest of them to the reference's clock.
        {"first hit at the start", {R - half, R - half / 2}, true, {}, false},
        {"first hit just before", {R - half - 1, R - half / 2}, true, {}, true},
        {"one hit half a period before", {R - half}, true, {}, false}, // where the decoder puts it, not after R
        {"raw clock, just inside", climb(0, 4 * half - 1), false, {}, false},
        {"raw clock, at the end", climb(0, 4 * half), false, {}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto found = surveyWords(hitsAround(c.before, c.reference, c.after));
        EXPECT_EQ(found.exceeds_timeModel(), c.exceeds);
        EXPECT_EQ(found.earliestHit_ticks, (c.before.empty() ? c.after : c.before).front());
        EXPECT_EQ(found.latestHit_ticks, (c.after.empty() ? c.before : c.after).back());
    }
}

TEST(Tpx3Survey, FollowsRolloversAndMeasuresDisorderAgainstTheLatestHit) {
    const struct {
        std::vector<long> times;
        u64 outOfOrder;
        long largestLag, span, rollovers;
    } cases[] = {
        {{100, 90, 100, 50, 200}, 2, 50, 150, 0}, // an equal time is in order
        {{P - 10, P + 5, P - 20}, 1, 25, 25, 1},  // forward across the wrap, then back across it
        {climb(0, 3 * P), 0, 0, 3 * P, 3},        // any number of rollovers, in steps under half a period
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.times.size());
        const auto found = surveyWords(hitsAround(c.times, false, {}));
        EXPECT_EQ(found.outOfOrderHits, c.outOfOrder);
        EXPECT_EQ(found.largestLag_ticks, c.largestLag);
        EXPECT_EQ(found.timeSpan_ticks(), c.span);
        EXPECT_EQ(found.pixelClockRollovers(), c.rollovers);
    }
}

TEST(Tpx3Survey, CountsByKindAndChipAndKeepsThemWhenTheStructureBreaks) {
    std::vector<u64> words = chunk({pixelWord(3, 4, 10, 0), pixelWord(3, 4, 20, 0), pixelWord(5, 6, 30, 0),
                                    tdcWord(1, 1, 0xF), tdcWord(2, 1, 0xA), tdcWord(3, 1, 0xE), tdcWord(4, 1, 0xB),
                                    tdcWord(5, 1, 0x6), globalLow(7), globalHigh(1), 0x7000000000000000ULL});
    words[0] |= u64{2} << 32;                                                             // chip 2, in header byte 4
    words.insert(words.end(), {chunkHeader(8), pixelWord(5, 6, 40, 0), chunkHeader(16)}); // the last claims 2 packets
    const auto found = surveyWords(words);

    EXPECT_EQ(found.structureError, "End of data reached before block is complete!");
    EXPECT_EQ(found.chunks, 2u);
    EXPECT_EQ(found.chunks_byChip[0], 1u);
    EXPECT_EQ(found.chunks_byChip[2], 1u); // read from the header word in front of the packets
    EXPECT_EQ(found.pixelHits, 4u);
    EXPECT_EQ(found.tdcPackets_byKind, (std::array<u64, 5>{1, 1, 1, 1, 1}));
    EXPECT_EQ(found.globalTimePackets, 2u);
    EXPECT_EQ(found.globalTimestamps, 1u);
    EXPECT_EQ(found.firstGlobalTimestamp_ticks, ((u64{1} << 32) + 7) * 16);
    EXPECT_EQ(found.otherPackets, 1u);
    ASSERT_EQ(found.busiestPixels.size(), 2u);
    EXPECT_EQ(found.busiestPixels[0].x, 3); // a tie of two hits each: the lower row first
    EXPECT_EQ(found.busiestPixels[0].y, 4);
    EXPECT_EQ(found.busiestPixels[1].hits, 2u);
}

#include <array>
#include <optional>

#include "TestSupport.hpp"
#include "Tpx3Survey.hpp"

using namespace kavot_tpx3spidr;
using namespace testsupport;

namespace {

constexpr long P = 1L << 34; // pixel clock period
constexpr long R = P + 160;  // a first global timestamp in the lower half of its period

/// Chunks by chip: the chip index and the packets of each, in file order.
using ChipChunks = std::vector<std::pair<u64, std::vector<u64>>>;

/// The survey of a recording of `words`, then `chunks`.
Tpx3Survey survey(std::vector<u64> words, const ChipChunks& chunks) {
    for (const auto& [chip, packets] : chunks) {
        const auto one = chunk(packets, 8000, chip);
        words.insert(words.end(), one.begin(), one.end());
    }
    const TempDir dir;
    writeWords(dir / "r.tpx3", words);
    return survey_tpx3(Tpx3InputFile(dir / "r.tpx3"));
}

/// Pixel packets at the given times (x = 0, where no column correction applies).
std::vector<u64> hits(const std::vector<long>& times) {
    std::vector<u64> packets;
    for (const long t : times) {
        packets.push_back(pixelWord(0, 0, static_cast<u64>(t % P), 0));
    }
    return packets;
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
        std::vector<long> before; // the hits before the global timestamp R, if there is one
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
        auto first = hits(c.before);
        if (c.reference) {
            first.insert(first.end(), {globalLow(static_cast<u64>(R / 16)), globalHigh(0)});
        }
        const auto found = survey({}, {{0, first}, {0, hits(c.after)}});
        EXPECT_EQ(found.exceeds_timeModel(), c.exceeds);
        EXPECT_EQ(found.earliestHit_ticks, (c.before.empty() ? c.after : c.before).front());
        EXPECT_EQ(found.latestHit_ticks, (c.after.empty() ? c.before : c.after).back());
    }
}

TEST(Tpx3Survey, FollowsRolloversAndMeasuresDisorderAgainstTheLatestHit) {
    const struct {
        std::vector<long> times;
        u64 outOfOrder;
        long largestLag, rollovers;
    } cases[] = {
        {{100, 90, 100, 50, 200}, 2, 50, 0}, // an equal time is in order
        {{P - 10, P + 5, P - 20}, 1, 25, 1}, // forward across the wrap, then back across it
        {climb(0, 3 * P), 0, 0, 3},          // any number of rollovers, in steps under half a period
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.times.size());
        const auto found = survey({}, {{0, hits(c.times)}});
        EXPECT_EQ(found.outOfOrderHits, c.outOfOrder);
        EXPECT_EQ(found.largestLag_ticks, c.largestLag);
        EXPECT_EQ(found.pixelClockRollovers(), c.rollovers);
    }
}

TEST(Tpx3Survey, CountsByKindAndChipAndKeepsThemWhenTheStructureBreaks) {
    std::vector<u64> words = chunk({pixelWord(3, 4, 10, 0), pixelWord(3, 4, 20, 0), pixelWord(5, 6, 30, 0),
                                    tdcWord(1, 1, 0xF), tdcWord(2, 1, 0xA), tdcWord(3, 1, 0xE), tdcWord(4, 1, 0xB),
                                    tdcWord(5, 0, 0x6), globalLow(7), globalHigh(1), 0x7000000000000000ULL});
    words[0] |= u64{3} << 32;                                                                // chip 3, in byte 4
    words.insert(words.end(), {chunkHeader(8, 5), pixelWord(5, 6, 40, 0), chunkHeader(16)}); // the last claims 2
    const auto found = survey(words, {});

    EXPECT_EQ(found.structureError, "End of data reached before block is complete!");
    EXPECT_EQ(found.chunks, 2u);
    EXPECT_EQ(found.chunks_byChip[3], 1u); // read from the header word in front of the packets
    EXPECT_EQ(found.pixelHits, 4u);
    EXPECT_EQ(found.byChip[3].hits, 3u); // each chip's packets are its chunks'
    EXPECT_EQ(found.byChip[3].tdcPackets, 5u);
    EXPECT_EQ(found.byChip[3].heartbeats, 1u);
    EXPECT_EQ(found.tdcPackets_byKind, (std::array<u64, 5>{1, 1, 1, 1, 1}));
    EXPECT_EQ(found.invalidTdcPackets, 1u); // fine time 0: no trigger
    EXPECT_EQ(found.globalTimePackets, 2u);
    EXPECT_EQ(found.globalTimestamps, 1u);
    EXPECT_EQ(found.firstGlobalTimestamp_ticks, ((u64{1} << 32) + 7) * 16);
    EXPECT_EQ(found.otherPackets, 1u);
    ASSERT_EQ(found.busiestPixels.size(), 2u);
    EXPECT_EQ(found.busiestPixels[0].x, 3); // a tie of two hits each: the lower row first
    EXPECT_EQ(found.busiestPixels[0].y, 4);
    EXPECT_EQ(found.defaultLayout().get_name(), "quad"); // for chip 3, with no place for chip 5
    EXPECT_EQ(found.chipsBeyond_defaultLayout(), std::vector<unsigned>{5});
}

TEST(Tpx3Survey, HeartbeatLaterThanTheChipsNextIsStaleAndLeftOutOfTheInterval) {
    constexpr u64 s = 40'000'000; // a second of the 25 ns global time
    const struct {
        const char* name;
        std::vector<std::pair<u64, u64>> beats; // chip, global time
        u64 stale0;
        std::optional<double> interval0_ticks, interval1_ticks;
    } cases[] = {
        {"next one equal, then one a count lower", {{0, 500}, {0, 500}, {0, 499}}, 1, 0.0, {}},
        // Compared with the largest heartbeat so far instead of the one before, all three would be stale.
        {"reset after an earlier acquisition", {{0, 61091 * s}, {0, s}, {0, 2 * s}, {0, 4 * s}}, 1, 1.5 * s * 16, {}},
        // Compared across chips, the later chip-1 heartbeat would count chip 0's as stale.
        {"chips apart", {{0, 9 * s}, {1, 5 * s}, {0, 10 * s}, {1, 6 * s}}, 0, 1.0 * s * 16, 1.0 * s * 16},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ChipChunks chunks;
        for (const auto& [chip, count] : c.beats) {
            chunks.push_back({chip, {globalLow(count & 0xFFFFFFFF), globalHigh(count >> 32)}});
        }
        const auto found = survey({}, chunks);
        EXPECT_EQ(found.byChip[0].staleHeartbeats, c.stale0);
        EXPECT_EQ(found.byChip[0].heartbeatInterval_ticks(), c.interval0_ticks);
        EXPECT_EQ(found.byChip[1].heartbeatInterval_ticks(), c.interval1_ticks);
    }
}

TEST(Tpx3Survey, TdcPacketCopiesAnotherChipsOfTheSameEdgeAndTime) {
    const u64 stamp = tdcWord(1000, 5);
    // The triggers `from` to `to` - 1 on `chip`, a chunk each, then `after`.
    const auto triggers = [](u64 chip, u64 from, u64 to, ChipChunks after) {
        for (u64 coarse = to; coarse-- > from;) {
            after.insert(after.begin(), {chip, {tdcWord(coarse, 5)}});
        }
        return after;
    };
    const struct {
        const char* name;
        ChipChunks chunks;
        std::array<u64, 4> copies; // of chips 0 to 3
    } cases[] = {
        // A second packet on the chip with the original is no copy; the trigger counter is no part of the stamp.
        {"carried by three chips", {{0, {stamp, stamp}}, {1, {stamp}}, {2, {stamp ^ u64{1} << 44}}}, {0, 1, 1, 0}},
        // The edge, the fine time and the top bit of the coarse time are.
        {"another edge, fine time or top coarse bit",
         {{0, {stamp}}, {1, {tdcWord(1000, 5, 0xA)}}, {2, {tdcWord(1000, 6)}}, {3, {stamp ^ u64{1} << 43}}},
         {0, 0, 0, 0}},
        {"64th stamp back", triggers(0, 0, 65, {{1, {tdcWord(1, 5)}}}), {0, 1, 0, 0}},
        {"65th stamp back", triggers(0, 0, 65, {{1, {tdcWord(0, 5)}}}), {0, 0, 0, 0}},
        // Copies take no place in the ring: after 63 of them, chip 2 still finds the first of 64 triggers.
        {"copies in between", triggers(0, 0, 64, triggers(1, 1, 64, {{2, {tdcWord(0, 5)}}})), {0, 63, 1, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto found = survey({}, c.chunks);
        for (std::size_t chip = 0; chip < c.copies.size(); ++chip) {
            EXPECT_EQ(found.byChip[chip].tdcCopies, c.copies[chip]) << "chip " << chip;
        }
    }
}

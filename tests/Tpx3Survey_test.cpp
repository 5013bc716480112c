#include <array>
#include <optional>

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

/// Chunks by chip: the chip index and the packets of each, in file order.
using ChipChunks = std::vector<std::pair<u64, std::vector<u64>>>;

std::vector<u64> chunksOfChips(const ChipChunks& chunks) {
    std::vector<u64> words;
    for (const auto& [chip, packets] : chunks) {
        const auto one = chunk(packets, 8000, chip);
        words.insert(words.end(), one.begin(), one.end());
    }
    return words;
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
    EXPECT_EQ(found.byChip[2].hits, 3u); // each chip's packets are its chunks'
    EXPECT_EQ(found.byChip[0].hits, 1u);
    EXPECT_EQ(found.byChip[2].tdcPackets, 5u);
    EXPECT_EQ(found.byChip[2].heartbeats, 1u);
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

TEST(Tpx3Survey, HeartbeatLaterThanTheChipsNextIsStaleAndLeftOutOfTheInterval) {
    constexpr u64 second = 40'000'000; // of the 25 ns global time
    struct Beat {
        u64 chip;
        u64 count; // 48-bit global time
    };
    const struct {
        const char* name;
        std::vector<Beat> beats;
        u64 stale0, stale1;
        std::optional<double> interval0_ticks, interval1_ticks;
    } cases[] = {
        {"next one equal", {{0, 500}, {0, 500}}, 0, 0, 0.0, {}},
        {"next one a count lower", {{0, 500}, {0, 499}}, 1, 0, {}, {}},
        {"one heartbeat, no interval", {{1, 500}}, 0, 0, {}, {}},
        // Misread without the high part, the second would be lower, hence stale.
        {"across the low part's wrap", {{0, (u64{1} << 32) - 10}, {0, (u64{1} << 32) + 30}}, 0, 0, 40.0 * 16, {}},
        {"reset after earlier acquisition",
         {{0, 61091 * second}, {0, second * 785 / 1000}, {0, second * 1785 / 1000}, {0, second * 3785 / 1000}},
         1,
         0,
         1.5 * second * 16,
         {}},
        // Compared across chips, the later chip-1 heartbeat would count chip 0's as stale.
        {"chips apart",
         {{0, 9 * second}, {1, 5 * second}, {0, 10 * second}, {1, 6 * second}},
         0,
         0,
         1.0 * second * 16,
         1.0 * second * 16},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ChipChunks chunks;
        for (const auto& beat : c.beats) {
            chunks.push_back({beat.chip, {globalLow(beat.count & 0xFFFFFFFF), globalHigh(beat.count >> 32)}});
        }
        const auto found = surveyWords(chunksOfChips(chunks));
        EXPECT_EQ(found.byChip[0].staleHeartbeats, c.stale0);
        EXPECT_EQ(found.byChip[1].staleHeartbeats, c.stale1);
        EXPECT_EQ(found.byChip[0].heartbeatInterval_ticks(), c.interval0_ticks);
        EXPECT_EQ(found.byChip[1].heartbeatInterval_ticks(), c.interval1_ticks);
        EXPECT_EQ(found.byChip[0].heartbeats + found.byChip[1].heartbeats, c.beats.size());
    }
}

TEST(Tpx3Survey, TdcPacketCopiesAnotherChipsOfTheSameEdgeAndTime) {
    const u64 stamp = tdcWord(1000, 5, 0xF);
    const auto triggers = [](u64 from, u64 to, u64 chip) {
        ChipChunks chunks;
        for (u64 coarse = from; coarse < to; ++coarse) {
            chunks.push_back({chip, {tdcWord(coarse, 5, 0xF)}});
        }
        return chunks;
    };
    const auto then = [](auto chunks, const ChipChunks& more) {
        chunks.insert(chunks.end(), more.begin(), more.end());
        return chunks;
    };
    const struct {
        const char* name;
        ChipChunks chunks;
        std::array<u64, 3> copies; // of chips 0, 1, 2
        u64 invalid;
    } cases[] = {
        {"carried by three chips", {{0, {stamp}}, {1, {stamp}}, {2, {stamp}}}, {0, 1, 1}, 0},
        {"twice on one chip", {{0, {stamp, stamp}}}, {0, 0, 0}, 0},
        {"the other edge", {{0, {stamp}}, {1, {tdcWord(1000, 5, 0xA)}}}, {0, 0, 0}, 0},
        {"another fine time", {{0, {stamp}}, {1, {tdcWord(1000, 6, 0xF)}}}, {0, 0, 0}, 0},
        {"another top coarse bit", {{0, {stamp}}, {1, {stamp ^ (u64{1} << 43)}}}, {0, 0, 0}, 0},
        {"another trigger counter", {{0, {stamp}}, {1, {stamp ^ (u64{1} << 44)}}}, {0, 1, 0}, 0},
        {"invalid stamps, copied", {{0, {tdcWord(7, 0)}}, {1, {tdcWord(7, 0), tdcWord(7, 1)}}}, {0, 1, 0}, 2},
        {"64th stamp back", then(triggers(0, 65, 0), {{1, {tdcWord(1, 5)}}}), {0, 1, 0}, 0},
        {"65th stamp back", then(triggers(0, 65, 0), {{1, {tdcWord(0, 5)}}}), {0, 0, 0}, 0},
        // Copies take no place among the stamps remembered: after 63 copies, chip 2 still finds the first of
        // 64 triggers.
        {"copies in between",
         then(then(triggers(0, 64, 0), triggers(1, 64, 1)), {{2, {tdcWord(0, 5)}}}),
         {0, 63, 1},
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto found = surveyWords(chunksOfChips(c.chunks));
        for (std::size_t chip = 0; chip < c.copies.size(); ++chip) {
            EXPECT_EQ(found.byChip[chip].tdcCopies, c.copies[chip]) << "chip " << chip;
        }
        EXPECT_EQ(found.invalidTdcPackets, c.invalid);
    }
}

TEST(Tpx3Survey, DefaultLayoutIsQuadWithChipsOneToThreeAndNamesChipsItCannotPlace) {
    const struct {
        std::vector<u64> chips;
        const char* layout;
        int side_px;
        std::vector<unsigned> beyond;
    } cases[] = {
        {{0}, "single", 256, {}},
        {{0, 3}, "quad", 514, {}},
        {{0, 5}, "single", 256, {5}},
        {{5, 2}, "quad", 514, {5}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.layout + std::to_string(c.chips.back()));
        ChipChunks chunks;
        for (const u64 chip : c.chips) {
            chunks.push_back({chip, {pixelWord(1, 1, 10, 0)}});
        }
        const auto found = surveyWords(chunksOfChips(chunks));
        EXPECT_EQ(found.defaultLayout().get_name(), c.layout);
        EXPECT_EQ(found.defaultLayout().width_px(), c.side_px);
        EXPECT_EQ(found.defaultLayout().height_px(), c.side_px);
        EXPECT_EQ(found.chipsBeyond_defaultLayout(), c.beyond);
    }
}

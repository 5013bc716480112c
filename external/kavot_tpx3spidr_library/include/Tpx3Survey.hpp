#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "ChipLayout.hpp"
#include "ChipSurvey.hpp"
#include "TdcCopies.hpp"
#include "Tpx3Chunks.hpp"
#include "Tpx3InputFile.hpp"
#include "Tpx3Packet.hpp"

namespace kavot_tpx3spidr {

/// Times of a counter with period P (a power of two) read in file order, unfolded onto one time line: each
/// raw time becomes the value congruent to it modulo P that lies nearest the latest time so far (within
/// [latest - P/2, latest + P/2)), so any number of wraps of the counter is followed as long as consecutive
/// readings are less than P/2 apart. Until a reference is given, the first time keeps its raw value.
template <std::uint64_t P>
class TimeUnfolding {
public:
    /// The unfolded time of the next raw reading (0 to P - 1).
    long place(std::uint64_t raw) noexcept {
        const std::uint64_t from = latest ? static_cast<std::uint64_t>(*latest) : reference.value_or(raw);
        const std::uint64_t step = (raw - from) & (P - 1);
        const long time = static_cast<long>(from + step - (step >= P / 2 ? P : 0));
        lag_ticks = latest ? *latest - time : 0;
        earliest = std::min(earliest.value_or(time), time);
        latest = std::max(latest.value_or(time), time);
        return time;
    }

    /// Places the time line on the reference's clock, as a decoder that extends raw times around `reference`
    /// does: the latest time so far moves by whole periods to the value nearest the reference, and everything
    /// before it with it. With no time yet, the first one is placed nearest the reference.
    void set_reference(std::uint64_t reference_) noexcept {
        reference = reference_;
        if (latest) {
            // The distance in whole periods, plus one more when the remainder exceeds half a period: the latest
            // time then lies in [reference - P/2, reference + P/2), where the decoder's extension puts it.
            const std::uint64_t distance = reference_ - static_cast<std::uint64_t>(*latest);
            const std::uint64_t rest = distance & (P - 1);
            const auto shift = static_cast<long>((distance & ~(P - 1)) + (rest > P / 2 ? P : 0));
            *latest += shift;
            *earliest += shift;
        }
    }

    std::optional<long> earliest;
    std::optional<long> latest;
    /// How far the last time placed lies behind the latest one before it (negative when it is not behind).
    long lag_ticks = 0;

private:
    std::optional<std::uint64_t> reference;
};

/// What one streaming pass over a .tpx3 recording finds, for looking at a recording before converting it.
///
/// Pixel times are unfolded over every rollover of the 34-bit pixel clock (see `TimeUnfolding`) and, once
/// the first global timestamp is known, placed on its clock as the decoder places them; TDC times likewise
/// with their 36-bit period. "Out of time order" compares each hit with the latest hit before it in the file.
/// Per chip, the chunks of the chip are counted apart (`byChip`): hits, heartbeats and TDC packets, and which of
/// these repeat another chip's trigger (`TdcCopies`).
struct Tpx3Survey {
    struct PixelHits {
        int x;
        int y;
        std::uint64_t hits;
    };

    std::uint64_t size_bytes = 0;
    std::uint64_t chunks = 0;
    std::array<std::uint64_t, 256> chunks_byChip{}; ///< by header byte 4, which the decoder does not interpret
    std::array<ChipSurvey, 256> byChip{};
    std::uint64_t pixelHits = 0;
    std::array<std::uint64_t, 5> tdcPackets_byKind{}; ///< indexed by `tpx3::TdcKind`
    std::uint64_t tdcPackets = 0;
    std::uint64_t invalidTdcPackets = 0; ///< fine time 0: no trigger
    std::uint64_t globalTimePackets = 0;
    std::uint64_t globalTimestamps = 0; ///< complete ones (high-part packets)
    std::uint64_t otherPackets = 0;
    std::optional<std::uint64_t> firstGlobalTimestamp_ticks;

    std::optional<long> earliestHit_ticks; ///< unfolded pixel times
    std::optional<long> latestHit_ticks;
    std::uint64_t outOfOrderHits = 0;
    long largestLag_ticks = 0;
    std::optional<long> earliestTdc_ticks; ///< unfolded TDC times
    std::optional<long> latestTdc_ticks;
    std::vector<PixelHits> busiestPixels; ///< at most ten, most hits first

    /// The first structural error, which ended the pass; empty when the whole file was read.
    std::string structureError;

    [[nodiscard]] std::uint64_t chips() const noexcept {
        return static_cast<std::uint64_t>(
            std::count_if(chunks_byChip.begin(), chunks_byChip.end(), [](std::uint64_t n) { return n > 0; }));
    }

    [[nodiscard]] std::array<bool, 256> chipsSeen() const noexcept {
        std::array<bool, 256> seen{};
        std::transform(chunks_byChip.begin(), chunks_byChip.end(), seen.begin(), [](std::uint64_t n) { return n > 0; });
        return seen;
    }

    /// The canvas a conversion uses when no layout is named: `ChipLayout::for_chips` of the chips present.
    [[nodiscard]] ChipLayout defaultLayout() const { return ChipLayout::for_chips(chipsSeen()); }

    /// The chips present that the default layout does not place: converting needs a layout that lists them.
    [[nodiscard]] std::vector<unsigned> chipsBeyond_defaultLayout() const {
        const ChipLayout layout = defaultLayout();
        std::vector<unsigned> beyond;
        for (unsigned chip = 0; chip < chunks_byChip.size(); ++chip) {
            if (chunks_byChip[chip] > 0 && !layout.places(chip)) {
                beyond.push_back(chip);
            }
        }
        return beyond;
    }

    [[nodiscard]] long timeSpan_ticks() const noexcept {
        return earliestHit_ticks ? *latestHit_ticks - *earliestHit_ticks : 0;
    }

    /// Wraps of the pixel clock between the earliest and the latest hit.
    [[nodiscard]] long pixelClockRollovers() const noexcept {
        constexpr unsigned periodBits = 34;
        return earliestHit_ticks ? (*latestHit_ticks >> periodBits) - (*earliestHit_ticks >> periodBits) : 0;
    }

    /// The pixel times, unfolded, that the decoder's time model gives their true place: around the first global
    /// timestamp R, raw times are extended into [R - 2^33, R + 2^33) and one later wrap is repaired, so
    /// [R - 2^33, R + 3 * 2^33); without global time (raw times, one repair) [0, 2^35).
    struct Interval {
        long first_ticks;
        long end_ticks; ///< exclusive
    };
    [[nodiscard]] Interval timeModel() const noexcept {
        constexpr long half = 1L << 33;
        if (firstGlobalTimestamp_ticks) {
            const auto reference = static_cast<long>(*firstGlobalTimestamp_ticks);
            return {reference - half, reference + 3 * half};
        }
        return {0, 4 * half};
    }
    [[nodiscard]] bool exceeds_timeModel() const noexcept {
        const Interval model = timeModel();
        return earliestHit_ticks && (*earliestHit_ticks < model.first_ticks || *latestHit_ticks >= model.end_ticks);
    }
};

/// Gathers a `Tpx3Survey` chunk by chunk, in file order; memory does not grow with the recording.
class Tpx3Surveyor {
public:
    explicit Tpx3Surveyor(std::uint64_t size_bytes) { result.size_bytes = size_bytes; }

    void add_chunk(std::uint64_t headerWord, const std::uint64_t* first, const std::uint64_t* last) {
        const unsigned chip = tpx3::chunkChip(headerWord);
        ++result.chunks;
        ++result.chunks_byChip[chip];
        for (const std::uint64_t* word = first; word != last; ++word) {
            add_packet(chip, *word);
        }
    }

    /// The result; the busiest pixels are ranked here, so call it once, at the end.
    [[nodiscard]] Tpx3Survey finish() {
        result.earliestHit_ticks = pixelTimes.earliest;
        result.latestHit_ticks = pixelTimes.latest;
        result.earliestTdc_ticks = tdcTimes.earliest;
        result.latestTdc_ticks = tdcTimes.latest;
        std::vector<std::uint32_t> ranked(hitsPerPixel.size());
        for (std::uint32_t i = 0; i < ranked.size(); ++i) {
            ranked[i] = i;
        }
        constexpr std::size_t shown = 10;
        const auto top = ranked.begin() + static_cast<std::ptrdiff_t>(std::min(shown, ranked.size()));
        // Ties go to the lower row, then the lower column, so that the list does not depend on the sort.
        std::partial_sort(ranked.begin(), top, ranked.end(), [&](std::uint32_t a, std::uint32_t b) {
            return hitsPerPixel[a] != hitsPerPixel[b] ? hitsPerPixel[a] > hitsPerPixel[b] : a < b;
        });
        for (auto it = ranked.begin(); it != top && hitsPerPixel[*it] > 0; ++it) {
            result.busiestPixels.push_back(
                {static_cast<int>(*it % detectorSide), static_cast<int>(*it / detectorSide), hitsPerPixel[*it]});
        }
        return result;
    }

    /// The structural error that ended the pass.
    void set_structureError(std::string message) { result.structureError = std::move(message); }

private:
    static constexpr std::size_t detectorSide = 256;

    void add_packet(unsigned chip, std::uint64_t word) {
        ChipSurvey& ofChip = result.byChip[chip];
        switch (tpx3::packetType(word)) {
        case tpx3::type_pixel: {
            const tpx3::PixelFields pixel = tpx3::decode_pixel(word);
            ++result.pixelHits;
            ++ofChip.hits;
            ++hitsPerPixel[static_cast<std::size_t>(pixel.y) * detectorSide + static_cast<std::size_t>(pixel.x)];
            pixelTimes.place(tpx3::pixelTime_forExtension(pixel.time_ticks));
            if (pixelTimes.lag_ticks > 0) {
                ++result.outOfOrderHits;
                result.largestLag_ticks = std::max(result.largestLag_ticks, pixelTimes.lag_ticks);
            }
            break;
        }
        case tpx3::type_tdc:
            ++result.tdcPackets;
            ++result.tdcPackets_byKind[static_cast<std::size_t>(tpx3::tdcKind(word))];
            ++ofChip.tdcPackets;
            if (tdcCopies.is_copy(chip, word)) {
                ++ofChip.tdcCopies;
            }
            if (tpx3::tdcFine(word) == 0) {
                ++result.invalidTdcPackets;
            }
            tdcTimes.place(tpx3::decode_tdcTime(word) & (tpx3::tdcPeriod_ticks - 1));
            break;
        case tpx3::type_globalTime:
            ++result.globalTimePackets;
            if (tpx3::globalSubtype(word) == tpx3::globalSubtype_low) {
                latestGlobalLow = tpx3::globalLow(word);
            } else if (tpx3::globalSubtype(word) == tpx3::globalSubtype_high) {
                ++result.globalTimestamps;
                const std::uint64_t heartbeat = tpx3::globalTimestamp_ticks(word, latestGlobalLow);
                ofChip.add_heartbeat(heartbeat);
                if (!result.firstGlobalTimestamp_ticks) {
                    result.firstGlobalTimestamp_ticks = heartbeat;
                    pixelTimes.set_reference(heartbeat);
                    tdcTimes.set_reference(heartbeat);
                }
            }
            break;
        default:
            ++result.otherPackets;
        }
    }

    Tpx3Survey result;
    std::vector<std::uint64_t> hitsPerPixel = std::vector<std::uint64_t>(detectorSide * detectorSide, 0);
    TimeUnfolding<tpx3::pixelPeriod_ticks> pixelTimes;
    TimeUnfolding<tpx3::tdcPeriod_ticks> tdcTimes;
    TdcCopies tdcCopies;
    std::uint64_t latestGlobalLow = 0;
};

/// Inspects a recording in one streaming pass. A structural error that `vundrel` would report ends the pass:
/// it is a finding, kept in `structureError` beside what was seen before it, not a failure of the survey.
/// Errors in reading the file are failures and are thrown.
[[nodiscard]] inline Tpx3Survey survey_tpx3(const Tpx3InputFile& file) {
    Tpx3Surveyor surveyor(file.size_bytes());
    try {
        // The walk hands each chunk's packet words in place, right behind the chunk's header word.
        for_eachChunk_tpx3(file, [&](const std::uint64_t* first, const std::uint64_t* last, std::uint64_t) {
            surveyor.add_chunk(first[-1], first, last);
        });
    } catch (const std::invalid_argument&) {
        throw; // the file could not be read as it was
    } catch (const std::logic_error& error) {
        surveyor.set_structureError(error.what());
    }
    return surveyor.finish();
}

} // namespace kavot_tpx3spidr

#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "MappedFile.hpp"
#include "PixelActivation.hpp"
#include "TimeOrder.hpp"
#include "Tpx3Packet.hpp"

namespace kavot_tpx3spidr {

/// Packet counts and the first global timestamp of a .tpx3 word stream, found by the validating first pass.
struct Tpx3Census {
    std::size_t pixelCount = 0;
    std::size_t tdcCount = 0;
    bool hasGlobalTimestamp = false;
    std::uint64_t firstGlobalTimestamp_ticks = 0;
};

/// Calls `onChunk(first, last)` with the packet words of every chunk in order. A chunk must start with "TPX3"
/// (checked first: the size field of a word that is no header means nothing) and end within the data.
template <typename OnChunk>
void for_eachChunk_tpx3(const std::uint64_t* data, std::size_t size, OnChunk&& onChunk) {
    std::size_t i = 0;
    while (i < size) {
        const std::uint64_t header = data[i];
        if (!tpx3::is_chunkHeader(header)) {
            throw std::logic_error("Invalid header entry!");
        }
        const std::size_t end = i + 1 + static_cast<std::size_t>(tpx3::chunkWords(header));
        if (end > size) {
            throw std::logic_error("End of data reached before block is complete!");
        }
        onChunk(data + i + 1, data + end);
        i = end;
    }
}

/// The first pass: validates the chunk structure and counts pixel and TDC packets. Every structural error of
/// the stream is found here, before anything is decoded. `consumed(wordIndex)` is told, now and then, that the
/// words before that index have been read.
template <typename Consumed>
Tpx3Census census_tpx3(const std::uint64_t* data, std::size_t size, Consumed&& consumed) {
    Tpx3Census census;
    std::uint64_t latestLow = 0;
    constexpr std::size_t reportEvery_words = std::size_t{1} << 22;
    std::size_t nextReport = reportEvery_words;
    for_eachChunk_tpx3(data, size, [&](const std::uint64_t* first, const std::uint64_t* last) {
        for (const std::uint64_t* p = first; p != last; ++p) {
            const std::uint64_t word = *p;
            switch (tpx3::packetType(word)) {
            case tpx3::type_pixel:
                ++census.pixelCount;
                break;
            case tpx3::type_tdc:
                ++census.tdcCount;
                break;
            case tpx3::type_globalTime: {
                const std::uint64_t subtype = tpx3::globalSubtype(word);
                if (subtype == tpx3::globalSubtype_low) {
                    latestLow = tpx3::globalLow(word);
                } else if (subtype == tpx3::globalSubtype_high && !census.hasGlobalTimestamp) {
                    // Only the first timestamp is the reference; later ones are not used.
                    census.hasGlobalTimestamp = true;
                    census.firstGlobalTimestamp_ticks = tpx3::globalTimestamp_ticks(word, latestLow);
                }
                break;
            }
            default:
                break;
            }
        }
        if (static_cast<std::size_t>(last - data) >= nextReport) {
            consumed(static_cast<std::size_t>(last - data));
            nextReport = static_cast<std::size_t>(last - data) + reportEvery_words;
        }
    });
    return census;
}

inline Tpx3Census census_tpx3(const std::uint64_t* data, std::size_t size) {
    return census_tpx3(data, size, [](std::size_t) {});
}

/// Turns raw packet times into the data set's time scale: extended around the first global timestamp, or raw.
template <bool useGlobalTime>
class Tpx3TimeScale {
public:
    explicit Tpx3TimeScale(std::uint64_t reference_ticks) noexcept
        : pixelExtension(reference_ticks), tdcExtension(reference_ticks) {}

    [[nodiscard]] Time pixelTime(std::int64_t raw) const noexcept {
        if constexpr (useGlobalTime) {
            return Time(pixelExtension.extend(tpx3::pixelTime_forExtension(raw)));
        } else {
            return Time(raw);
        }
    }
    [[nodiscard]] Time tdcTime(std::uint64_t raw) const noexcept {
        if constexpr (useGlobalTime) {
            return Time(tdcExtension.extend(raw));
        } else {
            return Time(static_cast<long>(raw));
        }
    }

private:
    tpx3::TimeExtension<tpx3::pixelPeriod_ticks> pixelExtension;
    tpx3::TimeExtension<tpx3::tdcPeriod_ticks> tdcExtension;
};

/// The reference time of a decode; refuses a stream without global timestamp when one is needed.
template <bool useGlobalTime>
std::uint64_t referenceTime_tpx3(const Tpx3Census& census) {
    if constexpr (useGlobalTime) {
        if (!census.hasGlobalTimestamp) {
            throw std::invalid_argument("Supplied file does not contain a global timestamp!");
        }
        return census.firstGlobalTimestamp_ticks;
    } else {
        return 0;
    }
}

/// Everything decoded from one .tpx3 file: the pixel activations in stable ascending-time order and the TDC1
/// trigger times in file order. Read-only after construction.
///
/// The activations are kept in time order themselves rather than in file order beside an index of positions:
/// `operator[]` returns the same activation for every position either way, with one memory access instead of two
/// and without the index's 8 bytes per activation. File order is not visible through the interface.
class Data_Tpx3Spidr {
public:
    /// Takes over both vectors, repairs single rollovers of the pixel clock and puts the activations in time order.
    Data_Tpx3Spidr(std::vector<PixelActivation>&& pixelActivations_, std::vector<Time>&& tdc1Triggers_)
        : pixelActivations(std::move(pixelActivations_)), tdc1Triggers(std::move(tdc1Triggers_)) {
        order_byTime(pixelActivations);
    }

    /// The activation at position `index` of the time order.
    [[nodiscard]] const PixelActivation& operator[](std::size_t index) const {
        assert(index < pixelActivations.size());
        return pixelActivations[index];
    }

    [[nodiscard]] std::size_t size() const noexcept { return pixelActivations.size(); }
    [[nodiscard]] const std::vector<Time>& get_tdc1Triggers() const noexcept { return tdc1Triggers; }

    /// Reads and decodes a whole .tpx3 file.
    template <bool useGlobalTime>
    static Data_Tpx3Spidr make_from_file_tpx3spidr(const std::string& path) {
        const MappedFile file(path);
        if (file.size_bytes() % 8 != 0) {
            throw std::logic_error("File contains incomplete lines!");
        }
        return make_from_data_tpx3spidr<useGlobalTime>(file.words(), file.size_bytes() / 8);
    }

    /// Decodes .tpx3 words already in memory (not modified): a validating and counting pass, then decoding.
    template <bool useGlobalTime>
    static Data_Tpx3Spidr make_from_data_tpx3spidr(const std::uint64_t* data, std::size_t size) {
        const Tpx3Census census = census_tpx3(data, size);
        const Tpx3TimeScale<useGlobalTime> timeScale(referenceTime_tpx3<useGlobalTime>(census));

        std::vector<PixelActivation> activations;
        activations.reserve(census.pixelCount);
        std::vector<Time> triggers;
        triggers.reserve(census.tdcCount);
        // Each activation is put in time order as it is decoded, while it is still in cache: the same order the
        // constructor builds, without two more passes over all activations.
        TimeOrdering ordering(activations, census.pixelCount);
        for_eachChunk_tpx3(data, size, [&](const std::uint64_t* first, const std::uint64_t* last) {
            for (const std::uint64_t* p = first; p != last; ++p) {
                const std::uint64_t word = *p;
                const std::uint64_t type = tpx3::packetType(word);
                if (type == tpx3::type_pixel) {
                    const tpx3::PixelFields pixel = tpx3::decode_pixel(word);
                    activations.emplace_back(pixel.x, pixel.y, timeScale.pixelTime(pixel.time_ticks), pixel.tot);
                    ordering.place(activations.size() - 1);
                } else if (type == tpx3::type_tdc) {
                    triggers.push_back(timeScale.tdcTime(tpx3::decode_tdcTime(word)));
                }
            }
        });
        ordering.finish();
        return Data_Tpx3Spidr(std::move(activations), std::move(triggers), inTimeOrder);
    }

private:
    struct InTimeOrder {};
    static constexpr InTimeOrder inTimeOrder{};

    /// Takes over activations that are already repaired and in time order.
    Data_Tpx3Spidr(std::vector<PixelActivation>&& ordered, std::vector<Time>&& tdc1Triggers_, InTimeOrder) noexcept
        : pixelActivations(std::move(ordered)), tdc1Triggers(std::move(tdc1Triggers_)) {}

    std::vector<PixelActivation> pixelActivations; ///< in time order
    std::vector<Time> tdc1Triggers;
};

} // namespace kavot_tpx3spidr

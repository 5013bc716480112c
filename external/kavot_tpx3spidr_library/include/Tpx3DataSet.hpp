#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "PixelActivation.hpp"
#include "ReadBuffer.hpp"
#include "TimeOrder.hpp"
#include "Tpx3Census.hpp"
#include "Tpx3InputFile.hpp"

namespace kavot_tpx3spidr {

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
        : tdc1Triggers(std::move(tdc1Triggers_)) {
        const std::vector<PixelActivation> inFileOrder = std::move(pixelActivations_);
        pixelActivations.reserve(inFileOrder.size());
        TimeOrdering ordering(pixelActivations);
        long latest = noTime_ticks;
        for (PixelActivation activation : inFileOrder) {
            activation.get_toa() = Time(repair_rollover(latest, activation.get_toa().get_value()));
            ordering.add(activation);
        }
        ordering.finish();
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
        const Tpx3InputFile file(path);
        if (file.size_bytes() % 8 != 0) {
            throw std::logic_error("File contains incomplete lines!");
        }
        ReadBuffer<std::uint64_t> words(file.size_words());
        file.read_words(0, words.size(), words.data());
        return make_from_data_tpx3spidr<useGlobalTime>(words.data(), words.size());
    }

    /// Decodes .tpx3 words already in memory (not modified): a validating and counting pass (which also
    /// decodes the trigger times), then the activations.
    template <bool useGlobalTime>
    static Data_Tpx3Spidr make_from_data_tpx3spidr(const std::uint64_t* data, std::size_t size) {
        Tpx3Census census = census_tpx3<useGlobalTime>(data, size);
        std::vector<PixelActivation> activations;
        activations.reserve(census.pixelCount);
        // Repaired as they are decoded, then sorted once: the same order the constructor builds, without a
        // copy of all activations in file order.
        TimeOrdering ordering(activations);
        long latest = noTime_ticks;
        for_eachPixel_repaired(
            data, size, Tpx3TimeScale<useGlobalTime>(census.reference_ticks), latest,
            [&](const tpx3::PixelFields& pixel, long time, unsigned chip) {
                ordering.add(PixelActivation(pixel.x, pixel.y, Time(time), pixel.tot, static_cast<std::uint8_t>(chip)));
            });
        ordering.finish();
        return Data_Tpx3Spidr(std::move(activations), std::move(census.tdcTriggers).to_vector(), inTimeOrder);
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

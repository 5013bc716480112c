#pragma once

#include <cstddef>
#include <vector>

#include "PhotonEvents.hpp"
#include "PixelActivation.hpp"
#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

// The clustering algorithms read the activations of a recording in time order through a small interface, so
// that the same code runs on a data set in memory and on activations streamed from a file. A sequence has:
//   has(j)            position j exists (a stream decodes up to it first)
//   operator[](j)     the activation at position j (valid until the next call of has)
//   discardBefore(i)  positions before i will not be read again
//   readableEnd()     positions from the last discardBefore up to this one exist and lie next to each other in
//                     memory, where they stay until a call of has for a position at or after it
// and they hand every photon to a sink, in order, with `push(photon)`.

/// The activations of a data set as a sequence.
class DataSetSequence {
public:
    explicit DataSetSequence(const Data_Tpx3Spidr& data_) noexcept : data(data_) {}
    [[nodiscard]] bool has(std::size_t position) const noexcept { return position < data.size(); }
    [[nodiscard]] const PixelActivation& operator[](std::size_t position) const { return data[position]; }
    void discardBefore(std::size_t /*position*/) const noexcept {}
    [[nodiscard]] std::size_t readableEnd() const noexcept { return data.size(); }

private:
    const Data_Tpx3Spidr& data;
};

/// Activations held in one array, in time order, as a sequence.
class ArraySequence {
public:
    ArraySequence(const PixelActivation* first_, std::size_t size_) noexcept : first(first_), size(size_) {}
    [[nodiscard]] bool has(std::size_t position) const noexcept { return position < size; }
    [[nodiscard]] const PixelActivation& operator[](std::size_t position) const noexcept { return first[position]; }
    void discardBefore(std::size_t /*position*/) const noexcept {}
    [[nodiscard]] std::size_t readableEnd() const noexcept { return size; }

private:
    const PixelActivation* first;
    std::size_t size;
};

/// Collects the photons in a list.
struct VectorPhotonSink {
    using Record = PhotonEvent_type;
    void push(const PhotonEvent_type& photon) { photons.push_back(photon); }
    std::vector<PhotonEvent_type> photons;
};

} // namespace kavot_tpx3spidr

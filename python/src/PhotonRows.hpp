#pragma once

// The records Python receives: photons with the columns of a conversion's HDF5 file, and hits as the canvas
// hit reader gives them, each a numpy structured type over a C++ struct, so arrays are filled without a copy
// per field.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "Conversion.hpp"
#include "PixelActivation.hpp"

namespace kavot_python {

namespace py = pybind11;

/// One photon: the columns of /photons in a conversion's HDF5 file, in that order.
struct PhotonRow {
    double x;       ///< canvas pixels
    double y;       ///< canvas pixels
    std::int64_t t; ///< ticks, the first hit's time
    std::int64_t tof;
    std::int64_t trigger;
    std::uint16_t nHits;
    std::uint32_t totSum;
    std::uint32_t totMax;
    std::uint8_t chip;
};

inline PhotonRow photon_row(const kavot_tool::ConvertedPhoton& p) {
    const kavot_tpx3spidr::PhotonMeasures& m = p.measures;
    // A conversion's max_hits is at most 65535.
    return {m.photon.x.get_px(),
            m.photon.y.get_px(),
            m.photon.toa.get_value(),
            p.tof_ticks,
            p.trigger,
            static_cast<std::uint16_t>(m.nHits),
            m.totSum,
            m.totMax,
            m.chip};
}

/// One hit with the bytes of a `PixelActivation`: x, y, tot, chip, a byte of padding, then the time. It names
/// the fields for numpy; the reader copies `PixelActivation`s into arrays of it.
struct HitRow {
    std::uint16_t x;
    std::uint16_t y;
    std::uint16_t tot;
    std::uint8_t chip;
    std::uint8_t padding;
    std::int64_t t;
};
static_assert(sizeof(HitRow) == sizeof(kavot_tpx3spidr::PixelActivation));

/// A numpy array that owns `values`: no copy.
template <typename T>
py::array_t<T> owned_array(std::vector<T>&& values) {
    auto owner = std::make_unique<std::vector<T>>(std::move(values));
    const py::capsule free(owner.get(), [](void* p) { delete static_cast<std::vector<T>*>(p); });
    std::vector<T>& kept = *owner.release(); // the capsule owns it now
    return py::array_t<T>(static_cast<py::ssize_t>(kept.size()), kept.data(), free);
}

/// Keeps the photons of a conversion, and its triggers.
class PhotonRowsOutput : public kavot_tool::ConversionOutput {
public:
    void photons(const kavot_tool::ConvertedPhoton* first, std::size_t count) override {
        for (std::size_t k = 0; k < count; ++k) {
            rows.push_back(photon_row(first[k]));
        }
    }
    void finish(const kavot_tool::ConversionFacts& /*facts*/,
                const kavot_tpx3spidr::SpillingList<kavot_tpx3spidr::Time>& found) override {
        triggers.reserve(found.size());
        found.for_each([&](kavot_tpx3spidr::Time time) { triggers.push_back(time.get_value()); });
    }

    std::vector<PhotonRow> rows;
    std::vector<std::int64_t> triggers;
};

} // namespace kavot_python

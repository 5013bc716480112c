// _kavot: the conversion engine for Python, over the same library as kavot's commands. The package kavot wraps
// it: it turns arguments into the option texts read here, and draws the progress bar.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "CanvasHits.hpp"
#include "ConversionOutputs.hpp"
#include "ConvertOptions.hpp"
#include "InfoReport.hpp"
#include "PhotonRows.hpp"
#include "PythonRun.hpp"
#include "Tpx3Survey.hpp"

namespace kavot_python {

namespace {

using kavot_tool::ConvertCommandLine;
using kavot_tpx3spidr::PixelActivation;

/// Messages name the options as the Python arguments do: min_hits, not --min-hits.
const kavot_tool::OptionNames pythonNames{"", true};

/// The settings from option texts by their command-line names ("min-hits": "3"), checked as kavot convert checks
/// them.
ConvertCommandLine command_line(const py::dict& options) {
    ConvertCommandLine line;
    for (const auto& [name, value] : options) {
        kavot_tool::set_convertOption(line, name.cast<std::string>(), value.cast<std::string>(), pythonNames);
    }
    kavot_tool::check_convertOptions(line, pythonNames);
    return line;
}

py::dict attributes(const kavot_tool::ConversionFacts& facts, const ConvertCommandLine& line) {
    py::dict found;
    for (const auto& [name, value] : kavot_tool::conversion_attributes(facts, line.settings, line.compression)) {
        std::visit([&, &key = name](const auto& v) { found[py::str(key)] = v; }, value);
    }
    return found;
}

std::string info_json(const std::string& path) {
    return without_gil([&] {
        return kavot_tool::info::info_json(path, kavot_tpx3spidr::survey_tpx3(kavot_tpx3spidr::Tpx3InputFile(path)));
    });
}

/// Into the file `output` as kavot convert writes it (returns the attributes), or into arrays (returns photons,
/// triggers and attributes, without the file's compression).
py::object convert(const std::string& path,
                   const std::optional<std::string>& output,
                   const py::dict& options,
                   const std::string& spillFolder,
                   const py::object& onProgress) {
    ConvertCommandLine line = command_line(options);
    // Without an output file, only the input is checked.
    kavot_tool::check_paths(path, output.value_or(".h5"), pythonNames);
    line.input = path;
    PythonHooks python(onProgress);
    const kavot_tool::ConversionHooks hooks = python.hooks();
    if (output) {
        line.output = *output;
        const kavot_tool::ConversionFacts facts = without_gil([&] { return kavot_tool::convert_toFiles(line, hooks); });
        python.finish(facts.hits);
        return attributes(facts, line);
    }
    PhotonRowsOutput rows;
    const kavot_tool::ConversionFacts facts =
        without_gil([&] { return kavot_tool::convert_recording(path, line.settings, {&rows}, spillFolder, hooks); });
    python.finish(facts.hits);
    py::dict attrs = attributes(facts, line);
    attrs.attr("pop")("compression");
    return py::make_tuple(owned_array(std::move(rows.rows)), owned_array(std::move(rows.triggers)), attrs);
}

/// The photons of hits someone made or chose, sorted by time, with the clustering of `options`.
py::array_t<PhotonRow> cluster(const py::array_t<HitRow, py::array::c_style>& hits,
                               const py::dict& options,
                               const py::array_t<std::int64_t, py::array::c_style | py::array::forcecast>& triggers) {
    const ConvertCommandLine line = command_line(options);
    std::vector<PixelActivation> activations;
    activations.reserve(static_cast<std::size_t>(hits.size()));
    const HitRow* row = hits.data();
    for (py::ssize_t k = 0; k < hits.size(); ++k, ++row) {
        // The package has checked the ranges: canvas pixels, 0 to 4095.
        activations.emplace_back(static_cast<short>(row->x), static_cast<short>(row->y), kavot_tpx3spidr::Time(row->t),
                                 row->tot, row->chip);
    }
    const std::vector<long> times(triggers.data(), triggers.data() + triggers.size());
    std::vector<PhotonRow> photons = without_gil([&] {
        std::vector<PhotonRow> rows;
        for (const kavot_tool::ConvertedPhoton& p : kavot_tool::cluster_hits(activations, line.settings, times)) {
            rows.push_back(photon_row(p));
        }
        return rows;
    });
    return owned_array(std::move(photons));
}

/// The hits of a recording a batch at a time, in bounded memory.
class HitReader {
public:
    /// `options`: layout and threads, as for a conversion.
    HitReader(const std::string& path, const py::dict& options, const std::string& spillFolder) {
        const ConvertCommandLine line = command_line(options);
        kavot_tool::check_paths(path, ".h5", pythonNames); // the input only
        reader = without_gil([&] {
            return std::make_unique<kavot_tool::CanvasHitReader>(
                path, line.settings.layout, spillFolder, [this] { python.checkpoint(); }, line.settings.threads);
        });
    }

    /// The next hits, at most `most`; an empty array once all are read, and then the file is closed.
    py::array_t<HitRow> read(py::ssize_t most) {
        if (most < 1) {
            throw std::invalid_argument("batch " + std::to_string(most) + ": give a whole number of 1 or more!");
        }
        refuse_whileReading();
        py::array_t<HitRow> batch(reader ? most : 0);
        if (!reader) {
            return batch;
        }
        // The reader writes the bytes of PixelActivation records, which HitRow mirrors.
        auto* out = reinterpret_cast<PixelActivation*>(batch.mutable_data());
        reading = true;
        std::size_t count = 0;
        try {
            count = without_gil([&] { return reader->read(out, static_cast<std::size_t>(most)); });
        } catch (...) {
            reading = false;
            throw;
        }
        reading = false;
        if (count == 0) {
            close();
        }
        if (count < static_cast<std::size_t>(most)) {
            batch.resize({static_cast<py::ssize_t>(count)});
        }
        return batch;
    }

    /// Lets go of the file and of the temporary files that hits waiting for their place took.
    void close() {
        refuse_whileReading();
        reader.reset();
    }

    [[nodiscard]] py::dict canvas() const {
        py::dict found;
        if (reader) {
            const kavot_tpx3spidr::ChipLayout& layout = reader->get_layout();
            found["layout"] = layout.get_name();
            found["width_px"] = layout.width_px();
            found["height_px"] = layout.height_px();
            found["layout_transforms"] = kavot_tool::layout_json(layout);
            found["hits"] = reader->total();
        }
        return found;
    }

private:
    /// Another Python thread may call while a read runs without the GIL; the GIL orders the checks of `reading`.
    void refuse_whileReading() const {
        if (reading) {
            throw std::invalid_argument("the hits are being read in another thread!");
        }
    }

    PythonHooks python;
    std::unique_ptr<kavot_tool::CanvasHitReader> reader;
    bool reading = false;
};

} // namespace

} // namespace kavot_python

PYBIND11_MODULE(_kavot, m) {
    using namespace kavot_python;
    m.doc() = "The conversion engine of kavot; use it through the package kavot.";
    PYBIND11_NUMPY_DTYPE_EX(PhotonRow, x, "x", y, "y", t, "t", tof, "tof", trigger, "trigger", nHits, "n_hits", totSum,
                            "tot_sum", totMax, "tot_max", chip, "chip");
    PYBIND11_NUMPY_DTYPE_EX(HitRow, x, "x", y, "y", t, "t", tot, "tot", chip, "chip");
    // Bad settings and malformed recordings are ValueError; what the system refused is OSError.
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown) {
                std::rethrow_exception(thrown);
            }
        } catch (const std::system_error& error) {
            PyErr_SetString(PyExc_OSError, error.what());
        } catch (const std::logic_error& error) {
            PyErr_SetString(PyExc_ValueError, error.what());
        }
    });
    m.attr("photon_dtype") = py::dtype::of<PhotonRow>();
    m.attr("hit_dtype") = py::dtype::of<HitRow>();
    m.def("info_json", &info_json, py::arg("path"));
    m.def("convert", &convert, py::arg("path"), py::arg("output"), py::arg("options"), py::arg("spill_folder"),
          py::arg("on_progress"));
    m.def("cluster", &cluster, py::arg("hits"), py::arg("options"), py::arg("triggers"));
    py::class_<HitReader>(m, "HitReader")
        .def(py::init<const std::string&, const py::dict&, const std::string&>(), py::arg("path"), py::arg("options"),
             py::arg("spill_folder"))
        .def("read", &HitReader::read, py::arg("most"))
        .def("close", &HitReader::close)
        .def_property_readonly("canvas", &HitReader::canvas);
}

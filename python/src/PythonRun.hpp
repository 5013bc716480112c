#pragma once

// A long call of the engine from Python runs without the GIL, so that other Python threads go on meanwhile. Python
// handles signals only between its own steps: Ctrl-C merely marks SIGINT as pending while the engine runs. So the
// run's checkpoints take the GIL now and then and let Python run its signal handlers; once one has raised
// (KeyboardInterrupt), the checkpoint throws, the run unwinds (its outputs removed by their destructors) and the
// pending exception is raised in Python.

#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

#include <pybind11/pybind11.h>

#include "Conversion.hpp"

namespace kavot_python {

namespace py = pybind11;

/// Thrown where Python has an exception pending (set by a signal handler or a progress callback): it stops the
/// run, and the binding raises that exception.
struct PythonErrorPending {};

/// The hooks of one run: a checkpoint that looks at the clock on every call and at most every
/// `signalInterval` takes the GIL to check for signals, and progress handed to a Python callable at most every
/// `progressInterval`.
class PythonHooks {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr Clock::duration signalInterval = std::chrono::milliseconds(50);
    static constexpr Clock::duration progressInterval = std::chrono::milliseconds(100);

    /// `onProgress(done, total)`, or None for no progress.
    explicit PythonHooks(py::object onProgress_ = py::none()) : onProgress(std::move(onProgress_)) {}

    /// To be called without the GIL.
    void checkpoint();
    /// To be called without the GIL.
    void progress(std::uint64_t done, std::uint64_t total);
    /// The final state of the progress, called with the GIL held.
    void finish(std::uint64_t total);

    /// Hooks for the engine that call the above; they refer to this object.
    kavot_tool::ConversionHooks hooks();

private:
    py::object onProgress;
    Clock::time_point lastSignalCheck = Clock::now();
    Clock::time_point lastProgress = Clock::now() - progressInterval;
};

/// Runs `work()` without the GIL. A run that was stopped for a pending Python exception raises that.
template <typename Work>
auto without_gil(Work&& work) {
    try {
        const py::gil_scoped_release released;
        return std::forward<Work>(work)();
    } catch (const PythonErrorPending&) {
        throw py::error_already_set();
    }
}

} // namespace kavot_python

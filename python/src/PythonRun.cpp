#include "PythonRun.hpp"

#include <Python.h>

namespace kavot_python {

void PythonHooks::checkpoint() {
    const Clock::time_point now = Clock::now();
    if (now - lastSignalCheck < signalInterval) {
        return;
    }
    lastSignalCheck = now;
    const py::gil_scoped_acquire held;
    // Runs the Python handlers of signals that arrived meanwhile; on -1 the exception they raised is set.
    if (PyErr_CheckSignals() != 0) {
        throw PythonErrorPending{};
    }
}

void PythonHooks::progress(std::uint64_t done, std::uint64_t total) {
    const Clock::time_point now = Clock::now();
    if (onProgress.is_none() || now - lastProgress < progressInterval) {
        return;
    }
    lastProgress = now;
    const py::gil_scoped_acquire held;
    try {
        onProgress(done, total);
    } catch (py::error_already_set& error) {
        error.restore(); // pending again, for the binding to raise once the run has unwound
        throw PythonErrorPending{};
    }
}

void PythonHooks::finish(std::uint64_t total) {
    if (!onProgress.is_none()) {
        onProgress(total, total);
    }
}

kavot_tool::ConversionHooks PythonHooks::hooks() {
    return {[this] { checkpoint(); }, [this](std::uint64_t done, std::uint64_t total) { progress(done, total); }};
}

} // namespace kavot_python

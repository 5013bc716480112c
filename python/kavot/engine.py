"""The engine of kavot convert from Python: inspect a recording, convert it (into a file or into arrays), read
its hits as kavot convert sees them, and cluster hits again with other settings.

Settings take the values kavot convert takes, under the names of its options with underscores: dtime is a text
with its unit ("250ns") or a number of seconds; a bad value raises ValueError naming the argument, as in
'min_hits "0": give a whole number from 1 to 65535!'. Times are int64 ticks of TICK_S seconds; x and y are
canvas pixels.

The calls run without holding the GIL; Ctrl-C stops them within a fraction of a second with KeyboardInterrupt,
and a file being written is removed.
"""

import json
import numbers
import os
import tempfile
from typing import NamedTuple

import numpy as np

try:
    from kavot import _kavot
except ImportError as error:  # the reader works without the engine
    _kavot, _why_missing = None, error


def _engine():
    """The compiled engine, or ImportError saying why it is missing."""
    if _kavot is None:
        raise ImportError(
            "kavot's engine (the compiled module kavot._kavot) did not load: "
            f"{_why_missing}. Only kavot.read and kavot.read_triggers work without it; build it with CMake "
            "(python3-dev and pybind11-dev installed) and put build/<preset>/python on PYTHONPATH"
        ) from _why_missing
    return _kavot


class Conversion(NamedTuple):
    """The result of kavot.convert without an output file."""

    photons: np.ndarray  # the columns of /photons: x, y, t, tof, trigger, n_hits, tot_sum, tot_max, chip
    triggers: np.ndarray  # int64 ticks, each trigger once, ascending
    attrs: dict  # what the HDF5 file's attributes would hold: units, canvas, layout, settings, totals


def _duration(value):
    """A time as kavot convert takes it: a text with its unit, or a number of seconds."""
    if isinstance(value, numbers.Real) and not isinstance(value, (bool, np.bool_)):
        return f"{float(value)!r}s"
    return str(value)


def _options(**given):
    """The settings as texts under kavot convert's option names; None leaves an option at its default."""
    return {name.replace("_", "-"): str(value) for name, value in given.items() if value is not None}


class _ProgressBar:
    """A tqdm bar (terminal or notebook) of the hits behind the run, or nothing."""

    def __init__(self, enabled, description):
        self.bar = None
        if enabled:
            from tqdm.auto import tqdm

            self.bar = tqdm(desc=description, unit="hit", unit_scale=True)

    def callback(self):
        """What the engine calls with (done, total), at most ten times a second; None without a bar."""
        return None if self.bar is None else self._update

    def _update(self, done, total):
        self.bar.total = total
        self.bar.update(done - self.bar.n)

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        if self.bar is not None:
            self.bar.close()


def info(path):
    """What `kavot info --json` prints, as a dict. A recording vundrel would refuse gives its "error"; a file
    that cannot be read raises ValueError or OSError."""
    return json.loads(_engine().info_json(os.fspath(path)))


def convert(path, output=None, *, dtime="100ns", dspace=2, min_hits=2, max_hits=200, min_weight=1,
            max_weight=5000, algorithm="default", layout="auto", trigger="tdc1-rising", threads=None,
            progress=False):
    """Converts the recording `path` as kavot convert does.

    With `output` (.h5 or .kavotphot) it writes exactly the file kavot convert writes, complete or not at all,
    and returns its attributes as a dict. Without, it returns a Conversion: photons (a structured array with
    the columns of the HDF5 file), triggers and attrs. threads=None uses every CPU the process may run on;
    progress=True shows a progress bar.
    """
    options = _options(dtime=_duration(dtime), dspace=dspace, min_hits=min_hits, max_hits=max_hits,
                       min_weight=min_weight, max_weight=max_weight, algorithm=algorithm, layout=layout,
                       trigger=trigger, threads=threads)
    engine = _engine()
    target = None if output is None else os.fspath(output)
    with _ProgressBar(progress, "kavot convert") as bar:
        found = engine.convert(os.fspath(path), target, options, tempfile.gettempdir(), bar.callback())
    return found if output is not None else Conversion(*found)


class HitBatches:
    """The hits of a recording in time order, a structured array at a time (fields x, y: canvas pixels; t:
    ticks; tot: 25 ns; chip). `canvas` tells the layout and the size of the canvas while the file is open."""

    def __init__(self, reader, batch):
        self.reader, self.batch = reader, batch
        self.canvas = reader.canvas

    def __iter__(self):
        return self

    def __next__(self):
        found = self.reader.read(self.batch)
        if len(found) == 0:
            raise StopIteration
        return found

    def close(self):
        """Lets go of the file and of any temporary files before the end."""
        self.reader.close()

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        self.close()


def hits(path, *, batch=1_000_000, layout="auto", threads=None):
    """The hits of the recording `path` as kavot convert clusters them, `batch` at most at a time, in time order
    and in bounded memory: hits far out of time order wait in temporary files. The census of the recording is
    made here; the batches are decoded as they are asked for, on `threads` CPUs (None: every CPU the process
    may run on)."""
    if isinstance(batch, (bool, np.bool_)) or not isinstance(batch, numbers.Integral) or batch < 1:
        raise ValueError(f'batch "{batch}": give a whole number of 1 or more!')
    options = _options(layout=layout, threads=threads)
    reader = _engine().HitReader(os.fspath(path), options, tempfile.gettempdir())
    return HitBatches(reader, int(batch))


# Canvas coordinates, ToT and chip as the decoder gives them; times within the range the engine computes in.
_HIT_RANGES = (("x", 0, 4095), ("y", 0, 4095), ("tot", 0, 65535), ("chip", 0, 255), ("t", -2**62, 2**62 - 1))


def _as_hits(hits, dtype):
    """The engine's hit records of a structured array, checked and stably sorted by time."""
    hits = np.asarray(hits)
    names = hits.dtype.names or ()
    if hits.ndim != 1 or not {"x", "y", "t", "tot"} <= set(names):
        raise ValueError("hits: give a one-dimensional structured array with the fields x, y, t and tot "
                         "(chip is optional)!")
    prepared = np.zeros(len(hits), dtype)
    for field, low, high in _HIT_RANGES:
        if field not in names:
            continue
        column = hits[field]
        if column.dtype.kind not in "iu" or (len(column) and (column.min() < low or column.max() > high)):
            raise ValueError(f"hits field {field}: give whole numbers from {low} to {high}!")
        prepared[field] = column
    t = prepared["t"]
    if (t[1:] < t[:-1]).any():
        prepared = prepared[np.argsort(t, kind="stable")]
    return prepared


def cluster(hits, *, dtime="100ns", dspace=2, algorithm="default", min_hits=2, max_hits=200, min_weight=1,
            max_weight=5000, triggers=None):
    """The photons of `hits` (a structured array with the fields x, y, t, tot and optionally chip, as kavot.hits
    gives them) with the clustering kavot convert runs: the same columns as kavot.convert's photons. Hits out of
    time order are sorted by t first (stably). With `triggers` (int64 ticks) every photon gets its time since
    the latest one; without, tof and trigger are -1."""
    options = _options(dtime=_duration(dtime), dspace=dspace, algorithm=algorithm, min_hits=min_hits,
                       max_hits=max_hits, min_weight=min_weight, max_weight=max_weight)
    engine = _engine()
    times = np.empty(0, np.int64) if triggers is None else np.asarray(triggers)
    if times.ndim != 1 or (len(times) and times.dtype.kind not in "iu"):
        raise ValueError("triggers: give a one-dimensional array of whole ticks!")
    return engine.cluster(_as_hits(hits, engine.hit_dtype), options, np.unique(times.astype(np.int64)))

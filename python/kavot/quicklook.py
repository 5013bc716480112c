"""A run on one page: the photon image on the canvas, the time-of-flight spectrum, the photon rate over the run
and the cluster sizes, from a file kavot convert wrote (or any .kavotphot photon file).

    python3 -m kavot.quicklook RUN.h5|RUN.kavotphot OUT.png

A .kavotphot file holds no cluster sizes, and its times of flight are computed from its triggers; a panel
without data says so.
"""

import os
import sys

import numpy as np
from matplotlib.backends.backend_agg import FigureCanvasAgg
from matplotlib.colors import LogNorm
from matplotlib.figure import Figure

from kavot.reader import TICK_S, read, read_triggers

USAGE = "usage: python3 -m kavot.quicklook RUN.h5|RUN.kavotphot OUT.png"


def times_of_flight(t, triggers):
    """Ticks since the latest trigger at or before each time, -1 before the first (as kavot convert gives)."""
    latest = np.searchsorted(triggers, t, side="right") - 1
    return np.where(latest >= 0, t - triggers[np.maximum(latest, 0)], -1)


def load(path):
    """The photons of a run as a dict: x, y (px), t (ticks), tof (ticks, -1 before the first trigger; None
    without triggers), n_hits (None for a .kavotphot file), width and height of the canvas (px)."""
    path = os.fspath(path)
    if path.endswith(".kavotphot"):
        photons, triggers = read(path), read_triggers(path)
        run = {"x": photons["x"], "y": photons["y"], "t": photons["toa"], "n_hits": None, "tof": None}
        if triggers is not None and len(triggers):
            run["tof"] = times_of_flight(run["t"], np.asarray(triggers))
        # A photon file does not name its canvas: one chip, a quad, or what holds every photon.
        largest = max(run["x"].max(initial=0), run["y"].max(initial=0))
        run["width"] = run["height"] = 256 if largest < 256 else max(514, int(largest) + 1)
        return run
    import h5py

    with h5py.File(path, "r") as f:
        photons = f["photons"]
        run = {name: photons[name][:] for name in ("x", "y", "t", "tof", "n_hits")}
        run["width"], run["height"] = int(f.attrs["canvas_width_px"]), int(f.attrs["canvas_height_px"])
        if len(f["triggers/t"]) == 0:
            run["tof"] = None
    return run


def _say(ax, message):
    """A panel without data: the reason in its middle."""
    ax.text(0.5, 0.5, message, ha="center", va="center", transform=ax.transAxes)
    ax.set_xticks([])
    ax.set_yticks([])


def _image(fig, ax, run):
    ax.set_title("photons on the canvas")
    if len(run["x"]) == 0:
        return _say(ax, "no photons")
    width, height = run["width"], run["height"]
    counts, _, _ = np.histogram2d(run["y"], run["x"], bins=(height, width), range=((0, height), (0, width)))
    shown = ax.imshow(np.ma.masked_equal(counts, 0), norm=LogNorm(vmin=1, vmax=max(counts.max(), 2)),
                      extent=(0, width, height, 0), interpolation="nearest", cmap="viridis")
    ax.set_xlabel("x (px)")
    ax.set_ylabel("y (px)")
    fig.colorbar(shown, ax=ax, label="photons per pixel")


def _time_of_flight(ax, run):
    ax.set_title("time of flight")
    if run["tof"] is None:
        return _say(ax, "no triggers: no time of flight")
    tof = run["tof"][run["tof"] >= 0] * TICK_S * 1e6
    if len(tof) == 0:
        return _say(ax, "no photon after a trigger")
    ax.hist(tof, bins=200, histtype="step")
    ax.set_xlabel("time since the latest trigger (µs)")
    ax.set_ylabel("photons per bin")


def _rate(ax, run):
    ax.set_title("photon rate")
    t = run["t"]
    if len(t) < 2 or t[-1] == t[0]:
        return _say(ax, "too few photons for a rate")
    seconds = (t - t[0]) * TICK_S
    counts, edges = np.histogram(seconds, bins=min(200, len(t)))
    ax.stairs(counts / (edges[1] - edges[0]), edges)
    ax.set_xlabel("time since the first photon (s)")
    ax.set_ylabel("photons per second")


def _cluster_sizes(ax, run):
    ax.set_title("cluster sizes")
    if run["n_hits"] is None:
        return _say(ax, "a .kavotphot file holds no cluster sizes")
    if len(run["n_hits"]) == 0:
        return _say(ax, "no photons")
    counts = np.bincount(run["n_hits"])
    ax.bar(np.arange(len(counts)), counts, width=1.0)
    ax.set_yscale("log")
    ax.set_xlabel("hits per photon")
    ax.set_ylabel("photons")


def figure(run, title=""):
    """The four panels of a run as loaded by `load`."""
    fig = Figure(figsize=(12, 10), layout="constrained")
    axes = fig.subplots(2, 2)
    _image(fig, axes[0, 0], run)
    _time_of_flight(axes[0, 1], run)
    _rate(axes[1, 0], run)
    _cluster_sizes(axes[1, 1], run)
    fig.suptitle(f"{title}: {len(run['x'])} photons, canvas {run['width']} x {run['height']} px")
    return fig


def main(argv):
    """Draws the run named by argv[0] into the PNG argv[1]."""
    if len(argv) != 2 or not argv[1].lower().endswith(".png"):
        print(USAGE, file=sys.stderr)
        return 2
    fig = figure(load(argv[0]), os.path.basename(argv[0]))
    FigureCanvasAgg(fig).print_png(argv[1])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

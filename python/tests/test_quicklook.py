"""The quick look of a run: its panels from an HDF5 conversion and from photon files, with and without data."""

import subprocess
import sys

import numpy as np
import pytest

from kavot import quicklook


@pytest.fixture(scope="module")
def runs(tmp_path_factory, run):
    """A quad converted into both kinds of file, a photon file without triggers, and one without photons."""
    d = tmp_path_factory.mktemp("quicklook")
    run("TPX3GEN", "-o", d / "quad.tpx3", "--chips", 4, "--duration", 3, "--rate", 20000, "--tdc-rate", 60,
        "--seed", 2)
    run("KAVOT", "convert", d / "quad.tpx3", d / "quad.h5")
    run("KAVOT", "convert", d / "quad.tpx3", d / "quad.kavotphot")
    run("TPX3GEN", "-o", d / "one.tpx3", "--hits", 5000, "--seed", 2)
    run("VUNDREL", "-i", d / "one.tpx3", "-o", d / "notrig.kavotphot")
    run("VUNDREL", "-i", d / "one.tpx3", "-o", d / "none.kavotphot", "--nPxMin", 200)
    return d


def texts(fig):
    """What each panel says instead of its data, by title."""
    return {ax.get_title(): [t.get_text() for t in ax.texts] for ax in fig.axes if ax.get_title()}


def test_a_photon_file_gives_the_times_of_flight_of_its_conversion(runs):
    from_h5, from_photons = quicklook.load(runs / "quad.h5"), quicklook.load(runs / "quad.kavotphot")
    assert (from_photons["tof"] == from_h5["tof"]).all() and (from_h5["tof"] >= 0).any()
    assert (from_photons["width"], from_h5["width"]) == (514, 514)


@pytest.mark.parametrize("name, says", [
    ("quad.h5", {}),
    ("quad.kavotphot", {"cluster sizes": ["a .kavotphot file holds no cluster sizes"]}),
    ("notrig.kavotphot", {"time of flight": ["no triggers: no time of flight"],
                          "cluster sizes": ["a .kavotphot file holds no cluster sizes"]}),
    ("none.kavotphot", {"photons on the canvas": ["no photons"], "time of flight": ["no triggers: no time of flight"],
                        "photon rate": ["too few photons for a rate"],
                        "cluster sizes": ["a .kavotphot file holds no cluster sizes"]}),
])
def test_panels_without_data_say_so(runs, name, says):
    fig = quicklook.figure(quicklook.load(runs / name), name)
    found = texts(fig)
    assert set(found) == {"photons on the canvas", "time of flight", "photon rate", "cluster sizes"}
    assert {title: said for title, said in found.items() if said} == says


def test_the_command_writes_a_png(runs, tmp_path):
    subprocess.run([sys.executable, "-m", "kavot.quicklook", runs / "quad.h5", tmp_path / "quad.png"], check=True)
    png = (tmp_path / "quad.png").read_bytes()
    assert png[:8] == b"\x89PNG\r\n\x1a\n" and np.frombuffer(png[16:24], ">u4").tolist() == [1200, 1000]
    refused = subprocess.run([sys.executable, "-m", "kavot.quicklook", runs / "quad.h5"], capture_output=True,
                             text=True)
    assert refused.returncode == 2 and refused.stderr.startswith("usage: python3 -m kavot.quicklook")

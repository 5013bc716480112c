"""The engine from Python against kavot's commands on the same files and against the generator's truth; bad
arguments."""

import json

import h5py
import numpy as np
import pytest

import kavot

COLUMNS = ("x", "y", "t", "tof", "trigger", "n_hits", "tot_sum", "tot_max", "chip")


@pytest.fixture(scope="module")
def files(tmp_path_factory, run, engine):
    """A quad of 20 s with its truth; one chip (camera mode, noise, 100 kHz triggers); one chip large enough to be
    read in parts side by side."""
    d = tmp_path_factory.mktemp("engine")
    run("TPX3GEN", "-o", d / "quad.tpx3", "--chips", 4, "--duration", 20, "--rate", 20000, "--heartbeat", 1,
        "--stale", 1, "--tdc-rate", 60, "--disorder", 1e-3, "--max-chunk", 8, "--seed", 4, "--truth")
    run("TPX3GEN", "-o", d / "one.tpx3", "--hits", 30000, "--seed", 3, "--tdc-rate", 1e5)
    run("TPX3GEN", "-o", d / "large.tpx3", "--hits", 2500000, "--seed", 6, "--disorder", 1e-5)
    return d


def h5_columns(path, group, names):
    with h5py.File(path, "r") as f:
        return {name: f[group][name][:] for name in names}, dict(f.attrs)


@pytest.mark.parametrize("settings, options", [
    ({}, []),
    ({"dtime": "250ns", "dspace": 3, "min_hits": 1, "algorithm": "checkNextOnly", "threads": 1},
     ["--dtime", "250ns", "--dspace", 3, "--min-hits", 1, "--algorithm", "checkNextOnly", "--threads", 1]),
    ({"dtime": 5e-8, "max_hits": 4, "min_weight": 20, "max_weight": 200.5, "algorithm": "forwardChain_pixelBuildup",
      "layout": "overlay", "trigger": "tdc1-falling"},
     ["--dtime", "50ns", "--max-hits", 4, "--min-weight", 20, "--max-weight", 200.5, "--algorithm",
      "forwardChain_pixelBuildup", "--layout", "overlay", "--trigger", "tdc1-falling"]),
])
def test_convert_equals_kavot_convert(files, run, tmp_path, settings, options):
    run("KAVOT", "convert", files / "quad.tpx3", tmp_path / "cli.h5", *options)
    expected, attrs = h5_columns(tmp_path / "cli.h5", "photons", COLUMNS)
    got = kavot.convert(files / "quad.tpx3", **settings)
    assert got.photons.dtype.names == COLUMNS and len(got.photons) == attrs["photons"] > 0
    for name in COLUMNS:
        assert got.photons[name].dtype == expected[name].dtype and (got.photons[name] == expected[name]).all(), name
    triggers, _ = h5_columns(tmp_path / "cli.h5", "triggers", ["t"])
    assert got.triggers.dtype == np.int64 and (got.triggers == triggers["t"]).all()
    assert got.attrs == {name: value for name, value in attrs.items() if name != "compression"}
    # Into files: the same bytes (an HDF5 file records no times of its own).
    assert kavot.convert(files / "quad.tpx3", tmp_path / "py.h5", **settings) == attrs
    assert (tmp_path / "py.h5").read_bytes() == (tmp_path / "cli.h5").read_bytes()
    run("KAVOT", "convert", files / "quad.tpx3", tmp_path / "cli.kavotphot", *options)
    kavot.convert(files / "quad.tpx3", tmp_path / "py.kavotphot", **settings)
    assert (tmp_path / "py.kavotphot").read_bytes() == (tmp_path / "cli.kavotphot").read_bytes()


@pytest.mark.parametrize("name, batch, threads", [
    ("one.tpx3", 1, None), ("one.tpx3", 7, None), ("quad.tpx3", 4096, None), ("large.tpx3", 300000, 1),
    ("large.tpx3", 1_000_000, None),
])
def test_hits_in_batches_equal_one_export(files, run, tmp_path, name, batch, threads):
    run("KAVOT", "export", files / name, tmp_path / "hits.h5")
    expected, attrs = h5_columns(tmp_path / "hits.h5", "hits", ["x", "y", "t", "tot", "chip"])
    reader = kavot.hits(files / name, batch=batch, threads=threads)
    assert (reader.canvas["width_px"], reader.canvas["layout"]) == (attrs["canvas_width_px"], attrs["layout"])
    batches = list(reader)
    assert {len(b) for b in batches[:-1]} <= {batch} and 0 < len(batches[-1]) <= batch
    got = np.concatenate(batches)
    assert len(got) == len(expected["t"])
    for field, column in expected.items():
        assert got[field].dtype == column.dtype and (got[field] == column).all(), field


@pytest.mark.parametrize("algorithm", ["default", "checkNextOnly", "forwardChain_pixelBuildup"])
def test_clustering_the_hits_of_one_chip_gives_the_photons_of_convert(files, algorithm):
    converted = kavot.convert(files / "one.tpx3", algorithm=algorithm, dtime="150ns")
    hits = np.concatenate(list(kavot.hits(files / "one.tpx3")))
    photons = kavot.cluster(hits, algorithm=algorithm, dtime="150ns", triggers=converted.triggers)
    assert len(photons) == len(converted.photons) > 0 and (photons == converted.photons).all()
    # Out of time order (ties kept in file order, as a stable sort restores them), without chips or triggers.
    backwards = hits[np.argsort(-hits["t"], kind="stable")][["x", "y", "t", "tot"]]
    again = kavot.cluster(backwards, algorithm=algorithm, dtime="150ns")
    for name in ("x", "y", "t", "n_hits", "tot_sum", "tot_max"):
        assert (again[name] == photons[name]).all(), name
    assert (again["tof"] == -1).all() and (again["trigger"] == -1).all() and (again["chip"] == 0).all()


def test_the_truth_of_a_quad_is_recovered(files):
    """Every drawn photon, with dspace 3 (it links the hits on both sides of the gap) and every cluster accepted."""
    truth = np.genfromtxt(files / "quad.tpx3.truth.csv", delimiter=",", names=True, dtype=None)
    triggers = np.loadtxt(files / "quad.tpx3.triggers.csv", skiprows=1, dtype=np.int64, ndmin=1)
    got = kavot.convert(files / "quad.tpx3", dspace=3, min_hits=1, max_weight=1e9)
    assert (got.triggers == triggers).all() and len(got.photons) == len(truth) > 0
    columns = {"x": "x_raw", "y": "y_raw", "t": "t_ticks", "tof": "tof_ticks", "trigger": "trigger",
               "n_hits": "n_hits", "tot_sum": "tot_sum", "tot_max": "tot_max", "chip": "chip"}
    for name, drawn in columns.items():
        scale = 65536 if name in ("x", "y") else 1  # centroids in 1/65536 pixel, rounded down
        assert (got.photons[name] * scale == truth[drawn]).all(), name
    assert got.attrs["stale_heartbeats"] == 4 and got.attrs["canvas_width_px"] == 514


def test_info_is_kavot_info_json(files, run, tmp_path):
    (tmp_path / "cut.tpx3").write_bytes(b"TPX3\0\0\x10\0" + bytes(7) + b"\xb0")  # 16 bytes claimed, 8 there
    for path in (files / "quad.tpx3", tmp_path / "cut.tpx3"):
        assert kavot.info(path) == json.loads(run("KAVOT", "info", "--json", path, check=False).stdout)
    assert kavot.info(tmp_path / "cut.tpx3")["error"] == "End of data reached before block is complete!"
    with pytest.raises(ValueError, match="Unable to open file"):
        kavot.info(tmp_path / "missing.tpx3")


def test_progress_bar_counts_every_hit(files, capfd):
    kavot.convert(files / "one.tpx3", progress=True)
    bar = capfd.readouterr().err
    assert "kavot convert: 100%" in bar and "30.0k/30.0k" in bar


HITS = np.zeros(3, [("x", "u2"), ("y", "u2"), ("t", "i8"), ("tot", "u2")])


@pytest.mark.parametrize("call, message", [
    (lambda p: kavot.convert(p, min_hits=0), 'min_hits "0": give a whole number from 1 to 65535!'),
    (lambda p: kavot.convert(p, max_hits=65536), 'max_hits "65536": give a whole number from 1 to 65535!'),
    (lambda p: kavot.convert(p, min_hits=5, max_hits=4),
     "min_hits 5 is above max_hits 4: no photon could be accepted!"),
    (lambda p: kavot.convert(p, dtime="100"), 'dtime "100": a time needs its unit: ns, us, ms or s (such as 100ns)!'),
    (lambda p: kavot.convert(p, dtime=2), 'dtime "2.0s": give a time from 0 to 1 s with its unit: ns, us, ms or s '
                                          '(such as 100ns)!'),
    (lambda p: kavot.convert(p, dspace=-1), 'dspace "-1": give a distance in pixels from 0 to 4096 (such as 2)!'),
    (lambda p: kavot.convert(p, max_weight="x"), 'max_weight "x": give a weight of 0 or more (such as 5000)!'),
    (lambda p: kavot.convert(p, algorithm="fullchain"),
     'algorithm "fullchain": give default, fullChain_direct, checkNextOnly or forwardChain_pixelBuildup!'),
    (lambda p: kavot.convert(p, layout="hex"), 'layout "hex": give single, quad, overlay or a layout file FILE.json!'),
    (lambda p: kavot.convert(p, layout="single"), 'chip 1 appears in the recording but not in the layout "single"!'),
    (lambda p: kavot.convert(p, trigger="tdc3-rising"),
     'trigger "tdc3-rising": give tdc1-rising, tdc1-falling, tdc2-rising or tdc2-falling!'),
    (lambda p: kavot.convert(p, threads=0), 'threads "0": give a whole number from 1 to 256!'),
    (lambda p: kavot.convert(p, "quad.csv"), 'output "quad.csv": give a file name ending in .h5 or .kavotphot!'),
    (lambda p: kavot.convert(p.with_suffix(".h5")), 'path "quad.h5": give a .tpx3 recording!'),
    (lambda p: kavot.hits(p, batch=0), 'batch "0": give a whole number of 1 or more!'),
    (lambda p: kavot.hits(p, layout="hex"), 'layout "hex": give single, quad, overlay or a layout file FILE.json!'),
    (lambda p: kavot.cluster(HITS, dspace="far"),
     'dspace "far": give a distance in pixels from 0 to 4096 (such as 2)!'),
    (lambda p: kavot.cluster(np.zeros(3)), "hits: give a one-dimensional structured array with the fields x, y, t "
                                           "and tot (chip is optional)!"),
    (lambda p: kavot.cluster(np.full(3, 4096, HITS.dtype)), "hits field x: give whole numbers from 0 to 4095!"),
    (lambda p: kavot.cluster(HITS, triggers=[0.5]), "triggers: give a one-dimensional array of whole ticks!"),
])
def test_bad_arguments_are_refused_naming_them(files, monkeypatch, call, message):
    monkeypatch.chdir(files)  # the paths in the messages are as given
    with pytest.raises(ValueError) as refused:
        call(files.joinpath("quad.tpx3").relative_to(files))
    assert str(refused.value) == message

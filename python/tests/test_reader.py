"""The reader against vundrel's files and kavot's views of them (CSV, HDF5, TIFF), and against kavot's own
reader on malformed files; the package without its engine."""

import os
import shutil
import struct
import subprocess
import sys

import h5py
import numpy as np
import pytest

import kavot


@pytest.fixture(scope="module")
def converted(tmp_path_factory, run):
    """A generated recording converted with triggers (sample) and without (notrig), and the raw image."""
    d = tmp_path_factory.mktemp("converted")
    run("TPX3GEN", "-o", d / "s.tpx3", "--hits", 20000, "--seed", 5, "--tdc-rate", 1e5)
    run("VUNDREL", "-i", d / "s.tpx3", "-o", d / "sample.kavotphot", "-T", "--photImgPath", d / "s.raw")
    run("VUNDREL", "-i", d / "s.tpx3", "-o", d / "notrig.kavotphot")
    return d


def csv(run, *args):
    return np.loadtxt(run("KAVOT", "csv", *args).stdout.splitlines(), delimiter=",", skiprows=1, ndmin=2)


def test_photons_and_triggers_match_kavot_csv(converted, run):
    photons, raw = kavot.read(converted / "sample.kavotphot"), kavot.read(converted / "sample.kavotphot", True)
    table = csv(run, converted / "sample.kavotphot")
    assert len(photons) == len(table) > 0
    assert (photons["toa"] == table[:, 3].astype(np.int64)).all()
    for axis, column in (("x", 0), ("y", 1)):  # CSV has 6 decimals: enough to recover the raw value exactly
        assert (raw[axis] == np.rint(table[:, column] * 65536)).all()
        assert (photons[axis] == raw[axis] / 65536).all()
    triggers = kavot.read_triggers(converted / "sample.kavotphot")
    assert (triggers == csv(run, converted / "sample.kavotphot", "--triggers")[:, 1].astype(np.int64)).all()
    assert kavot.read_triggers(converted / "notrig.kavotphot") is None


def test_hdf5_export_holds_the_photons_exactly(converted, run):
    run("KAVOT", "export", converted / "sample.kavotphot", converted / "sample.h5")
    photons = kavot.read(converted / "sample.kavotphot")
    with h5py.File(converted / "sample.h5") as f:
        for name in ("x", "y", "toa"):
            assert f["photons"][name].dtype == photons[name].dtype and f["photons"][name].compression == "gzip"
            assert (f["photons"][name][:] == photons[name]).all()
        assert (f["triggers/toa"][:] == kavot.read_triggers(converted / "sample.kavotphot")).all()
        assert (f["photons/x"].attrs["units"], f["photons/toa"].attrs["units"]) == ("px", "ticks")
        assert f["triggers/toa"].attrs["tick_s"] == kavot.TICK_S
        assert (f.attrs["program_version"], f.attrs["source_file"]) == ("1.0.0", "sample.kavotphot")


def pixel_words(path):
    """The pixel packets of a recording, chunk by chunk (header: "TPX3", chip, mode, 16-bit size)."""
    data, words, at = open(path, "rb").read(), [], 0
    while at < len(data):
        size = struct.unpack_from("<H", data, at + 6)[0]
        words.append(np.frombuffer(data, "<u8", size // 8, at + 8))
        at += 8 + size
    words = np.concatenate(words)
    return words[words >> np.uint64(60) == 0xB]


def test_hdf5_export_of_a_recording_as_vundrel_sees_it_holds_every_hit_in_time_order(converted, run):
    run("KAVOT", "export", converted / "s.tpx3", converted / "s.h5", "--vundrel")
    w = pixel_words(converted / "s.tpx3")
    field = lambda shift, mask: ((w >> np.uint64(shift)) & np.uint64(mask)).astype(np.int64)
    pix = field(44, 0x7)
    expected = np.stack([field(52, 0xFE) + pix // 4, field(45, 0xFC) + (pix & 3), field(20, 0x3FF)])
    with h5py.File(converted / "s.h5") as f:
        hits = np.stack([f["hits"][name][:].astype(np.int64) for name in ("x", "y", "tot")])
        assert (np.diff(f["hits/toa"][:]) >= 0).all() and f["hits/toa"].attrs["units"] == "ticks"
        # The triggers are those vundrel keeps with -T.
        assert (f["triggers/toa"][:] == kavot.read_triggers(converted / "sample.kavotphot")).all()
    assert len(w) == 20000 and hits.shape == expected.shape
    assert (hits[:, np.lexsort(hits)] == expected[:, np.lexsort(expected)]).all()  # the same hits, every one


def test_tiff_is_a_32_bit_count_image(converted, run):
    run("KAVOT", "image", converted / "s.raw", converted / "s.tiff")
    data = (converted / "s.tiff").read_bytes()
    assert data[:4] == b"II*\0"
    (ifd,) = struct.unpack_from("<I", data, 4)
    tags = {}
    for i in range(struct.unpack_from("<H", data, ifd)[0]):
        tag, kind, count, value = struct.unpack_from("<HHII", data, ifd + 2 + 12 * i)
        tags[tag] = value & 0xFFFF if kind == 3 else value  # a SHORT sits in the low bytes of the field
    # width, height, bits per sample, photometric (min is black), samples per pixel, sample format (unsigned)
    assert [tags[t] for t in (256, 257, 258, 262, 277, 339)] == [2048, 2048, 32, 1, 1, 1]
    strips, rows = tags[273], tags[278]
    first = struct.unpack_from("<I", data, strips)[0] if 2048 > rows else strips
    counts = np.frombuffer(data, "<u4", 2048 * 2048, first)  # uncompressed strips, written one after the other
    assert (counts == np.fromfile(converted / "s.raw", "<u4")).all() and counts.sum() > 0


def block(name, content):
    return name.ljust(8, b"\0")[:8] + struct.pack("<Q", len(content)) + content


def photon_file(*blocks, version=0, kind=2, name=b"KAVOT"):
    content = block(b"build", struct.pack("<QQ", version, kind)) + b"".join(blocks)
    return block(name, content)


ONE = struct.pack("<iiq", -65536, 32768, 7)  # x = -1 px, y = 0.5 px, 7 ticks


@pytest.mark.parametrize(
    "data, photons, triggers",
    [
        (photon_file(block(b"photons", b"")), 0, None),
        (photon_file(block(b"extTrigs", struct.pack("<q", 5)), block(b"photons", ONE)), 1, [5]),
        (photon_file(block(b"photons", ONE), block(b"photons", ONE * 2), block(b"extTrigs", b"")), 2, []),
    ],
)
def test_well_formed_blocks_last_block_wins(tmp_path, data, photons, triggers):
    (tmp_path / "f.kavotphot").write_bytes(data)
    read = kavot.read(tmp_path / "f.kavotphot")
    assert len(read) == photons and (photons == 0 or tuple(read[0]) == (-1.0, 0.5, 7))
    found = kavot.read_triggers(tmp_path / "f.kavotphot")
    assert (found is None) if triggers is None else list(found) == triggers


@pytest.mark.parametrize(
    "data, message",
    [
        (b"KAVOT", "File is too short to hold a file block!"),
        (photon_file(block(b"photons", ONE), name=b"KAVOX"), "File identifier not recognized!"),
        (photon_file(block(b"photons", ONE)) + b"\0", "File block ends at byte 80 but the file has 81 bytes!"),
        (block(b"KAVOT", b""), "File does not contain build information!"),
        (block(b"KAVOT", block(b"build", b"\0" * 8)), "Build information block has size 8 instead of 16!"),
        (photon_file(block(b"photons", ONE), version=1), "File version 1 is not supported (expected 0)!"),
        (photon_file(block(b"photons", ONE), kind=3), "File type 3 is not the expected type 2!"),
        (photon_file(block(b"photons", ONE)[:8] + struct.pack("<Q", 32) + ONE), "Block size is indicated as 32 but"),
        (photon_file(block(b"photons", ONE + b"1234")), "File contains partial photons!"),
        (photon_file(block(b"extTrigs", b"1234")), "File contains partial external triggers!"),
        (photon_file(block(b"build", b"")), "Block identifier not recognized!"),
        (photon_file(block(b"extTrigs", b"")), "File does not contain photon data!"),
    ],
)
def test_malformed_files_are_refused_as_kavot_refuses_them(tmp_path, run, data, message):
    path = tmp_path / "bad.kavotphot"
    path.write_bytes(data)
    with pytest.raises(ValueError) as refused:
        kavot.read(path)
    assert str(refused.value).startswith(f"{path}: {message}")
    assert run("KAVOT", "summary", path, check=False).stderr.startswith(f"kavot: {message}")


def test_first_package_name_is_the_same_reader():
    import kavotphot as first

    assert (first.read, first.read_triggers, first.TICK_S) == (kavot.read, kavot.read_triggers, kavot.TICK_S)


def test_without_the_engine_the_reader_works_and_the_engine_says_what_is_missing(converted, tmp_path):
    """A copy of the package without its compiled part, in a fresh interpreter."""
    shutil.copytree(os.path.dirname(kavot.__file__), tmp_path / "kavot", ignore=shutil.ignore_patterns("_kavot*"))
    script = (f"import kavot\nprint(len(kavot.read({str(converted / 'sample.kavotphot')!r})))\n"
              "try:\n    kavot.convert('run.tpx3')\nexcept ImportError as error:\n    print(error)\n")
    child = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, check=True,
                           cwd=tmp_path, env={**os.environ, "PYTHONPATH": str(tmp_path)})
    count, message = child.stdout.splitlines()[:2]
    assert int(count) == len(kavot.read(converted / "sample.kavotphot")) > 0
    assert message.startswith("kavot's engine (the compiled module kavot._kavot) did not load: ")

"""Ctrl-C during a conversion from Python, and the memory of reading the hits of a recording that spills: each in a
child /usr/bin/python3, watched from outside."""

import os
import signal
import subprocess
import sys
import time

import pytest

CONVERT = """
import sys, time, kavot
try:
    kavot.convert(sys.argv[1], sys.argv[2], threads=1)
    print("finished")
except KeyboardInterrupt:
    print("interrupted", time.monotonic())
"""

HITS = """
import resource, sys, kavot
before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
count = sum(len(batch) for batch in kavot.hits(sys.argv[1], batch=65536))
print(count, before, resource.getrusage(resource.RUSAGE_SELF).ru_maxrss)
"""


@pytest.fixture(scope="module")
def folder(tmp_path_factory, run, engine):
    """A recording of 10 M hits (a conversion on one CPU takes a good half second even in a Release build) and one
    of 4 M hits in reverse time order (2 M of them wait in temporary files)."""
    d = tmp_path_factory.mktemp("limits")
    run("TPX3GEN", "-o", d / "large.tpx3", "--hits", 10_000_000, "--seed", 7)
    run("TPX3GEN", "-o", d / "reverse.tpx3", "--hits", 4_000_000, "--reverse", "--seed", 8)
    return d


@pytest.mark.parametrize("name", ["run.h5", "run.kavotphot"])
def test_ctrl_c_stops_a_conversion_within_half_a_second_and_leaves_no_file(folder, tmp_path, name):
    child = subprocess.Popen([sys.executable, "-c", CONVERT, folder / "large.tpx3", tmp_path / name],
                             stdout=subprocess.PIPE, text=True)
    # The temporary file appears as the conversion starts; SIGINT comes a moment later, amid the work.
    deadline = time.monotonic() + 60
    while not os.listdir(tmp_path) and child.poll() is None and time.monotonic() < deadline:
        time.sleep(0.002)
    time.sleep(0.1)
    sent = time.monotonic()
    child.send_signal(signal.SIGINT)
    said = child.communicate(timeout=60)[0].split()
    assert said[0] == "interrupted", said
    assert float(said[1]) - sent < 0.5  # both read the system's monotonic clock
    assert os.listdir(tmp_path) == []


def test_hits_of_a_recording_that_spills_take_no_more_memory_than_kavot_export(folder, tmp_path):
    """Peak resident memory: what reading the hits adds to Python's own, against the whole export process."""
    exported = subprocess.run(["/usr/bin/time", "-f", "%M", os.environ["KAVOT"], "export", folder / "reverse.tpx3",
                               tmp_path / "hits.h5"], capture_output=True, text=True, check=True)
    export_kib = int(exported.stderr.split()[-1])
    read = subprocess.run([sys.executable, "-c", HITS, folder / "reverse.tpx3"], capture_output=True, text=True,
                          check=True)
    count, before_kib, peak_kib = map(int, read.stdout.split())
    assert count == 4_000_000
    # All 4 M hits in memory would take 64 MiB; the engine keeps 2 M (32 MiB) and the rest waits in files.
    assert peak_kib - before_kib <= export_kib, (peak_kib - before_kib, export_kib)

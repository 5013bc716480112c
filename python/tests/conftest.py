"""What the Python tests share: the built programs, named by the environment (TPX3GEN, VUNDREL, KAVOT; CTest sets
them), and a way to run them."""

import os
import subprocess

import pytest

PROGRAMS = {name: os.environ.get(name) for name in ("TPX3GEN", "VUNDREL", "KAVOT")}


@pytest.fixture(scope="session")
def run():
    """run(NAME, *args, check=True): the program's completed process, output as text."""
    if not all(PROGRAMS.values()):
        pytest.skip("TPX3GEN, VUNDREL and KAVOT must name the built programs (ctest sets them)")

    def run_program(name, *args, check=True):
        return subprocess.run([PROGRAMS[name], *map(str, args)], capture_output=True, text=True, check=check)

    return run_program


@pytest.fixture(scope="session")
def engine():
    """The compiled engine; the tests that need it skip where it was not built."""
    return pytest.importorskip("kavot._kavot", reason="the engine kavot._kavot is not built")

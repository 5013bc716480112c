"""Reads the .kavotphot photon files that vundrel writes, with numpy alone.

The file is one block; every block is an 8-byte identifier (the name padded with zero bytes), its content size
(unsigned 64-bit little-endian) and the content. The file block "KAVOT" holds a "build" block (file version 0,
file type 2) and then "photons" blocks of 16-byte records (x, y: int32 in 1/65536 pixel; toa: int64 ticks of
1.5625 ns) and "extTrigs" blocks of int64 trigger times. The last block of each kind is the one read, and the
structure is checked as vundrel's own reader checks it, with the same messages (raised as ValueError).

The records are memory-mapped, not read: a photon file of any size opens at once. Turning x and y into float64
pixels makes one copy of the photons in memory; read(path, raw=True) returns the mapped records themselves
instead (x, y as int32 in 1/65536 pixel, toa as int64), without copying.

    import kavot
    photons = kavot.read("run.kavotphot")           # fields x, y (float64, pixels), toa (int64 ticks)
    seconds = photons["toa"] * kavot.TICK_S
    triggers = kavot.read_triggers("run.kavotphot")  # int64 ticks, or None without -T
"""

import os

import numpy as np

__all__ = ["read", "read_triggers", "TICK_S", "UNITS_PER_PIXEL"]

TICK_S = 1.5625e-9
UNITS_PER_PIXEL = 65536
RECORD = np.dtype([("x", "<i4"), ("y", "<i4"), ("toa", "<i8")])
PHOTON = np.dtype([("x", "<f8"), ("y", "<f8"), ("toa", "<i8")])
_HEADER = 16  # identifier and content size


def _layout(path):
    """The (offset, count) of the last photon block and of the last trigger block (or None), checked."""
    with open(path, "rb") as f:
        end = f.seek(0, os.SEEK_END)

        def header(at, what="Read Error!"):
            f.seek(at)
            raw = f.read(_HEADER)
            if len(raw) < _HEADER:
                raise ValueError(what)
            size, left = int.from_bytes(raw[8:], "little"), end - at - _HEADER
            if size > left:
                raise ValueError(f"Block size is indicated as {size} but only {left} bytes are left in the file!")
            return raw[:8], size

        name, size = header(0, "File is too short to hold a file block!")
        if name != b"KAVOT\0\0\0":
            raise ValueError("File identifier not recognized!")
        if _HEADER + size != end:
            raise ValueError(f"File block ends at byte {_HEADER + size} but the file has {end} bytes!")
        if size == 0:
            raise ValueError("File does not contain build information!")
        name, size = header(_HEADER)
        if name != b"build\0\0\0":
            raise ValueError("File does not contain build information!")
        if size != 16:
            raise ValueError(f"Build information block has size {size} instead of 16!")
        version, kind = np.frombuffer(f.read(16), "<u8")
        if version != 0:
            raise ValueError(f"File version {version} is not supported (expected 0)!")
        if kind != 2:
            raise ValueError(f"File type {kind} is not the expected type 2!")
        at, blocks = 2 * _HEADER + 16, {}  # the first block after the build information
        while at != end:
            name, size = header(at)
            record = {b"photons\0": RECORD.itemsize, b"extTrigs": 8}.get(name)
            if record is None:
                raise ValueError("Block identifier not recognized!")
            if size % record:
                raise ValueError("File contains partial " + ("photons!" if record == 16 else "external triggers!"))
            blocks[name] = (at + _HEADER, size // record)
            at += _HEADER + size
        if b"photons\0" not in blocks:
            raise ValueError("File does not contain photon data!")
        return blocks[b"photons\0"], blocks.get(b"extTrigs")


def _checked(path):
    try:
        return _layout(path)
    except ValueError as error:
        raise ValueError(f"{path}: {error}") from None


def _map(path, dtype, offset, count):
    if count == 0:  # an empty map is refused by mmap
        return np.empty(0, dtype)
    return np.memmap(path, dtype=dtype, mode="r", offset=offset, shape=(count,))


def read(path, raw=False):
    """The photons in file order: fields x, y (float64, pixels) and toa (int64 ticks of TICK_S seconds).

    With raw=True, the memory-mapped records as stored: x, y int32 in 1/UNITS_PER_PIXEL pixel, toa int64.
    """
    records = _map(path, RECORD, *_checked(path)[0])
    if raw:
        return records
    photons = np.empty(len(records), PHOTON)
    for axis in ("x", "y"):
        np.divide(records[axis], UNITS_PER_PIXEL, out=photons[axis])
    photons["toa"] = records["toa"]
    return photons


def read_triggers(path):
    """The trigger times (int64 ticks, memory-mapped), or None when the file was converted without -T."""
    triggers = _checked(path)[1]
    return None if triggers is None else _map(path, "<i8", *triggers)

"""The photon file reader under its first name: the same functions as kavot.read and kavot.read_triggers."""

from kavot.reader import PHOTON, RECORD, TICK_S, UNITS_PER_PIXEL, read, read_triggers

__all__ = ["read", "read_triggers", "TICK_S", "UNITS_PER_PIXEL", "RECORD", "PHOTON"]

"""kavot: Timepix3 recordings and photon files from Python.

    import kavot
    kavot.info("run.tpx3")                       # what kavot info --json prints, as a dict
    run = kavot.convert("run.tpx3")              # photons, triggers and attrs, as kavot convert finds them
    kavot.convert("run.tpx3", "run.h5")          # the file kavot convert writes
    for batch in kavot.hits("run.tpx3"):         # the hits on the canvas, in time order, a batch at a time
        ...
    kavot.cluster(batch, dtime="250ns")          # photons of hits chosen or made, with other settings
    kavot.read("run.kavotphot")                  # a photon file, memory-mapped (numpy alone)

The engine functions need the compiled module kavot._kavot; without it they raise ImportError, and the reader
(read, read_triggers) still works. `python3 -m kavot.quicklook RUN.h5 OUT.png` draws a run on one page.
"""

from kavot.engine import Conversion, HitBatches, cluster, convert, hits, info
from kavot.reader import PHOTON, RECORD, TICK_S, UNITS_PER_PIXEL, read, read_triggers

__all__ = ["info", "convert", "hits", "cluster", "read", "read_triggers", "Conversion", "HitBatches", "TICK_S",
           "UNITS_PER_PIXEL", "RECORD", "PHOTON"]

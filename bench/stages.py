#!/usr/bin/python3
"""Sums a profile of one vundrel run into the stages of the engine and prints nanoseconds or instructions per hit.

Reads either `perf report --stdio -t '|' --sort srcfile,sym -F period,srcfile,sym` (samples of cpu-clock, periods
in nanoseconds) or `callgrind_annotate --inclusive=no` (instructions) on standard input. A build with debug
information attributes code that the compiler inlined to the header it came from, so the header names the stage;
code from the standard library and the kernel is attributed by the function it ran in.

Usage: stages.py perf|callgrind HITS [--others] < report
"""
import re
import sys

STAGES = ["reading", "census", "decoding", "ordering", "clustering", "writing", "other"]

# Headers of our libraries, by stage. Checked in order: the first pattern that matches names the stage.
BY_FILE = [
    ("census", r"Tpx3Census|Tpx3ChipClockCensus|Tpx3Chunks|Tpx3Survey|CensusRuns|Tpx3PacketSummary"),
    ("decoding", r"Tpx3Packet\.|Tpx3PixelWords|Tpx3TimeScale|Tpx3HitSource|Tpx3ScaleDecoding|Tpx3CanvasDecoding|Tpx3ChipClocks"
                 r"|Tpx3Decode|LittleEndian"),
    ("ordering", r"TimeOrder|RunMerge|SpillFile|HitMerge"),
    ("clustering", r"Reconstruction_|LinkWindow|LinkLanes|MarkedReader|ClusterSteps|PixelActivationChain|PixelTable"
                   r"|Centroid|PhotonMeasures"),
    ("writing", r"PhotonFileWriter|FileHandler_PhotonEvents|ReplacingFile|PhotonSink"),
    ("reading", r"Tpx3DataSet|ReadBuffer|ChunkWalk"),
]
# Functions, for code whose header does not say (the standard library, the C library, the kernel).
BY_FUNCTION = [
    ("ordering", r"radixSort|RunMerge|HitMerge|TimeOrder|for_eachPixel_repaired|insert_"),
    ("decoding", r"decode"),
    ("clustering", r"reconstruct_photonEvents|stream_reconstruction|Cluster|LinkWindow|fullChainSearch"),
    ("writing", r"PhotonSink|StreamingSink|PhotonFileWriter|copy_folio_from_iter|generic_perform_write|ext4_(da_)?write"
                r"|ext4_buffered_write|fdatasync|ext4_sync_file|write_cache_pages|__x64_sys_write|ksys_write"),
    ("reading", r"_copy_to_iter|filemap_|copy_page_to_iter|ext4_file_read_iter|__x64_sys_read|ksys_read"
                r"|xas_load"),
]


def stage_of(source, function):
    # The census reads the words with the decoder's helpers, so its functions name it before any header does.
    if re.search(r"summarize_|census", function):
        return "census"
    for stage, pattern in BY_FILE:
        if re.search(pattern, source):
            return stage
    for stage, pattern in BY_FUNCTION:
        if re.search(pattern, function):
            return stage
    return "other"


def perf_rows(lines):
    for line in lines:
        if line.startswith("#") or not line.strip():
            continue
        period, source, function = (line.rstrip("\n").split("|") + ["", ""])[:3]
        yield int(period), source.strip(), function.strip()


def callgrind_rows(lines):
    row = re.compile(r"^\s*([\d,]+) \([\s\d.]+%\)\s+(.*?):(.*)$")
    for line in lines:
        found = row.match(line)
        if found and "PROGRAM TOTALS" not in line:
            yield int(found.group(1).replace(",", "")), found.group(2), found.group(3)


def main():
    kind, hits = sys.argv[1], int(sys.argv[2])
    rows = perf_rows(sys.stdin) if kind == "perf" else callgrind_rows(sys.stdin)
    totals = dict.fromkeys(STAGES, 0)
    others = {}
    for cost, source, function in rows:
        stage = stage_of(source, function)
        totals[stage] += cost
        if stage == "other":
            others[(source, function[:60])] = others.get((source, function[:60]), 0) + cost
    unit = "ns/hit" if kind == "perf" else "instr/hit"
    whole = sum(totals.values())
    for stage in STAGES:
        print(f"{stage:<11} {totals[stage] / hits:9.1f} {unit}  {100 * totals[stage] / max(whole, 1):5.1f} %")
    print(f"{'all':<11} {whole / hits:9.1f} {unit}")
    if len(sys.argv) > 3:  # --others: what fell into no stage, largest first
        for (source, function), cost in sorted(others.items(), key=lambda item: -item[1])[:15]:
            print(f"  {cost / hits:7.2f}  {source}  {function}")


if __name__ == "__main__":
    main()

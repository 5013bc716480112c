#!/usr/bin/env bash
# The engine from Python against kavot on the 20 M-hit benchmark recording of bench/run.sh, pair by pair, one after
# the other: kavot.convert(path) returning arrays (the call, timed inside Python) against kavot convert to .h5 (the
# process, under /usr/bin/time), and the hits read with kavot.hits in batches of a million (the call) against the
# 50 M hits/s it should reach. Prints every pair and the medians.
# Usage: bench/python.sh [BUILD_DIR] [WORK_DIR] [PAIRS]
set -euo pipefail
build=${1:-build/release}
work=${2:-/tmp/vundrel_bench}
pairs=${3:-7}
mkdir -p "$work"
file="$work/ordered_20M.tpx3"
[ -f "$file" ] || "$build/tools/tpx3gen" -o "$file" --hits 20000000 --rate 1e7 --disorder 1e-7 > /dev/null
cat "$file" > /dev/null # from the page cache, as a re-run of a recent acquisition would be
export PYTHONPATH="$build/python"

median() { sort -n | awk '{v[NR] = $1} END {print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2)}'; }
: > "$work/cli.times"
: > "$work/py.times"
: > "$work/hits.rates"
printf "%-5s %14s %16s %10s %16s\n" pair "kavot convert" "kavot.convert()" ratio "kavot.hits M/s"
for pair in $(seq "$pairs"); do
    /usr/bin/time -f "%e" -o "$work/t" "$build/tools/kavot" convert "$file" "$work/py_bench.h5" > /dev/null
    cli=$(cat "$work/t")
    py=$(/usr/bin/python3 -c "
import sys, time, kavot
start = time.perf_counter()
kavot.convert(sys.argv[1])
print(f'{time.perf_counter() - start:.3f}')" "$file")
    rate=$(/usr/bin/python3 -c "
import sys, time, kavot
start = time.perf_counter()
hits = sum(len(batch) for batch in kavot.hits(sys.argv[1]))
print(f'{hits / (time.perf_counter() - start) / 1e6:.1f}')" "$file")
    echo "$cli" >> "$work/cli.times"
    echo "$py" >> "$work/py.times"
    echo "$rate" >> "$work/hits.rates"
    awk -v p="$pair" -v c="$cli" -v y="$py" -v r="$rate" 'BEGIN { printf "%-5d %12.2f s %14.3f s %9.2fx %16.1f\n", p, c, y, y / c, r }'
done
cli=$(median < "$work/cli.times")
py=$(median < "$work/py.times")
rate=$(median < "$work/hits.rates")
awk -v c="$cli" -v y="$py" -v r="$rate" 'BEGIN {
    printf "medians: kavot convert .h5 %.2f s, kavot.convert() %.3f s (%.2fx), kavot.hits %.1f M hits/s\n", c, y, y / c, r }'
rm -f "$work/py_bench.h5" "$work/t"

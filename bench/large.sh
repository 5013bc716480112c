#!/usr/bin/env bash
# The large-file benchmark (run by hand, not in CI): builds one continuous recording of SEGMENTS x HITS hits
# by concatenating generated segments with consecutive start times (only the first global timestamp is the
# reference, and pixel and TDC times are absolute clock values, so the pieces form one acquisition), then
# runs vundrel on it under /usr/bin/time -v. Default: 20 x 100 M = 2 billion hits, 16 GB, about 28 s of
# acquisition at 80 M hits/s, a saturated chip.
# Usage: bench/large.sh [BUILD_DIR] [WORK_DIR] [SEGMENTS] [HITS_PER_SEGMENT]
set -euo pipefail
build=${1:-build/release}
work=${2:-/tmp/vundrel_large}
segments=${3:-20}
hits=${4:-100000000}
rate=8e7
mkdir -p "$work"
file="$work/large_${segments}x${hits}.tpx3"
if [ ! -f "$file" ]; then
    : > "$file.part"
    for ((k = 0; k < segments; k++)); do
        # A segment lasts a little longer than hits / rate (clusters average slightly under 6 hits); starting
        # them 10 % further apart leaves no overlap, which would put millions of hits out of order at a seam.
        start=$(awk -v k="$k" -v h="$hits" -v r="$rate" 'BEGIN { printf "%.6f", 1 + k * h / r * 1.10 }')
        "$build/tools/tpx3gen" -o "$work/segment.tpx3" --hits "$hits" --rate "$rate" --seed $((k + 1)) \
            --disorder 1e-7 --start "$start" > /dev/null
        cat "$work/segment.tpx3" >> "$file.part"
    done
    rm -f "$work/segment.tpx3"
    mv "$file.part" "$file"
fi
total=$((segments * hits))
/usr/bin/time -v "$build/vundrel" -i "$file" -o "$work/large.kavotphot" --verbose 2 2> "$work/large.time"
wall=$(awk -F': ' '/Elapsed \(wall clock\)/ {n = split($2, t, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + t[i]; print s}' "$work/large.time")
rss=$(awk -F': ' '/Maximum resident set size/ {print $2}' "$work/large.time")
awk -v h="$total" -v w="$wall" -v r="$rss" -v f="$(stat -c %s "$file")" 'BEGIN {
    printf "hits %d (%.1f GB): wall %.1f s, %.1f M hits/s, peak %.1f MiB\n", h, f / 1e9, w, h / w / 1e6, r / 1024 }'

#!/usr/bin/env bash
# Recordings shaped like the hard cases of real detector data, each at three sizes, converted under
# /usr/bin/time -v: wall time, time per hit against the ordered recording of the same size, and peak memory.
# Linear time shows as a constant ns/hit down a shape's column of sizes; bounded memory as a flat peak.
# Files are generated once and kept in WORK_DIR (about 2.5 GB at the default sizes).
# Usage: bench/adversarial.sh [BUILD_DIR] [WORK_DIR] [SIZES...]
set -euo pipefail
build=${1:-build/release}
work=${2:-/tmp/vundrel_adversarial}
shift $(($# > 2 ? 2 : $#))
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(2000000 8000000 32000000)
mkdir -p "$work"
gen="$build/tools/tpx3gen"

# name generator-options (the hit rate is 10 M hits/s unless a shape says otherwise)
shapes=(
    "ordered --disorder 1e-7"
    "lag_100us --disorder 1e-4"
    "lag_1ms --disorder 1e-3"
    "lag_100ms --disorder 0.1"
    "reversed --reverse"
    "period_behind --rate RATE_50S"
    "bursts --rate 5e8 --cluster-size 12"
    "chain --pattern chain"
    "spot --pattern spot"
)
printf "%-14s %10s %8s %8s %9s %9s\n" shape hits wall_s ns/hit ×ordered peak_MiB
for hits in "${sizes[@]}"; do
    ordered_ns=""
    for entry in "${shapes[@]}"; do
        read -r name options <<< "$entry"
        # A recording of 50 s: hits more than about 40 s after the first global timestamp come a whole clock
        # period (26.8 s) behind the others after the one rollover the time order repairs.
        options=${options/RATE_50S/$(awk -v h="$hits" 'BEGIN { printf "%.0f", h / 50 }')}
        file="$work/${name}_$hits.tpx3"
        # shellcheck disable=SC2086
        [ -f "$file" ] || "$gen" -o "$file" --hits "$hits" $options > /dev/null
        cat "$file" > /dev/null # from the page cache
        log="$work/${name}_$hits.time"
        /usr/bin/time -v "$build/vundrel" -i "$file" -o "$work/out.kavotphot" --verbose 1 2> "$log"
        wall=$(awk -F': ' '/Elapsed \(wall clock\)/ {n = split($2, t, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + t[i]; print s}' "$log")
        rss=$(awk -F': ' '/Maximum resident set size/ {print $2}' "$log")
        ns=$(awk -v w="$wall" -v h="$hits" 'BEGIN { printf "%.1f", w * 1e9 / h }')
        [ -n "$ordered_ns" ] || ordered_ns=$ns
        awk -v n="$name" -v h="$hits" -v w="$wall" -v s="$ns" -v o="$ordered_ns" -v r="$rss" 'BEGIN {
            printf "%-14s %10d %8.2f %8.1f %9.2f %9.1f\n", n, h, w, s, (o > 0 ? s / o : 0), r / 1024 }'
    done
done
rm -f "$work/out.kavotphot"

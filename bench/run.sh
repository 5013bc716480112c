#!/usr/bin/env bash
# End-to-end benchmark: generates recordings with tpx3gen, runs vundrel on each under /usr/bin/time -v and
# prints wall time, hits per second, peak resident memory and bytes per hit. chunky_quad_20M is shaped like what
# acquisitions write: four chips in interleaved chunks of about 8 packets, about half of the hits behind the one
# before, lags up to 0.5 ms.
# Usage: bench/run.sh [BUILD_DIR] [WORK_DIR] [EXTRA VUNDREL OPTIONS...]
set -euo pipefail
build=${1:-build/release}
work=${2:-/tmp/vundrel_bench}
shift $(( $# > 2 ? 2 : $# ))
mkdir -p "$work"
gen="$build/tools/tpx3gen"
real=$(cd "$(dirname "$0")/.." && pwd)/../shared/data/real/Tantalum_IronPowder.tpx3

# name hits generator-options; generated once and kept for later runs.
cases=(
    "ordered_1M 1000000 --disorder 1e-7"
    "ordered_20M 20000000 --disorder 1e-7"
    "reverse_5M 5000000 --reverse"
    "disorder_5M 5000000 --disorder 1e-5"
    "chunky_quad_20M 20000000 --chips 4 --disorder 5e-4 --lag-tail --max-chunk 16 --heartbeat 1"
)
printf "%-22s %10s %9s %10s %12s %11s\n" file hits wall_s Mhits/s peak_MiB bytes/hit
run() {
    local name=$1 file=$2 hits=$3
    shift 3
    local log="$work/$name.time"
    /usr/bin/time -v "$build/vundrel" -i "$file" -o "$work/$name.kavotphot" --verbose 1 "$@" 2> "$log"
    local wall rss
    wall=$(awk -F': ' '/Elapsed \(wall clock\)/ {n = split($2, t, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + t[i]; print s}' "$log")
    rss=$(awk -F': ' '/Maximum resident set size/ {print $2}' "$log")
    awk -v n="$name" -v h="$hits" -v w="$wall" -v r="$rss" 'BEGIN {
        printf "%-22s %10d %9.3f %10.1f %12.1f %11.1f\n", n, h, w, (w > 0 ? h / w / 1e6 : 0), r / 1024, r * 1024 / h }'
}
for entry in "${cases[@]}"; do
    read -r name hits options <<< "$entry"
    file="$work/$name.tpx3"
    [ -f "$file" ] || "$gen" -o "$file" --hits "$hits" --rate 1e7 $options > /dev/null
    cat "$file" > /dev/null # from the page cache, as a re-run of a recent acquisition would be
    run "$name" "$file" "$hits" "$@"
done
if [ -f "$real" ]; then
    run Tantalum_IronPowder "$real" 505721 "$@"
fi

#!/usr/bin/env bash
# kavot convert against vundrel: wall time on the 20 M-hit benchmark recording, one program after the other, pair
# by pair (one core with taskset, then every core), and peak memory of kavot convert on the hard shapes of
# bench/adversarial.sh and on a 30-minute quad recording (about 100 M hits, 0.9 GB; generated once).
# Usage: bench/convert.sh [BUILD_DIR] [WORK_DIR] [PAIRS] [ADVERSARIAL_HITS (0: speed only)]
set -euo pipefail
build=${1:-build/release}
work=${2:-/tmp/vundrel_bench}
pairs=${3:-7}
hits=${4:-8000000}
mkdir -p "$work"
gen="$build/tools/tpx3gen"
kavot="$build/tools/kavot"
file="$work/ordered_20M.tpx3"
[ -f "$file" ] || "$gen" -o "$file" --hits 20000000 --rate 1e7 --disorder 1e-7 > /dev/null
cat "$file" > /dev/null

seconds() { awk -F': ' '/Elapsed \(wall clock\)/ {n = split($2, t, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + t[i]; print s}' "$1"; }
mib() { awk -F': ' '/Maximum resident set size/ {printf "%.1f", $2 / 1024}' "$1"; }
# Appends the wall time of a command in seconds (to the microsecond: /usr/bin/time's 10 ms are a tenth of a run).
timed() {
    local to=$1
    shift
    local start end
    start=$(date +%s%N)
    "$@" > /dev/null
    end=$(date +%s%N)
    awk -v ns=$((end - start)) 'BEGIN {printf "%.6f\n", ns / 1e9}' >> "$to"
}
median() { sort -n | awk '{v[NR] = $1} END {print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2)}'; }

# The same photons and triggers (vundrel -T) against every column in HDF5, and the photon file of kavot convert.
for cores in one all; do
    pin=()
    [ "$cores" = one ] && pin=(taskset -c 0)
    : > "$work/v.times"
    : > "$work/h5.times"
    : > "$work/kp.times"
    for _ in $(seq "$pairs"); do
        timed "$work/v.times" "${pin[@]}" "$build/vundrel" -i "$file" -o "$work/v.kavotphot" -T --verbose 0
        timed "$work/h5.times" "${pin[@]}" "$kavot" convert "$file" "$work/c.h5"
        timed "$work/kp.times" "${pin[@]}" "$kavot" convert "$file" "$work/c.kavotphot"
    done
    v=$(median < "$work/v.times")
    h5=$(median < "$work/h5.times")
    kp=$(median < "$work/kp.times")
    awk -v c="$cores" -v v="$v" -v h="$h5" -v k="$kp" 'BEGIN {
        printf "20 M hits, %s core(s), median of pairs: vundrel -T %.3f s; kavot convert .h5 %.3f s (%.2fx); .kavotphot %.3f s (%.2fx)\n",
            c, v, h, h / v, k, k / v }'
done

[ "$hits" -gt 0 ] || exit 0 # ADVERSARIAL_HITS 0: the speed only

# Peak memory of kavot convert on the hard shapes (as bench/adversarial.sh makes them) and a 30-minute quad.
adversarial="$work/adversarial"
mkdir -p "$adversarial"
shapes=(
    "ordered --disorder 1e-7"
    "lag_100us --disorder 1e-4"
    "lag_1ms --disorder 1e-3"
    "lag_100ms --disorder 0.1"
    "reversed --reverse"
    "bursts --rate 5e8 --cluster-size 12"
    "chain --pattern chain"
    "spot --pattern spot"
)
printf "%-14s %10s %8s %9s\n" shape hits wall_s peak_MiB
for entry in "${shapes[@]}"; do
    read -r name options <<< "$entry"
    input="$adversarial/${name}_$hits.tpx3"
    # shellcheck disable=SC2086
    [ -f "$input" ] || "$gen" -o "$input" --hits "$hits" $options > /dev/null
    /usr/bin/time -v "$kavot" convert "$input" "$adversarial/out.h5" > /dev/null 2> "$work/t"
    printf "%-14s %10d %8.2f %9s\n" "$name" "$hits" "$(seconds "$work/t")" "$(mib "$work/t")"
done
quad="$work/quad_30min.tpx3"
[ -f "$quad" ] || "$gen" -o "$quad" --chips 4 --duration 1800 --rate 55000 --heartbeat 1 --stale 1 --tdc-rate 60 \
    --disorder 1e-3 --max-chunk 8 > /dev/null
/usr/bin/time -v "$kavot" convert "$quad" "$adversarial/out.h5" > /dev/null 2> "$work/t"
printf "%-14s %10s %8.2f %9s\n" quad_30min "~98 M" "$(seconds "$work/t")" "$(mib "$work/t")"
rm -f "$adversarial/out.h5" "$work/c.h5" "$work/c.kavotphot" "$work/v.kavotphot"

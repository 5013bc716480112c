#!/usr/bin/env bash
# Hits per second of vundrel builds on every CPU, to the millisecond: the builds in turn, round by round, each run
# writing its photon file either as a new file (the output removed before the run, outside the timing) or over
# the file of the run before. Replacing a file of 46 MB costs the kernel about 10 ms to free the old one (its
# blocks and cached pages, in the rename that replaces it), so both are given.
# Usage: bench/throughput.sh ROUNDS HITS FILE[,FILE...] VUNDREL [VUNDREL...]
set -euo pipefail
rounds=$1
hits=$2
IFS=, read -r -a files <<< "$3"
shift 3
builds=("$@")
log=$(mktemp -d)
trap 'rm -rf "$log"' EXIT

for _ in $(seq "$rounds"); do
    for file in "${files[@]}"; do
        for b in "${!builds[@]}"; do
            for mode in new over; do
                [ "$mode" = new ] && rm -f "$log/out.kavotphot"
                # Bash's own clock: a `date` run just before would compete with the run for a CPU.
                start=${EPOCHREALTIME/./}
                "${builds[$b]}" -i "$file" -o "$log/out.kavotphot" --verbose 0
                end=${EPOCHREALTIME/./}
                echo $((end - start)) >> "$log/$b.$mode.$(basename "$file")"
            done
        done
    done
done

median() { sort -n | awk '{v[NR] = $1} END {print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2)}'; }
echo "| build | file | new file: ms (M hits/s) | over the last one: ms (M hits/s) |"
echo "|---|---|---|---|"
for b in "${!builds[@]}"; do
    for file in "${files[@]}"; do
        row="| ${builds[$b]} | $(basename "$file")"
        for mode in new over; do
            us=$(median < "$log/$b.$mode.$(basename "$file")")
            row+=$(awk -v us="$us" -v n="$hits" 'BEGIN {printf " | %.1f (%.1f)", us / 1000, n / us}')
        done
        echo "$row |"
    done
done

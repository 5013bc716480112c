#!/usr/bin/env bash
# Several vundrel builds on the same recordings, in turn, pair by pair: each round runs every build on every file
# pinned to one core (taskset -c 0) and free to use both, so that the host's load falls on all of them alike.
# Prints one Markdown row per build and file: the median wall time, CPU time (user + system) and peak resident
# memory of the rounds, one core and both cores.
# Usage: bench/versus.sh ROUNDS FILE[,FILE...] VUNDREL [VUNDREL...]
set -euo pipefail
rounds=$1
IFS=, read -r -a files <<< "$2"
shift 2
builds=("$@")
log=$(mktemp -d)
trap 'rm -rf "$log"' EXIT

for round in $(seq "$rounds"); do
    for file in "${files[@]}"; do
        for b in "${!builds[@]}"; do
            for cores in one both; do
                pin=()
                [ "$cores" = one ] && pin=(taskset -c 0)
                /usr/bin/time -f "%e %U %S %M" -o "$log/t" "${pin[@]}" "${builds[$b]}" -i "$file" \
                    -o "$log/out.kavotphot" > /dev/null
                echo "$(cat "$log/t")" >> "$log/$b.$cores.$(basename "$file")"
            done
        done
    done
    echo "round $round of $rounds done" >&2
done

median() { sort -n | awk '{v[NR] = $1} END {print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2)}'; }
echo "| build | file | one core: wall s / CPU s / MiB | both cores: wall s / CPU s / MiB |"
echo "|---|---|---|---|"
for b in "${!builds[@]}"; do
    for file in "${files[@]}"; do
        row="| ${builds[$b]} | $(basename "$file")"
        for cores in one both; do
            runs="$log/$b.$cores.$(basename "$file")"
            wall=$(awk '{print $1}' "$runs" | median)
            cpu=$(awk '{print $2 + $3}' "$runs" | median)
            mib=$(awk '{print $4 / 1024}' "$runs" | median)
            row+=$(printf " | %.2f / %.2f / %.1f" "$wall" "$cpu" "$mib")
        done
        echo "$row |"
    done
done

#!/usr/bin/env bash
# Several vundrel builds on the same recordings, in turn, pair by pair: each round runs every build on every file
# pinned to one core (taskset -c 0) and free to use both, so that the host's load falls on all of them alike.
# Prints one Markdown row per build and file: the median wall time, CPU time (user + system; both to the
# millisecond) and peak resident memory of the rounds, one core and both cores.
# Usage: bench/versus.sh ROUNDS FILE[,FILE...] VUNDREL [VUNDREL...]
set -euo pipefail
rounds=$1
IFS=, read -r -a files <<< "$2"
shift 2
builds=("$@")
log=$(mktemp -d)
trap 'rm -rf "$log"' EXIT
TIMEFORMAT="%3R %3U %3S"

for round in $(seq "$rounds"); do
    for file in "${files[@]}"; do
        for b in "${!builds[@]}"; do
            for cores in one both; do
                pin=()
                [ "$cores" = one ] && pin=(taskset -c 0)
                # Bash's clock to the millisecond for wall and CPU time; /usr/bin/time for the peak memory only
                # (its own CPU time, well under a millisecond, falls on every build alike).
                { time /usr/bin/time -f "%M" -o "$log/m" "${pin[@]}" "${builds[$b]}" -i "$file" \
                    -o "$log/out.kavotphot" > /dev/null 2>&1; } 2> "$log/t"
                echo "$(cat "$log/t") $(cat "$log/m")" >> "$log/$b.$cores.$(basename "$file")"
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
            row+=$(printf " | %.3f / %.3f / %.1f" "$wall" "$cpu" "$mib")
        done
        echo "$row |"
    done
done

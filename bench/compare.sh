#!/usr/bin/env bash
# Runs two vundrel binaries on the same inputs with the same settings and compares everything a user sees:
# the photon file, the photon count image, the log lines (time stamps and timings removed) and the exit status.
# Inputs: generated recordings of several shapes (kept in WORK_DIR) and every real recording.
# Prints one line per difference and a summary; exits 1 when anything differs.
# Usage: bench/compare.sh OLD_VUNDREL NEW_VUNDREL [WORK_DIR] [TPX3GEN]
set -uo pipefail
old=$(realpath "$1")
new=$(realpath "$2")
work=${3:-/tmp/vundrel_compare}
gen=${4:-$(dirname "$new")/tools/tpx3gen}
real=$(cd "$(dirname "$0")/.." && pwd)/../shared/data/real
mkdir -p "$work/in" "$work/old" "$work/new"

# name hits generator-options
shapes=(
    "ordered_200k 200000 --disorder 1e-7"
    "disorder_200k 200000 --disorder 1e-5"
    "reverse_100k 100000 --reverse"
    "bursts_100k 100000 --rate 5e8 --cluster-size 12"
    "gaps_20k 20000 --rate 200 --start 20"
    "smallchunks_50k 50000 --max-chunk 3 --disorder 2e-6"
)
inputs=()
for entry in "${shapes[@]}"; do
    read -r name hits options <<< "$entry"
    file="$work/in/$name.tpx3"
    [ -f "$file" ] || "$gen" -o "$file" --hits "$hits" $options > /dev/null
    inputs+=("$file")
done
for file in "$real"/*.tpx3; do
    [ -f "$file" ] && inputs+=("$file")
done

settings=(
    ""
    "-T"
    "--algorithm checkNextOnly -T"
    "--algorithm forwardChain_pixelBuildup"
    "-s 3.5 -t 3e-7 -T"
    "--globalTime_ignore --algorithm forwardChain_pixelBuildup -T"
    "-t 1e-6 -k 1 -K 5 -m 3 -M 300"
    "-s 0.5 -t 2e-8 --algorithm checkNextOnly"
)

differences=0
runs=0
run_one() { # binary outdir input setting-index
    local out="$2/$4"
    rm -rf "$out"
    mkdir -p "$out"
    # shellcheck disable=SC2086
    (cd "$out" && "$1" -i "$3" -o out.kavotphot --photImgPath image.raw ${settings[$4]} > log.out 2> log.err)
    echo $? > "$out/status"
    # Time stamps and whole-second timings may differ between runs.
    sed -E -i 's/^([a-zA-Z]+: +)[0-9-]+ [0-9:]+ UTC[+-][0-9]+: /\1/; s/ at [0-9]+ seconds$/ at N seconds/; s/ in [0-9]+ seconds$/ in N seconds/' \
        "$out/log.out" "$out/log.err"
}
for input in "${inputs[@]}"; do
    for index in "${!settings[@]}"; do
        run_one "$old" "$work/old" "$input" "$index"
        run_one "$new" "$work/new" "$input" "$index"
        runs=$((runs + 1))
        for item in status log.out log.err out.kavotphot image.raw; do
            a="$work/old/$index/$item"
            b="$work/new/$index/$item"
            if [ -e "$a" ] || [ -e "$b" ]; then
                if ! cmp -s "$a" "$b"; then
                    echo "DIFFERS: $(basename "$input") [${settings[$index]}] $item"
                    differences=$((differences + 1))
                fi
            fi
        done
    done
done
echo "compare: $runs runs, $differences differences"
[ "$differences" -eq 0 ]

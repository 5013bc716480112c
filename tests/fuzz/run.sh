#!/usr/bin/env bash
# Bounded coverage-guided fuzzing of every parser of outside data: the .tpx3 decoder (the stream the program
# reads against the data set in memory, both time modes, with clustering), the parameter file, the .kavotphot
# readers, the command line and the chip layout file. Seeds come from the project's own generator and program;
# every input in tests/fuzz/regressions/ is replayed first. Any crash, leak, sanitizer report or time-out fails
# the run and leaves the input under build/fuzz/findings/.
# Usage: tests/fuzz/run.sh [SECONDS_PER_TARGET]
set -euo pipefail
cd "$(dirname "$0")/../.."
seconds=${1:-60}
cmake --preset fuzz > /dev/null
cmake --build --preset fuzz
build=build/fuzz
work=$build/fuzz-work
rm -rf "$work"
mkdir -p "$work/findings" "$work/seeds"/{tpx3,paramsFile,kavotphot,commandLine,layout,convertOptions}

# Seeds: small generated recordings of every shape, photon files the program wrote from them, parameter files,
# command lines and layouts.
# Heartbeats every microsecond and triggers at 200 kHz over the 30 s of the slow recording would make a seed of half
# a gigabyte, of which the fuzzer reads 64 KiB: that one gets a heartbeat a second and triggers at 10 Hz.
fast="--tdc-rate 2e5 --global-interval 1e-6"
seed=0
for options in "$fast" "$fast --disorder 2e-7" "$fast --reverse" "$fast --disorder 2e-7 --reverse" \
    "--tdc-rate 10 --global-interval 1 --rate 2 --start 30"; do
    seed=$((seed + 1))
    # shellcheck disable=SC2086
    "$build/tools/tpx3gen" -o "$work/seeds/tpx3/generated_$seed" --hits 60 --max-chunk 16 --seed "$seed" \
        $options > /dev/null
done
cp "$work/seeds/tpx3/generated_1" "$work/seed.tpx3"
"$build/vundrel" -i "$work/seed.tpx3" -o "$work/seeds/kavotphot/triggers.kavotphot" -T -k 1 --verbose -2
"$build/vundrel" -i "$work/seed.tpx3" -o "$work/seeds/kavotphot/plain.kavotphot" -k 1000 --verbose -2
echo '{"vundrel": {"dSpace": 2.5, "dTime": 5e-7, "nPxMin": 3, "nPxMax": 100, "TDC1": true, "algorithm": "checkNextOnly"}}' \
    > "$work/seeds/paramsFile/all"
echo '{"vundrel": {"nPxMin": 2.0, "dSpace": "3", "TDC1": 1}, "other": [1, null]}' > "$work/seeds/paramsFile/types"
printf '%s\0' -i a.tpx3 -o b.kavotphot -s 3 -t 1e-6 -T > "$work/seeds/commandLine/run"
printf '%s\0' --dS=2.5 --algorithm checkNextOnly --verbose 2 -k -1 --globalTime_ignore --photImgPath x -m 1 \
    > "$work/seeds/commandLine/long"
printf '%s\0' -h --version --license -- stray > "$work/seeds/commandLine/help"
echo '{"detector": {"chip_transformations": [{"chip_id": 0, "matrix": [[1,0,258],[0,1,0]]},
    {"chip_id": 1, "matrix": [[-1,0,513],[0,-1,513]]}, {"chip_id": 2, "matrix": [[-1,0,255],[0,-1,513]]},
    {"chip_id": 3, "matrix": [[1,0,0],[0,1,0]]}]}}' > "$work/seeds/layout/quad"
echo '{"detector": {"name": "x", "chip_transformations": [{"chip_id": 0, "matrix": [[0,1,0],[1,0,256]]},
    {"chip_id": 7, "matrix": [[0,-1,511],[1,0,0]], "gap": 2.5}]}, "other": [null, true]}' \
    > "$work/seeds/layout/transposed"
echo '{"detector": {"chip_transformations": [{"chip_id": 1.0, "matrix": [[1,0],[0,1,"0"]]}, {"chip_id": 256}]}}' \
    > "$work/seeds/layout/broken"

printf '%s\0' in.tpx3 out.h5 --dtime 250ns --dspace=3 --min-hits 1 --max-hits 300 --layout quad --trigger tdc1-falling \
    --image i.tiff --bin 4 --threads 2 --compression small > "$work/seeds/convertOptions/all"
printf '%s\0' --dtime 1e-7s a.tpx3 b.kavotphot --min-weight 0.5 --max-weight=1e4 --algorithm checkNextOnly \
    > "$work/seeds/convertOptions/units"
printf '%s\0' x.tpx3 y.h5 --dtime 100 --layout nope.json -- --help > "$work/seeds/convertOptions/refused"

for target in tpx3 paramsFile kavotphot commandLine layout convertOptions; do
    mkdir -p "$work/corpus/$target"
    echo "fuzz: $target for $seconds s"
    # New inputs go to the first folder; the seeds and the kept regressions are read as well.
    "$build/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
        -close_fd_mask=2 -print_final_stats=1 -artifact_prefix="$work/findings/$target-" \
        "$work/corpus/$target" "$work/seeds/$target" "tests/fuzz/regressions/$target" 2>&1 | tail -n 12
done
echo "fuzz: all targets ran clean"

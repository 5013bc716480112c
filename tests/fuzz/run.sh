#!/usr/bin/env bash
# Bounded coverage-guided fuzzing of every parser of outside data: the .tpx3 decoder (both time modes, with
# clustering), the parameter file, the .kavotphot reader and the command line. Seeds come from the project's
# own generator and writers; every input in tests/fuzz/regressions/ is replayed first. Any crash, leak,
# sanitizer report or time-out fails the run and leaves the input under build/fuzz/findings/.
# Usage: tests/fuzz/run.sh [SECONDS_PER_TARGET]
set -euo pipefail
cd "$(dirname "$0")/../.."
seconds=${1:-60}
cmake --preset fuzz > /dev/null
cmake --build --preset fuzz
build=build/fuzz
work=$build/fuzz-work
rm -rf "$work"
mkdir -p "$work/findings"
"$build/tests/fuzz/make_corpus" "$work/seeds"
for target in tpx3 paramsFile kavotphot commandLine; do
    mkdir -p "$work/corpus/$target"
    echo "fuzz: $target for $seconds s"
    # New inputs go to the first folder; the seeds and the kept regressions are read as well.
    "$build/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
        -close_fd_mask=2 -print_final_stats=1 -artifact_prefix="$work/findings/$target-" \
        "$work/corpus/$target" "$work/seeds/$target" "tests/fuzz/regressions/$target" 2>&1 | tail -n 12
done
echo "fuzz: all targets ran clean"

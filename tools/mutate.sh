#!/usr/bin/env bash
# Mutation testing of the test suite: applies each one-line mutation of tools/mutations.txt to the sources,
# builds, runs the whole suite and reports whether the suite noticed (killed) or not (survived). The sources
# are restored after every mutation, also when the script is interrupted.
#
# mutations.txt: one mutation per line, three fields separated by tabs: file, text to find, replacement. A \n
# in either text stands for a line break. The text must occur exactly once in the file (otherwise the mutation
# is reported as "stale"). Lines starting with # and empty lines are skipped; the comment before a mutation
# says what it breaks. Run it in a checkout of its own: it edits the sources while it runs.
#
# The Slurm cluster test is left out: it checks the batch script, not the program's logic, and takes a minute.
#
# Usage: tools/mutate.sh [MUTATIONS_FILE] [BUILD_DIR] [FIRST] [LAST]
# Prints one line per mutation and a summary; writes the same to BUILD_DIR/mutation-results.txt.
set -uo pipefail
cd "$(dirname "$0")/.."
list=${1:-tools/mutations.txt}
build=${2:-build/mutate}
first=${3:-1}
last=${4:-100000}
python=/usr/bin/python3

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKAVOT_BUILD_BENCHMARKS=OFF > /dev/null || exit 1
cmake --build "$build" -j2 > /dev/null || { echo "mutate: the unmutated sources do not build"; exit 1; }
if ! ctest --test-dir "$build" -j2 --timeout 300 -E "^slurm" > /dev/null 2>&1; then
    echo "mutate: the suite fails without mutations; nothing to measure"
    exit 1
fi

backup=$(mktemp -d)
restore() {
    if [ -n "${current:-}" ] && [ -f "$backup/file" ]; then
        cp "$backup/file" "$current"
        current=""
    fi
}
trap 'restore; rm -rf "$backup"; exit 130' INT TERM
results="$build/mutation-results.txt"
: > "$results"
killed=0
survived=0
stale=0
index=0
while IFS=$'\t' read -r file search replace || [ -n "$file" ]; do
    case "$file" in '' | '#'*) continue ;; esac
    index=$((index + 1))
    [ "$index" -lt "$first" ] || [ "$index" -gt "$last" ] && continue
    label="$index $file: '$search' -> '$replace'"
    cp "$file" "$backup/file"
    current=$file
    if ! "$python" - "$file" "$search" "$replace" << 'PY'; then
import sys
path, search, replace = (a.replace("\\n", "\n") for a in sys.argv[1:4])
text = open(path, encoding="utf-8").read()
if text.count(search) != 1:
    sys.exit(1)
open(path, "w", encoding="utf-8").write(text.replace(search, replace))
PY
        outcome=stale
        stale=$((stale + 1))
    elif ! cmake --build "$build" -j2 < /dev/null > /dev/null 2>&1; then
        outcome="killed (does not build)"
        killed=$((killed + 1))
    elif ctest --test-dir "$build" -j2 --timeout 300 -E "^slurm" < /dev/null > "$build/mutation-ctest.log" 2>&1; then
        outcome=survived
        survived=$((survived + 1))
    else
        outcome="killed by $(grep -E '^\s+[0-9]+ - .*\((Failed|Timeout|SEGFAULT|Subprocess aborted|Exception|Child aborted)' "$build/mutation-ctest.log" | sed -E 's/^\s+[0-9]+ - //; s/ \(.*//' | head -3 | paste -sd, -)"
        killed=$((killed + 1))
    fi
    restore
    echo "$label: $outcome" | tee -a "$results"
done < "$list"
rm -rf "$backup"
# Leave the build matching the unmutated sources.
cmake --build "$build" -j2 > /dev/null 2>&1
echo "mutate: $killed killed, $survived survived, $stale stale" | tee -a "$results"

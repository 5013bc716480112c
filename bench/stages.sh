#!/usr/bin/env bash
# Where one vundrel run spends its time, by stage of the engine: nanoseconds per hit from a sampling profile of a
# one-core run (perf, cpu-clock) and instructions per hit from callgrind. Needs a Release build with debug
# information, so that inlined code keeps the name of its header:
#   cmake --preset release -B build/profile -DCMAKE_CXX_FLAGS=-g && cmake --build build/profile --target vundrel
# Usage: bench/stages.sh BUILD_DIR FILE HITS [--no-callgrind] [EXTRA VUNDREL OPTIONS...]
set -euo pipefail
build=$1 file=$2 hits=$3
shift 3
callgrind=1
if [ "${1:-}" = --no-callgrind ]; then callgrind=0; shift; fi
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat "$file" > /dev/null
perf record -q -e cpu-clock -F 4999 -o "$work/perf.data" -- \
    taskset -c 0 "$build/vundrel" -i "$file" -o "$work/out.kavotphot" --verbose 0 "$@" 2> /dev/null
echo "profile (perf, one core):"
perf report -i "$work/perf.data" --stdio -t '|' --sort srcfile,sym -F period,srcfile,sym 2> /dev/null |
    /usr/bin/python3 "$here/stages.py" perf "$hits"
if [ "$callgrind" = 1 ]; then
    valgrind -q --tool=callgrind --callgrind-out-file="$work/callgrind.out" \
        "$build/vundrel" -i "$file" -o "$work/out.kavotphot" --verbose 0 "$@"
    echo "instructions (callgrind):"
    callgrind_annotate --inclusive=no --auto=no --threshold=100 "$work/callgrind.out" 2> /dev/null |
        /usr/bin/python3 "$here/stages.py" callgrind "$hits"
fi

#!/usr/bin/env bash
# Instructions per operation of the benchmarks that match a filter, counted by callgrind: each is
# run 200 and 1200 times, and the difference over 1000 is the cost of one operation (setup and
# the benchmark library's own work cancel out). Steadier than time on a shared machine.
#   bench/instructions.sh BENCH_BINARY [FILTER]      e.g. build-bench/bench/ovrin_sm_bench 'ours/.*/marshal$'
set -euo pipefail
binary=$1
filter=${2:-.}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

count() { # count N NAME -> total instructions of one benchmark run N times
    OVRIN_BENCH_ITERATIONS=$1 valgrind --tool=callgrind --callgrind-out-file="$work/out" \
        "$binary" --benchmark_filter="^$2(/iterations:[0-9]+)?\$" >/dev/null 2>"$work/log"
    grep -E '^summary:' "$work/out" | awk '{print $2}'
}

"$binary" --benchmark_list_tests --benchmark_filter="$filter" | grep -E '^(ours|pb|memcpy)/' | while read -r name; do
    low=$(count 200 "$name")
    high=$(count 1200 "$name")
    awk -v n="$name" -v lo="$low" -v hi="$high" 'BEGIN { printf "%-32s %12.0f\n", n, (hi - lo) / 1000 }'
done

#!/usr/bin/env bash
# Instructions per operation of the benchmarks that match a filter, counted by callgrind: each is
# run 200 and 1200 times, and the difference over 1000 is the cost of one operation (setup and
# the benchmark library's own work cancel out). Steadier than time on a shared machine.
# The second column is the part spent inside the runtime library (libmgx: its primitives, header
# pieces, allocator and hooks): the floor that no change to the bundle's own code can go below.
#   bench/instructions.sh BENCH_BINARY [FILTER]      e.g. build-bench/bench/ovrin_sm_bench 'ours/.*/marshal$'
set -euo pipefail
binary=$1
filter=${2:-.}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

count() { # count N NAME -> "total runtime" instructions of one benchmark run N times
    OVRIN_BENCH_ITERATIONS=$1 valgrind --tool=callgrind --callgrind-out-file="$work/out" \
        "$binary" --benchmark_filter="^$2(/iterations:[0-9]+)?\$" >/dev/null 2>"$work/log"
    local total runtime
    total=$(grep -E '^summary:' "$work/out" | awk '{print $2}')
    runtime=$(callgrind_annotate --auto=no --inclusive=no --threshold=100 "$work/out" 2>/dev/null |
        awk '/libmgx\.so|runtime\/[a-z_]+\.(h|cpp):/ { n = $1; gsub(",", "", n); s += n } END { print s + 0 }')
    echo "$total $runtime"
}

printf '%-32s %12s %12s\n' benchmark instructions in-runtime
"$binary" --benchmark_list_tests --benchmark_filter="$filter" | grep -E '^(ours|cxx|pb|memcpy)/' | while read -r name; do
    read -r low low_rt < <(count 200 "$name")
    read -r high high_rt < <(count 1200 "$name")
    awk -v n="$name" -v lo="$low" -v hi="$high" -v lr="$low_rt" -v hr="$high_rt" \
        'BEGIN { printf "%-32s %12.0f %12.0f\n", n, (hi - lo) / 1000, (hr - lr) / 1000 }'
done

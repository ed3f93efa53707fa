#!/usr/bin/env bash
# Fails when a channel's work or memory grows faster than linearly with its input, without timing
# anything. At sizes N, 2N and 4N, valgrind counts
#   - instructions (callgrind): of the operation alone for a library channel (counted inside
#     complexity_probe, between callgrind's markers), of the whole ovrin-sm process for a tool
#     channel;
#   - the heap's peak (dhat, "At t-gmax"): of the whole process, the input it makes included;
# and for each,
#   ratio = (I(4N) - I(2N)) / (I(2N) - I(N))
# is about 2 for linear growth and about 4 for quadratic growth; fixed costs (start-up, libraries,
# the handle) cancel in the differences. The instructions' ratio must not exceed LIMIT. The heap's
# must not exceed 3.5, where it grows at all (by 64 KiB or more from N to 4N: below that the peak
# is set by what every run allocates): blocks that grow by a factor move the peak in steps, so
# linear memory can show up to about 3 (decode shows 2.89), while quadratic memory shows 4.
# MEMORY=0 skips the heap (for channels whose operation allocates nothing of its own: the
# peak would be the input's).
#   complexity_gate.sh PROBE TOOL CHANNEL N [LIMIT [INSTRUMENTED [MEMORY]]]
# Status 3 when the channel grows faster than the limit allows, 1 when it could not be measured,
# 77 (skipped) in an instrumented build (sanitizers, fuzzing: their counts mean nothing) and where
# valgrind is not installed.
set -euo pipefail
probe=$1 tool=$2 channel=$3 n=$4 limit=${5:-2.6} instrumented=${6:-0} memory=${7:-1}
memory_limit=3.5
if [ "$instrumented" = 1 ]; then
    echo "skipped: an instrumented build"
    exit 77
fi
if ! command -v valgrind >/dev/null; then
    echo "skipped: valgrind is not installed (CI installs it: tools/dev.sh)"
    exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# measure TOOL SIZE -> what valgrind's TOOL (callgrind or dhat) measured of the channel at SIZE:
# instructions, or the heap's peak in bytes
measure() {
    local vtool=$1 size=$2 out="$work/$1.$2" status=0 expected=0
    local -a command
    if [[ $channel == tool.* ]]; then
        mkdir -p "$work/in.$size"
        mapfile -t lines < <("$probe" --channel "$channel" --size "$size" --dir "$work/in.$size")
        ((${#lines[@]} >= 2)) || { echo "$channel: the probe wrote no command at size $size" >&2; return 1; }
        expected=${lines[0]}
        command=("$tool" "${lines[@]:1}")
    else
        command=("$probe" --channel "$channel" --size "$size")
    fi
    if [ "$vtool" = callgrind ]; then
        command=(valgrind --tool=callgrind --callgrind-out-file="$out"
                 $([[ $channel == tool.* ]] || echo "--instr-atstart=no --collect-atstart=no") "${command[@]}")
    else
        command=(valgrind --tool=dhat --dhat-out-file=/dev/null "${command[@]}")
    fi
    "${command[@]}" >/dev/null 2>"$work/log.$size" || status=$?
    rm -rf "$work/in.$size"
    if [ "$status" != "$expected" ]; then
        echo "$channel: exit status $status at size $size (expected $expected):" >&2
        grep -v '^==' "$work/log.$size" | tail -n 5 >&2
        return 1
    fi
    if [ "$vtool" = callgrind ]; then
        awk '/^(summary|totals):/ { n = $2 } END { printf "%.0f\n", n }' "$out"
    else
        awk '/At t-gmax:/ { n = $4; gsub(",", "", n) } END { printf "%.0f\n", n }' "$work/log.$size"
    fi
}

i1=$(measure callgrind "$n")
i2=$(measure callgrind $((2 * n)))
i4=$(measure callgrind $((4 * n)))
m1=0 m2=0 m4=0
if [ "$memory" = 1 ]; then
    m1=$(measure dhat "$n")
    m2=$(measure dhat $((2 * n)))
    m4=$(measure dhat $((4 * n)))
fi
awk -v c="$channel" -v n="$n" -v a="$i1" -v b="$i2" -v d="$i4" -v ma="$m1" -v mb="$m2" -v md="$m4" -v limit="$limit" \
    -v memory="$memory" -v mlimit="$memory_limit" 'BEGIN {
    if (b <= a) { printf "%s: no growth from N=%d to 2N (%.0f, %.0f instructions): the input does not reach the work\n", c, n, a, b; exit 1 }
    ratio = (d - b) / (b - a)
    printf "%s: N=%d instructions %.0f, 2N %.0f, 4N %.0f; increments ratio %.2f (linear 2, quadratic 4; limit %.2f)\n",
           c, n, a, b, d, ratio, limit
    grows = md - ma >= 65536
    mratio = mb > ma ? (md - mb) / (mb - ma) : (grows ? 1e9 : 0)
    if (memory)
        printf "%s: heap peak N %.0f bytes, 2N %.0f, 4N %.0f; %s\n", c, ma, mb, md,
               grows ? sprintf("increments ratio %.2f (limit %.2f)", mratio, mlimit) : "flat (less than 64 KiB from N to 4N)"
    failed = 0
    if (ratio > limit) { printf "%s: its work grows faster than linearly\n", c; failed = 1 }
    if (memory && grows && mratio > mlimit) { printf "%s: its memory grows faster than linearly\n", c; failed = 1 }
    exit failed ? 3 : 0
}'

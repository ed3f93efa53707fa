#!/usr/bin/env bash
# Fails when a channel's work grows faster than linearly with its input, without timing anything:
# callgrind counts the instructions of the operation (a library channel, counted inside
# complexity_probe) or of the whole ovrin-sm process (a tool channel) at sizes N, 2N and 4N, and
#   ratio = (I(4N) - I(2N)) / (I(2N) - I(N))
# is about 2 for linear work and about 4 for quadratic work; fixed costs (start-up, libraries,
# the handle) cancel in the differences. The ratio must not exceed LIMIT.
#   complexity_gate.sh PROBE TOOL CHANNEL N [LIMIT [INSTRUMENTED]]
# Status 3 when the channel grows faster than the limit allows, 1 when it could not be measured,
# 77 (skipped) in an instrumented build (sanitizers, fuzzing: their counts mean nothing)
# and where valgrind is not installed.
set -euo pipefail
probe=$1 tool=$2 channel=$3 n=$4 limit=${5:-2.6} instrumented=${6:-0}
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

instructions() { # instructions SIZE -> the instructions counted at that size
    local size=$1 out="$work/callgrind.$1" status=0 expected=0
    local -a command
    if [[ $channel == tool.* ]]; then
        mkdir -p "$work/in.$size"
        mapfile -t lines < <("$probe" --channel "$channel" --size "$size" --dir "$work/in.$size")
        ((${#lines[@]} >= 2)) || { echo "$channel: the probe wrote no command at size $size" >&2; return 1; }
        expected=${lines[0]}
        command=(valgrind --tool=callgrind --callgrind-out-file="$out" "$tool" "${lines[@]:1}")
    else
        command=(valgrind --tool=callgrind --instr-atstart=no --collect-atstart=no --callgrind-out-file="$out"
                 "$probe" --channel "$channel" --size "$size")
    fi
    "${command[@]}" >/dev/null 2>"$work/log.$size" || status=$?
    if [ "$status" != "$expected" ]; then
        echo "$channel: exit status $status at size $size (expected $expected):" >&2
        grep -v '^==' "$work/log.$size" | tail -n 5 >&2
        return 1
    fi
    rm -rf "$work/in.$size"
    awk '/^(summary|totals):/ { n = $2 } END { printf "%.0f\n", n }' "$out"
}

i1=$(instructions "$n")
i2=$(instructions $((2 * n)))
i4=$(instructions $((4 * n)))
awk -v c="$channel" -v n="$n" -v a="$i1" -v b="$i2" -v d="$i4" -v limit="$limit" 'BEGIN {
    if (b <= a) { printf "%s: no growth from N=%d to 2N (%d, %d instructions): the input does not reach the work\n", c, n, a, b; exit 1 }
    ratio = (d - b) / (b - a)
    printf "%s: N=%d instructions %d, 2N %d, 4N %d; increments ratio %.2f (linear 2, quadratic 4; limit %.2f)\n",
           c, n, a, b, d, ratio, limit
    if (ratio > limit) { printf "%s: grows faster than linearly\n", c; exit 3 }
}'

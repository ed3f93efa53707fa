#!/usr/bin/env bash
# The demo over a long run: both processes must stay within a fixed resident memory while the
# sessions go by, as a session manager that runs for weeks must. Runs
#   ovrin-sm demo --quiet --count SESSIONS --memory-every SESSIONS/10
# and checks that the demo passes and, for the client and the session manager each, that every
# sample shows a handle with no live allocation and that the resident set size after the last
# session is within SLACK_KIB of the one after the first tenth (once the allocator has settled).
# Only resident memory is judged, never time.
#
#   soak_test.sh OVRIN_SM [SESSIONS [SLACK_KIB [INSTRUMENTED]]]
#
# SESSIONS defaults to 200000, SLACK_KIB to 8192. INSTRUMENTED is 1 for a sanitizer build: the
# sanitizers' own bookkeeping makes resident memory meaningless and the run far too slow, so the
# test is skipped (exit 77).
set -euo pipefail

tool=$1
sessions=${2:-200000}
slack=${3:-8192}
instrumented=${4:-0}

if [ "$instrumented" = 1 ]; then
    echo "skipped: a sanitizer build, where resident memory says nothing about the demo"
    exit 77
fi
if ((sessions < 10 || sessions % 10)); then
    echo "SESSIONS must be a multiple of 10" >&2
    exit 2
fi
every=$((sessions / 10))

# A daemon that leaks fills the machine long before the last sample: the demo runs under an
# address-space ceiling of 1 GiB (it needs some 50 MiB), and is stopped at the first sample that
# is already past the allowed growth.
log=$(mktemp)
errors=$(mktemp)
trap 'rm -f "$log" "$errors"' EXIT
failed=0
fail() {
    echo "FAIL: $*"
    failed=1
}

SECONDS=0
exec {demo}< <(ulimit -v 1048576; exec "$tool" demo --quiet --count "$sessions" --memory-every "$every" 2>"$errors")
pid=$!
declare -A first last samples
pattern='^memory: (client|session manager) after ([0-9]+) sessions: rss ([0-9]+) KiB, peak [0-9]+ KiB, live allocations ([0-9]+)$'
while IFS= read -r line <&"$demo"; do
    echo "$line" >>"$log"
    [[ $line =~ $pattern ]] || continue
    side=${BASH_REMATCH[1]} rss=${BASH_REMATCH[3]} live=${BASH_REMATCH[4]}
    echo "$line"
    samples[$side]=$((${samples[$side]:-0} + 1))
    first[$side]=${first[$side]:-$rss}
    last[$side]=$rss
    [ "$live" = 0 ] || fail "$side: its handle held $live allocations between sessions"
    if ((rss - ${first[$side]} > slack)); then
        fail "$side: resident memory grew by $((rss - ${first[$side]})) KiB; stopping the demo"
        kill "$pid" 2>/dev/null || true
        break
    fi
done
exec {demo}<&-
status=0
wait "$pid" || status=$?
echo "$sessions sessions in ${SECONDS}s (exit status $status)"
grep -E '^(verdict|client|session manager):' "$log" || true
grep -v '^progress:' "$errors" | tail -n 5 || true

if ((failed == 0)); then
    [ "$status" = 0 ] || fail "the demo exited with status $status (out of memory under the 1 GiB ceiling?)"
    grep -q '^verdict: PASS' "$log" || fail "the demo did not pass"
    for side in "client" "session manager"; do
        if [ "${samples[$side]:-0}" != 10 ]; then
            fail "$side: ${samples[$side]:-0} memory lines, 10 expected"
            continue
        fi
        growth=$((${last[$side]} - ${first[$side]}))
        echo "$side: rss ${first[$side]} KiB after $every sessions, ${last[$side]} KiB after $sessions:" \
             "$growth KiB (at most $slack)"
    done
fi
exit "$failed"

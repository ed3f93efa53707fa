#!/usr/bin/env bash
# ovrin-sm demo --clients: a session manager serving fifty clients at once while every fault is
# played beside them, read back from the JSON report and the text one; a run that must fail (a
# frame limit below the demo's messages) fails and says why; nothing is left in the directory.
#   load_test.sh TOOL
set -euo pipefail
tool=$1
source "$(dirname "$0")/tool_test_lib.sh"
export TMPDIR=$work # the run's private directory goes here, so that its removal can be seen
chmod 0711 "$work" # and the group's peers can pass through to it

clients=50 count=4
per_session=13 exchanges_per_session=5 # requests and answers; requests that are answered
if [ "$(id -u)" -eq 0 ]; then faults=all; group=(--group users); else faults=kill,damage,truncate,oversize,stall,silent; group=(); fi

# Every fault at once, beside the healthy clients: each dropped for its own cause, the healthy
# clients' every message intact, and nothing of the dropped ones left in the session manager.
status=0
"$tool" demo --clients $clients --count $count --faults $faults "${group[@]}" --idle 300 --json > "$work/report.json" \
    2> "$work/err" || status=$?
[ "$status" -eq 0 ] || fail "the loaded run: status $status: $(cat "$work/report.json" "$work/err")"
check() { # check JQ_EXPRESSION: true of the report
    jq -e "$1" "$work/report.json" > /dev/null || fail "not true of the report: $1: $(jq -c . "$work/report.json")"
}
check '.verdict == "PASS" and .reasons == []'
check ".sessions == $clients * $count and .messages == $clients * $count * $per_session"
check ".latency_us.exchanges == $clients * $count * $exchanges_per_session"
check '.latency_us.p50 > 0 and .latency_us.p50 <= .latency_us.p99 and .latency_us.p99 <= .latency_us.max'
check '.manager.live_allocations == 0 and .manager.descriptors.start == .manager.descriptors.end'
check '.manager.rss_kib.start > 0 and .manager.rss_kib.peak >= .manager.rss_kib.end and (.timeline | length) >= 1'
check '.manager.messages >= .messages and .manager.cpu_seconds > 0'
check '[.drops[]] == [1, 1, 1, 1, 1, 1, 0]' # closed mid-frame ... silent; none gone before its answers
for cause in "closed mid-frame" "damaged frame: reg_client of session" "truncated frame: reg_client of session" \
             "frame over the limit: 65537 bytes announced" "stopped reading" "silent"; do
    grep -q "session manager: dropped client [0-9]* (pid [0-9]*): $cause" "$work/err" || fail "no drop '$cause' in: $(cat "$work/err")"
done
if [ "$(id -u)" -eq 0 ]; then
    # The stranger (nobody, reaching the socket through the group's passage) is refused by its
    # credentials; the member of the group (nobody too, but in the group) is let in and served.
    check '.refused["neither this user nor the group"] == 1 and .refused["by the directory'"'"'s permissions"] == 0'
    grep -q "session manager: refused a peer (pid [0-9]*, uid 65534, gid 65534): neither user 0 nor group 100" "$work/err" ||
        fail "no refusal: $(cat "$work/err")"
    # Without a group the directory alone keeps the stranger out.
    "$tool" demo --clients 2 --count 1 --faults stranger > "$work/out" 2>&1 || fail "the stranger alone: $(cat "$work/out")"
    grep -q "dropped or refused: 1 refused at the directory" "$work/out" || fail "not refused at the directory: $(cat "$work/out")"
else
    check '.stranger_skipped'
fi

# The text form of a run with two faults.
"$tool" demo --clients 3 --count 2 --faults kill,silent --idle 200 > "$work/out" 2> "$work/err" || fail "text report: $(cat "$work/out")"
for line in "load: 3 clients x 2 sessions, faults: kill silent" "load: 6 sessions, 78 messages in " \
            "load: exchange latency: p50 " "load: session manager: live allocations 0; descriptors " \
            "load: dropped or refused: 1 closed mid-frame, 1 silent" "verdict: PASS, every healthy client's 78 messages arrived intact"; do
    grep -qF "$line" "$work/out" || fail "no '$line' in: $(cat "$work/out")"
done

# A session manager that must refuse the healthy clients' frames (a limit below their size): the
# verdict fails and names what happened.
status=0
"$tool" demo --clients 2 --count 1 --max-frame 64 > "$work/out" 2> "$work/err" || status=$?
[ "$status" -eq 1 ] || fail "a refusing session manager: status $status"
grep -q "^verdict: FAIL, client [01]: .*; 2 dropped as frame over the limit, 0 expected" "$work/out" || fail "$(cat "$work/out")"

# Every run took its directory and socket away.
leftover=$(find "$work" -name 'ovrin-sm-load.*')
[ -z "$leftover" ] || fail "left behind: $leftover"
echo "ok"

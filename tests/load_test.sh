#!/usr/bin/env bash
# ovrin-sm demo --clients: a session manager serving fifty clients at once while every fault is
# played beside them, read back from the JSON report and the text one; a run that must fail (a
# frame limit below the demo's messages) fails and says why, and a frame at the limit is taken;
# nothing is left in the directory.
#   load_test.sh TOOL
set -euo pipefail
tool=$1
source "$(dirname "$0")/tool_test_lib.sh"
export TMPDIR=$work # the run's private directory goes here, so that its removal can be seen
chmod 0711 "$work" # and the group's peers can pass through to it

clients=50 count=4
per_session=13 exchanges_per_session=5 # requests and answers; requests that are answered
# Every fault: another user's peer needs root, and without it the stranger is left out (and said so).
faults=all
if [ "$(id -u)" -eq 0 ]; then group=(--group users); else group=(); fi

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
batching=3 # clients 7, 23 and 39 batch their requests, and their exchanges are not timed
check ".latency_us.exchanges == ($clients - $batching) * $count * $exchanges_per_session"
check '.latency_us.p50 > 0 and .latency_us.p50 <= .latency_us.p99 and .latency_us.p99 <= .latency_us.max'
check '.manager.live_allocations == 0 and .manager.descriptors.start == .manager.descriptors.end'
check '.manager.rss_kib.start > 0 and .manager.rss_kib.peak >= .manager.rss_kib.end and (.timeline | length) >= 1'
check '.manager.messages >= .messages and .manager.cpu_seconds > 0'
check '[.drops[]] == [1, 1, 1, 1, 1, 1, 0]' # closed mid-frame ... silent; none gone before its answers
# The memory of the first and the last tenth is the highest the timeline shows in each (its times
# are rounded to the millisecond, so a sample that close to a tenth's edge may count either way).
check 'def top(f): [.timeline[] | select(f) | .rss_kib] | max; .timeline[-1].t as $t | .manager.rss_kib as $m |
       top(.t <= $t / 10 - 0.001) <= $m.first_tenth and $m.first_tenth <= top(.t <= $t / 10 + 0.001) and
       top(.t >= $t * 0.9 + 0.001) <= $m.last_tenth and $m.last_tenth <= top(.t >= $t * 0.9 - 0.001)'
# Each drop with its own cause and detail: the damaged frame decodes to another message, the
# truncated one does not decode.
for cause in "closed mid-frame" "damaged frame: reg_client of session [0-9]* differs from what the client sent" \
             "truncated frame: reg_client of session [0-9]* does not decode: error 90 " \
             "frame over the limit: 65537 bytes announced" "stopped reading" "silent"; do
    grep -q "session manager: dropped client [0-9]* (pid [0-9]*): $cause" "$work/err" || fail "no drop '$cause' in: $(cat "$work/err")"
done
# The staller is let go at the first request whose answers pile up past the output limit.
unread=$(sed -n 's/.*stopped reading: \([0-9]*\) bytes of answers unread, the limit is 262144$/\1/p' "$work/err")
[ -n "$unread" ] && [ "$unread" -gt 262144 ] && [ "$unread" -le $((262144 + 65536)) ] ||
    fail "the staller let go with ${unread:-no} bytes unread: $(cat "$work/err")"
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
# The session manager handled the clients' 78 messages and the 13 of the session the killed peer played first.
for line in "load: 3 clients x 2 sessions, faults: kill silent" "load: 6 sessions, 78 messages in " \
            "load: session manager: 91 messages in " \
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

# The limit is the longest frame taken: raised to each refused frame's own length until one client's
# run passes, the last run takes its longest frame at exactly the limit.
limit=64
for attempt in 1 2 3 4 5 6 7 8; do
    status=0
    "$tool" demo --clients 1 --count 1 --max-frame $limit --json > "$work/report.json" 2> "$work/err" || status=$?
    [ "$status" -ne 0 ] || break
    announced=$(sed -n 's/.*: frame over the limit: \([0-9]*\) bytes announced.*/\1/p' "$work/err")
    [ -n "$announced" ] && [ "$announced" -gt "$limit" ] || fail "--max-frame $limit: status $status: $(cat "$work/err")"
    limit=$announced
done
[ "$status" -eq 0 ] && [ "$limit" -gt 64 ] || fail "no run passed at the length of its longest frame (--max-frame $limit)"
# Fewer than a hundred exchanges: the 99th percentile is the slowest of them.
check '.latency_us.exchanges == 5 and .latency_us.p99 == .latency_us.max'

# A batching client (the eighth) sends 360 sessions' requests before reading: their answers are
# more than the socket holds, so some wait in the session manager's queue until the socket drains.
"$tool" demo --clients 8 --count 360 --json > "$work/report.json" 2> "$work/err" || fail "batching: $(cat "$work/err")"
check '.verdict == "PASS" and .manager.write_waits >= 1'

# Every run took its directory and socket away.
leftover=$(find "$work" -name 'ovrin-sm-load.*')
[ -z "$leftover" ] || fail "left behind: $leftover"
echo "ok"

#!/usr/bin/env bash
# The JSON form through the tool: every wire seed decoded to JSON that jq reads and encoded back to
# the same bytes, every type's skeleton, a message of megabytes, the strict refusals with their
# places, and the command line. SEEDS is the seed writer's wire directory.
set -euo pipefail
tool=$1 seeds=$2
# shellcheck source=tests/tool_test_lib.sh
source "$(dirname "$0")/tool_test_lib.sh"
command -v jq > /dev/null || fail "jq is not installed (tools/dev.sh installs it)"

# Each wire seed is TYPE-MEMBER-u (untracked) or -t (tracked), and holds a byte for the fuzz
# target's allocation failures, the type's index and the tracked flag before the message.
seen=0
for seed in "$seeds"/*-u; do
    name=${seed##*/} t=${name%-*-u}
    tail -c +4 "$seed" > "$work/msg"
    tail -c +4 "${seed%-u}-t" > "$work/tracked"
    "$tool" decode "$t" --json "$work/msg" > "$work/compact" 2> "$work/err" || fail "decode $name --json: $(cat "$work/err")"
    [ "$(wc -l < "$work/compact")" -eq 1 ] || fail "$name: the compact form is not one line"
    jq . "$work/compact" > "$work/jq" 2> "$work/err" || fail "jq cannot read $name: $(cat "$work/err")"
    "$tool" decode "$t" --json --pretty "$work/msg" | cmp -s - "$work/jq" || fail "$name: --pretty is not as jq prints it"
    "$tool" encode "$t" --json "$work/compact" | cmp -s - "$work/msg" || fail "$name: JSON changed the bytes"
    "$tool" encode "$t" "$work/jq" | cmp -s - "$work/msg" || fail "$name: JSON, told by its first character, changed the bytes"
    # The tracked encoding of the same instance reads as the same JSON, and that JSON encodes on a
    # tracking handle to the same bytes (the seeds' state bytes are clear, as a read leaves them).
    "$tool" decode "$t" --tracked --json "$work/tracked" | cmp -s - "$work/compact" || fail "$name: tracked bytes read otherwise"
    "$tool" encode "$t" --tracked --json "$work/compact" | cmp -s - "$work/tracked" || fail "$name: JSON changed the tracked bytes"
    seen=$((seen + 1))
done
[ "$seen" -ge 79 ] || fail "only $seen wire seeds in $seeds"

# Every type's skeleton is what decode writes of it: jq's layout, accepted by encode as it stands.
for t in $("$tool" types | awk 'NR > 1 { print $2 }'); do
    "$tool" types "$t" --json-skeleton > "$work/skel.json" || fail "types $t --json-skeleton"
    jq . "$work/skel.json" | cmp -s - "$work/skel.json" || fail "$t: the skeleton is not laid out as jq lays it out"
    "$tool" encode "$t" "$work/skel.json" > "$work/skel.bin" 2> "$work/err" || fail "$t skeleton: $(cat "$work/err")"
    "$tool" decode "$t" --json --pretty "$work/skel.bin" | diff "$work/skel.json" - >&2 || fail "$t: the skeleton reads back otherwise"
done

# Whole output: 3000 attributes of 1000 bytes, several megabytes of JSON, back to the same bytes.
jq -nc '{attr_list: [range(3000) | {type: (. % 250 + 1), value: ("ab" * 1000)}]}' > "$work/big.json"
"$tool" encode sess_mgr_new_client_notif "$work/big.json" > "$work/big.bin" || fail "encode the large message"
"$tool" decode sess_mgr_new_client_notif --json "$work/big.bin" > "$work/big-out.json" || fail "decode --json of the large message"
[ "$(jq '.attr_list | length' "$work/big-out.json")" -eq 3000 ] || fail "attributes missing from the JSON"
"$tool" encode sess_mgr_new_client_notif --json "$work/big-out.json" | cmp -s - "$work/big.bin" || fail "the large message changed"

# Each strict refusal once, with the place of the value at fault and, for a misspelt name, the
# closest one; --lenient reads each of these documents.
while IFS='|' read -r t doc pattern; do
    printf '%s' "$doc" > "$work/doc.json"
    expect 1 "$pattern" encode "$t" "$work/doc.json"
    grep -qF "does not hold a $t as written (--lenient reads it anyway)" "$work/err" || fail "no --lenient hint: $(cat "$work/err")"
    "$tool" encode "$t" --lenient "$work/doc.json" > /dev/null || fail "--lenient refused: $doc"
done <<CASES
ovrin_smd_in_event|{"event_type":"SESS_MGR_RCL_IN_REGISTER","reg_client":{"sesion_type":2}}|$work/doc.json:1:70: /reg_client/sesion_type: sess_mgr_register has no member sesion_type; did you mean session_type?
ovrin_smd_in_event|{"event_type":"SESS_MGR_RCL_IN_REGISTER","reg_client":{},"reg_clent":{}}|:1:70: /reg_clent: ovrin_smd_in_event has no member reg_clent; did you mean reg_client?
ovrin_smd_in_event|{"event_type":"SESS_MGR_RCL_IN_REGISTER","reg_client":{},"start_client":{}}|:1:73: /start_client: event_type is SESS_MGR_RCL_IN_REGISTER, which selects reg_client
sess_mgr_register|{"session_type":1,"session_type":2}|:1:32: /session_type: duplicate object key near '"session_type"'
sess_mgr_register|{"rcl_conn_hdl":{"conn_hdl":"7"}}|:1:29: /rcl_conn_hdl/conn_hdl: expected a number, found a string
sm_dot11_params|{"apfMsLradSlotId":256}|:1:20: /apfMsLradSlotId: 256 is above 255, the largest u_int8
sess_mgr_session_start|{"ext_params":{"encap_type":"SM_WIRED_ACCES"}}|:1:29: /ext_params/encap_type: SM_WIRED_ACCES is not a literal of sm_access_type; did you mean SM_WIRED_ACCESS?
sess_mgr_register|{"cl_name":{"cl_name_len":6,"client_name":"alice"}}|:1:27: /cl_name/cl_name_len: says 6, but client_name holds 5 bytes
sm_dot11_params|{"oui":[1,2]}|:1:8: /oui: holds 2 elements; oui has 3
sess_mgr_register|{"a/b~":1}|:1:9: /a~1b~0: sess_mgr_register has no member a/b~
sess_mgr_new_client_notif|{"attr_list":[{"type":1,"value":"00"},{"type":1,"value":"0g"}]}|:1:57: /attr_list/1/value: "0g" is not hexadecimal bytes
CASES

# A place past the first line; a root of the wrong kind; text that is not JSON (cut short, a byte
# that is not UTF-8, half a surrogate pair, nested past the limit), refused in either reading.
printf '{\n  "apfMsLradSlotId": 255,\n  "vlan_id": 65536\n}\n' > "$work/widths.json"
expect 1 "$work/widths.json:3:14: /vlan_id: 65536 is above 65535, the largest u_int16" encode sm_dot11_params "$work/widths.json"
for lenient in "" --lenient; do
    echo '[]' | expect 1 "<stdin>:1:1: expected an object (sess_mgr_register), found an array" encode sess_mgr_register $lenient
    printf '{\n  "session_type": 1,\n  "cb_bitmap": 2,\n}' |
        expect 1 "<stdin>:4:1: string or '}' expected near '}'" encode sess_mgr_register $lenient
    printf '{"cl_name":{"client_name":"a\xffb"}}' | expect 1 "<stdin>:1:28: /cl_name/client_name: unable to decode byte 0xff" encode sess_mgr_register $lenient
    printf '{"cl_name":{"client_name":"\\ud800"}}' | expect 1 "<stdin>:1:34: /cl_name/client_name: invalid Unicode '\uD800'" encode sess_mgr_register $lenient
    printf '%0.s[' {1..200} | expect 1 "/0/0: arrays and objects nest deeper than the 128 levels the reader takes" encode sess_mgr_register --json $lenient
done

# Told apart by the first character: an enumeration's JSON is a string; --json on XML says so.
printf ' \n"SM_WIRED_ACCESS"' | "$tool" encode sm_access_type > "$work/enum.bin" || fail "an enumeration's JSON"
printf '<sm_access_type><SM_WIRED_ACCESS/></sm_access_type>' | "$tool" encode sm_access_type | cmp -s - "$work/enum.bin" ||
    fail "an enumeration's JSON and XML encode differently"
echo '<sess_mgr_register/>' | expect 1 "the input looks like XML: leave out --json" encode sess_mgr_register --json

# The command line, and output that cannot be written.
while IFS='|' read -r pattern args; do
    read -ra words <<< "$args"
    expect 2 "$pattern" "${words[@]}"
done <<'CASES'
decode: --xml and --json cannot go together|decode sess_mgr_register --xml --json
--pretty indents XML or JSON: it needs --xml or --json|decode sess_mgr_register --pretty
types: --json-skeleton needs a TYPE|types --json-skeleton
--xml-skeleton and --json-skeleton cannot go together|types sess_mgr_register --json-skeleton --xml-skeleton
CASES
if [ -w /dev/full ]; then
    status=0
    tail -c +4 "$seeds/sess_mgr_register-0-u" > "$work/msg"
    "$tool" decode sess_mgr_register --json "$work/msg" > /dev/full 2> "$work/err" || status=$?
    [ "$status" -eq 1 ] && grep -q "cannot write the output: No space left on device" "$work/err" ||
        fail "decode --json > /dev/full: status $status: $(cat "$work/err")"
fi
echo "tool JSON: $seen seeds, ok"

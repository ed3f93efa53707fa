#!/usr/bin/env bash
# The tool's converters (XML to wire bytes and back, hex input, bad bytes and unknown type names,
# strict documents, whole output, skeletons) and its command line. VERSION is the project's.
set -euo pipefail
tool=$1 version=$2
# shellcheck source=tests/tool_test_lib.sh
source "$(dirname "$0")/tool_test_lib.sh"

xml='<sess_mgr_register><rcl_conn_hdl><conn_hdl>7</conn_hdl></rcl_conn_hdl><cl_name><cl_name_len>5</cl_name_len><client_name>a&lt;&amp;"b</client_name></cl_name><session_type>2</session_type></sess_mgr_register>'
printf '%s' "$xml" > "$work/in.xml"
"$tool" encode sess_mgr_register "$work/in.xml" > "$work/bytes" || fail "encode"
"$tool" encode sess_mgr_register "$work/in.xml" --hex > "$work/bytes.hex" || fail "encode --hex"
"$tool" decode sess_mgr_register "$work/bytes" > "$work/print" || fail "decode"
grep -q '^    client_name: a<&"b$' "$work/print" || fail "print form: $(cat "$work/print")"
"$tool" decode sess_mgr_register --hex "$work/bytes.hex" --xml > "$work/out.xml" || fail "decode --hex --xml"
"$tool" encode sess_mgr_register "$work/out.xml" | cmp -s - "$work/bytes" || fail "XML round trip changed the bytes"
# A byte that XML cannot carry is written as a private-use character, and counts as one byte.
printf '<sess_mgr_register><cl_name><cl_name_len>3</cl_name_len><client_name>a&#xE001;b</client_name></cl_name></sess_mgr_register>' |
    "$tool" encode sess_mgr_register --hex | grep -q '61 01 62' || fail "a private-use character in a string"

# Bytes that do not decode: a clear message and a non-zero status.
head -c 9 "$work/bytes" > "$work/short"
if "$tool" decode sess_mgr_register "$work/short" 2> "$work/err"; then fail "short bytes decoded"; fi
grep -q "do not decode as sess_mgr_register: error 90 (the bytes end too early)" "$work/err" || fail "short-bytes message: $(cat "$work/err")"

# Strict documents: each silent acceptance of the library's reader is an error naming its path;
# --lenient reads the same document as the library does.
ev='<ovrin_smd_in_event><event_type><SESS_MGR_RCL_IN_REGISTER/></event_type><event_type-reg_client>'
ve='</event_type-reg_client></ovrin_smd_in_event>'
while IFS='|' read -r doc pattern; do
    t=${doc#<} t=${t%%>*}
    printf '%s' "$doc" > "$work/doc.xml"
    expect 1 "$pattern" encode "$t" "$work/doc.xml"
    "$tool" encode "$t" --lenient "$work/doc.xml" > /dev/null || fail "--lenient refused: $doc"
done <<CASES
$ev<sesion_type>2</sesion_type>$ve|/ovrin_smd_in_event/event_type-reg_client/sesion_type: sess_mgr_register has no member sesion_type; did you mean session_type?
$ev<session_type>1</session_type><session_type>2</session_type>$ve|event_type-reg_client/session_type: given 2 times
$ev<cl_name><cl_name_len>6</cl_name_len><client_name>alice</client_name></cl_name>$ve|/ovrin_smd_in_event/event_type-reg_client/cl_name/cl_name_len: says 6, but client_name holds 5 bytes
<ovrin_smd_in_event><event_type><SESS_MGR_RCL_IN_REGISTER/></event_type><event_type-start_client/></ovrin_smd_in_event>|event_type-start_client: event_type is SESS_MGR_RCL_IN_REGISTER, which selects event_type-reg_client
<ovrin_smd_in_event><event_type><SESS_MGR_RCL_IN_REGISTR/></event_type></ovrin_smd_in_event>|/ovrin_smd_in_event/event_type: SESS_MGR_RCL_IN_REGISTR is not a literal of ovrin_sm_in_event_type; did you mean SESS_MGR_RCL_IN_REGISTER?
<sess_mgr_session_start><ext_params><encap_type><NOPE/></encap_type></ext_params></sess_mgr_session_start>|ext_params/encap_type: NOPE is not a literal of sm_access_type
<sess_mgr_sess_attr_query_resp><no_of_entries>1</no_of_entries><resp_array/><resp_array/></sess_mgr_sess_attr_query_resp>|/sess_mgr_sess_attr_query_resp/no_of_entries: says 1, but 2 resp_array elements are given
<sess_mgr_new_client_notif><attr_list><attr><type>1</type><type>2</type><value>ab</value></attr></attr_list></sess_mgr_new_client_notif>|/sess_mgr_new_client_notif/attr_list/attr[1]: type or value given more than once; only the first is read
CASES
# A member is selected by its literal's user value, which for a literal of a later variant is not
# its wire value (SESS_MGR_RCL_IN_REMOTE_UPDATE is 25, travelling as 24).
printf '%s' '<ovrin_smd_in_event><event_type><SESS_MGR_RCL_IN_REMOTE_UPDATE/></event_type><event_type-remote_update><conn_hdl><conn_hdl>7</conn_hdl></conn_hdl></event_type-remote_update></ovrin_smd_in_event>' > "$work/doc.xml"
"$tool" encode ovrin_smd_in_event "$work/doc.xml" > /dev/null 2> "$work/err" || fail "the selected member refused: $(cat "$work/err")"
# Not well-formed, the wrong root, bytes that are not hex or hex without --hex: each says where.
printf '<a>\n<b></a>' | expect 1 "<stdin>:2:8: not a well-formed XML document: Opening and ending tag mismatch: b line 2 and a" encode sess_mgr_register -
# The check's problems carry the file and the line; a number says why it is refused.
printf '<sess_mgr_register>\n<session_type>-1</session_type>\n<cb_bitmap>99999999999</cb_bitmap>\n<rcl_conn_hdl><conn_hdl>abc</conn_hdl></rcl_conn_hdl>\n</sess_mgr_register>' > "$work/numbers.xml"
expect 1 "$work/numbers.xml:2: /sess_mgr_register/session_type: -1: below 0" encode sess_mgr_register "$work/numbers.xml"
grep -qxF "$work/numbers.xml:3: /sess_mgr_register/cb_bitmap: 99999999999: above 4294967295 for u_int32" "$work/err" &&
    grep -qxF "$work/numbers.xml:4: /sess_mgr_register/rcl_conn_hdl/conn_hdl: abc: not a number" "$work/err" ||
    fail "numbers: $(cat "$work/err")"
# A count that disagrees with its array is placed at the first element given.
printf '<sess_mgr_sess_attr_query_resp>\n<no_of_entries>1</no_of_entries>\n<query_hdl>2</query_hdl>\n<resp_array/>\n<resp_array/>\n</sess_mgr_sess_attr_query_resp>' > "$work/count.xml"
expect 1 "$work/count.xml:4: /sess_mgr_sess_attr_query_resp/no_of_entries: says 1, but 2 resp_array elements are given" encode sess_mgr_sess_attr_query_resp "$work/count.xml"
# Each width's largest value is taken and one more refused; a repeat is placed where it repeats.
printf '<sm_dot11_params><apfMsLradSlotId>255</apfMsLradSlotId><vlan_id>65535</vlan_id></sm_dot11_params>' |
    "$tool" encode sm_dot11_params > /dev/null || fail "the largest u_int8 and u_int16 values were refused"
printf '<sm_dot11_params>\n<apfMsLradSlotId>256</apfMsLradSlotId>\n<vlan_id>65536</vlan_id>\n<wlan_id>-</wlan_id>\n<wlan_id>1</wlan_id>\n</sm_dot11_params>' > "$work/widths.xml"
expect 1 "$work/widths.xml:2: /sm_dot11_params/apfMsLradSlotId: 256: above 255 for u_int8" encode sm_dot11_params "$work/widths.xml"
for line in "3: /sm_dot11_params/vlan_id: 65536: above 65535 for u_int16" "4: /sm_dot11_params/wlan_id: -: not a number" \
            "5: /sm_dot11_params/wlan_id: given 2 times; it is not an array, and only the first is read"; do
    grep -qxF "$work/widths.xml:$line" "$work/err" || fail "widths: no '$line' in: $(cat "$work/err")"
done
printf '<sess_mgr_registr/>' | expect 1 "the root element is <sess_mgr_registr>; a sess_mgr_register document has <sess_mgr_register>" encode sess_mgr_register
printf '00 2f\n00 zz' | expect 1 "'z' at line 2, column 4 is not a hexadecimal digit" decode sess_mgr_register --hex
# A length that is not a number is named by the check, and by the library's reader without it.
printf '<sess_mgr_register><cl_name><cl_name_len>0x4</cl_name_len><client_name>abcd</client_name></cl_name></sess_mgr_register>' > "$work/hexlen.xml"
expect 1 "/sess_mgr_register/cl_name/cl_name_len: 0x4: not a number" encode sess_mgr_register "$work/hexlen.xml"
expect 1 "Invalid value at /sess_mgr_register/cl_name/cl_name_len" encode sess_mgr_register --lenient "$work/hexlen.xml"
printf '00 2f 0' | expect 1 "an odd number of hexadecimal digits" decode sess_mgr_register --hex
expect 1 "looks like hexadecimal text: add --hex" decode sess_mgr_register "$work/bytes.hex"
# A union left out whose fresh discriminator selects a member cannot encode: the check says which.
echo '<sess_mgr_update_oper_data/>' |
    expect 1 "/sess_mgr_update_oper_data/oper_data: left out, but a fresh sess_mgr_oper_data's oper_type (SM_OPER_CONTROL_DIR) selects oper_type-oper_ctrl_dir" encode sess_mgr_update_oper_data

# Indented XML: two spaces a level, a value on its element's line, closing tags back out.
"$tool" decode sess_mgr_register "$work/bytes" --xml --pretty > "$work/pretty.xml" || fail "decode --xml --pretty"
cat > "$work/want.xml" <<'XML'
<sess_mgr_register>
  <rcl_conn_hdl>
    <conn_hdl>7</conn_hdl>
  </rcl_conn_hdl>
  <cl_name>
    <cl_name_len>5</cl_name_len>
    <client_name>a&lt;&amp;&quot;b</client_name>
  </cl_name>
  <meth_name>
    <meth_name_len>0</meth_name_len>
    <method_name></method_name>
  </meth_name>
  <session_type>2</session_type>
  <cb_bitmap>0</cb_bitmap>
</sess_mgr_register>
XML
diff "$work/want.xml" "$work/pretty.xml" >&2 || fail "indented XML"

# Every type: its skeleton encodes as it stands, and indented XML reads back to the same bytes.
for t in $("$tool" types | awk 'NR > 1 { print $2 }'); do
    "$tool" types "$t" --xml-skeleton > "$work/skel.xml" || fail "types $t --xml-skeleton"
    "$tool" encode "$t" "$work/skel.xml" > "$work/skel.bin" 2> "$work/err" || fail "$t skeleton: $(cat "$work/err")"
    "$tool" decode "$t" "$work/skel.bin" --xml --pretty > "$work/pretty.xml" || fail "decode $t --xml --pretty"
    "$tool" encode "$t" "$work/pretty.xml" | cmp -s - "$work/skel.bin" || fail "$t: indented XML changed the bytes"
done
# A variable array shows one element, its count saying so.
"$tool" types sess_mgr_sess_attr_query_resp --xml-skeleton > "$work/skel.xml"
grep -qx '  <no_of_entries>1</no_of_entries>' "$work/skel.xml" && grep -qx '      <session_label>0</session_label>' "$work/skel.xml" ||
    fail "no array element in the skeleton: $(cat "$work/skel.xml")"
"$tool" types ovrin_smd_in_event > "$work/members"
grep -Eq '^  event_type-remote_update +sess_mgr_remote_update +union member \(record\) +8 +200  1 +when event_type is SESS_MGR_RCL_IN_REMOTE_UPDATE$' \
    "$work/members" || fail "arm line: $(grep remote_update "$work/members")"
"$tool" types ovrin_sm_in_event_type | grep -Eq '^  SESS_MGR_RCL_IN_REMOTE_UPDATE +25 +24  1$' || fail "literal line"
# A companion is named from both ends: a length for a string, a count for an array.
"$tool" types sess_mgr_client_name > "$work/members"
grep -Eq '^  cl_name_len +u_int32 .* length of client_name$' "$work/members" &&
    grep -Eq '^  client_name +char .* length in cl_name_len$' "$work/members" || fail "string lines: $(cat "$work/members")"
"$tool" types sess_mgr_sess_attr_query_resp > "$work/members"
grep -Eq '^  no_of_entries +u_int32 .* count of resp_array$' "$work/members" &&
    grep -Eq '^  resp_array +sess_mgr_query_resp .* count in no_of_entries$' "$work/members" || fail "array lines: $(cat "$work/members")"

# Whole output: a message of several megabytes (3000 attributes of 1000 bytes) in the print form
# and as XML, which encodes back to the same bytes.
awk 'BEGIN { v = sprintf("%2000s", ""); gsub(/ /, "ab", v); v = substr(v, 1, 2000)
             printf "<sess_mgr_new_client_notif><attr_list>"
             for (i = 0; i < 3000; ++i) printf "<attr><type>%d</type><value>%s</value></attr>", i % 250 + 1, v
             print "</attr_list></sess_mgr_new_client_notif>" }' > "$work/big.xml"
"$tool" encode sess_mgr_new_client_notif "$work/big.xml" > "$work/big.bin" || fail "encode the large message"
[ "$(stat -c %s "$work/big.bin")" -gt 3000000 ] || fail "the large message is $(stat -c %s "$work/big.bin") bytes"
"$tool" decode sess_mgr_new_client_notif "$work/big.bin" --xml > "$work/big-out.xml" || fail "decode --xml of the large message"
"$tool" encode sess_mgr_new_client_notif "$work/big-out.xml" | cmp -s - "$work/big.bin" || fail "the large message changed"
"$tool" decode sess_mgr_new_client_notif "$work/big.bin" > "$work/big.print" || fail "decode of the large message"
[ "$(grep -c '^    attr\[' "$work/big.print")" -eq 3000 ] && [ "$(tail -n 1 "$work/big.print")" = "}" ] ||
    fail "the print form is cut: $(tail -c 100 "$work/big.print")"

# Whole output of many small pieces: 3000 records in an array, each with an attribute list, read
# back to the same bytes from XML, and printed to the last closing brace.
awk 'BEGIN { printf "<sess_mgr_sess_attr_query_resp><no_of_entries>3000</no_of_entries>"
             for (i = 0; i < 3000; ++i)
                 printf "<resp_array><label><session_label>%d</session_label></label><attr_list><attr><type>%d</type><value>0a3c</value></attr></attr_list></resp_array>", i, i % 7
             print "</sess_mgr_sess_attr_query_resp>" }' > "$work/array.xml"
t=sess_mgr_sess_attr_query_resp
"$tool" encode $t "$work/array.xml" > "$work/array.bin" || fail "encode 3000 array elements"
"$tool" decode $t "$work/array.bin" --xml > "$work/array-out.xml" || fail "decode --xml of 3000 array elements"
[ "$(grep -o '<resp_array>' "$work/array-out.xml" | wc -l)" -eq 3000 ] || fail "array elements missing from the XML"
"$tool" encode $t "$work/array-out.xml" | cmp -s - "$work/array.bin" || fail "3000 array elements changed"
"$tool" decode $t "$work/array.bin" > "$work/array.print" || fail "decode of 3000 array elements"
[ "$(grep -c '^  resp_array\[' "$work/array.print")" -eq 3000 ] && [ "$(tail -n 1 "$work/array.print")" = "}" ] ||
    fail "the print form is cut: $(tail -c 100 "$work/array.print")"

# The command line: versions that agree with the project's; each command's help on standard
# output with status 0; a bad option, value or operand named, with status 2.
"$tool" --version > "$work/version"
[ "$(head -n 1 "$work/version")" = "ovrin-sm $version" ] || fail "--version: $(cat "$work/version")"
grep -qx "libmgx $version" "$work/version" || fail "the runtime's version: $(cat "$work/version")"
grep -qx "libovrin_sm $version" "$work/version" || fail "library: $(cat "$work/version")"
for c in types manifest decode encode trace demo; do
    "$tool" "$c" --help > "$work/out" 2> "$work/err" || fail "$c --help: status $?"
    grep -q "^usage: ovrin-sm $c" "$work/out" && [ ! -s "$work/err" ] || fail "$c --help: $(cat "$work/out" "$work/err")"
done
"$tool" help encode | grep -q -- '--lenient' || fail "help encode"
while IFS='|' read -r pattern args; do
    read -ra words <<< "$args"
    expect 2 "$pattern" "${words[@]}"
done <<'CASES'
demo: --count: 'abc' is not a number from 1 to 1000000000|demo --count abc
--corrupt: '99' is not a number from 1 to 13|demo --corrupt=99
--xml and --hex cannot go together|demo --xml --hex
decode: unknown option '--bogus'|decode sess_mgr_register --bogus
--xml takes no value|decode sess_mgr_register --xml=yes
--pretty indents XML or JSON: it needs --xml or --json|decode sess_mgr_register --pretty
trace: --library needs a value|trace x --library
unexpected operand 'c'|encode sess_mgr_register a c
unknown command 'decod'; did you mean decode?|decod
unknown option '--verson'; did you mean --version?|--verson
demo: unknown option '--cunt'; did you mean --count?|demo --cunt 3
demo: option '--c' is ambiguous: it could be --count, --corrupt or --clients|demo --c 3
no type 'sess_mgr_registr'; did you mean sess_mgr_register?|decode sess_mgr_registr -
no type 'sess_mgr_registr'; did you mean sess_mgr_register?|types sess_mgr_registr
--faults: unknown fault 'kil' (faults: kill, damage, truncate, oversize, stall, silent, stranger, or all); did you mean kill?|demo --clients 2 --faults stall,kil
--think, --idle, --max-frame and --out-limit go with --clients|demo --json
--think, --idle, --max-frame and --out-limit go with --clients|demo --think 100
--think, --idle, --max-frame and --out-limit go with --clients|demo --idle 100
--think, --idle, --max-frame and --out-limit go with --clients|demo --max-frame 100
--think, --idle, --max-frame and --out-limit go with --clients|demo --out-limit 5000
--think, --idle, --max-frame and --out-limit go with --clients|demo --faults kill
--think, --idle, --max-frame and --out-limit go with --clients|demo --group 0
--faults: unknown fault 'member'|demo --clients 2 --faults member
--clients shows no messages and takes no --xml|demo --clients 2 --xml
--group: no group 'no-such-group'|demo --clients 2 --group no-such-group
--clients times --count is past 2147483647 sessions|demo --clients 100000 --count 100000
--think 200000: a client pauses up to ten times that, which must stay below --idle (2000 ms)|demo --clients 2 --think 200000
CASES
"$tool" decode --hex -- sess_mgr_register - < "$work/bytes.hex" > /dev/null || fail "'--' and '-'"
# Nothing asked is a bad command line too: the usage on standard error, status 2.
status=0
"$tool" > "$work/out" 2> "$work/err" || status=$?
[ "$status" -eq 2 ] && [ ! -s "$work/out" ] && grep -q '^usage: ovrin-sm' "$work/err" || fail "bare ovrin-sm: status $status"

# Bytes after the message are an error unless asked for; the message says how many were used.
cat "$work/bytes" "$work/bytes" > "$work/twice"
n=$(stat -c %s "$work/bytes")
expect 1 "ovrin-sm: $((2 * n)) bytes hold a sess_mgr_register in the first $n and $n trailing bytes after it (--allow-trailing reads it anyway)" \
    decode sess_mgr_register "$work/twice"
[ ! -s "$work/out" ] || fail "a refused decode wrote output"
expect 0 "ovrin-sm: $n trailing bytes left over" decode sess_mgr_register "$work/twice" --allow-trailing
cmp -s "$work/out" "$work/print" || fail "--allow-trailing printed another message"
{ cat "$work/bytes"; printf 'x'; } > "$work/one-more"
expect 1 "in the first $n and 1 trailing bytes after it" decode sess_mgr_register "$work/one-more"
"$tool" decode sess_mgr_register "$work/bytes" > /dev/null 2> "$work/err" && [ ! -s "$work/err" ] ||
    fail "a clean decode said something: $(cat "$work/err")"

# Every command checks its writes: into a full device, status 1 and the system's words.
if [ -w /dev/full ]; then
    for args in "types" "types sess_mgr_register" "manifest" "--help" "decode sess_mgr_register $work/bytes" "demo --quiet"; do
        read -ra words <<< "$args"
        status=0
        "$tool" "${words[@]}" > /dev/full 2> "$work/err" || status=$?
        [ "$status" -eq 1 ] && grep -q "cannot write the output: No space left on device" "$work/err" ||
            fail "ovrin-sm $args > /dev/full: status $status: $(cat "$work/err")"
    done
fi
# The demo's messages carry what its builders put in, bytes of every value included.
"$tool" demo --xml > "$work/demo.xml" 2> /dev/null || fail "demo --xml"
grep -qF '<attr><type>61</type><value>00000013</value></attr>' "$work/demo.xml" ||
    fail "the session start's port-type attribute is not 00000013"

# Progress is for a terminal (its first line is due after the first session): with standard
# error in a file, the demo writes nothing there.
"$tool" demo --quiet --count 3 > "$work/out" 2> "$work/err" || fail "demo --count 3"
grep -q '^client: ' "$work/out" && [ ! -s "$work/err" ] ||
    fail "demo --count 3 wrote to a file's standard error: $(cat "$work/err")"
echo "tool converters: ok"

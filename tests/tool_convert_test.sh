#!/usr/bin/env bash
# The tool's converters: XML to wire bytes and back, hex input, bad bytes and unknown type names.
set -euo pipefail
tool=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

xml='<sess_mgr_register><rcl_conn_hdl><conn_hdl>7</conn_hdl></rcl_conn_hdl><cl_name><cl_name_len>5</cl_name_len><client_name>a&lt;&amp;"b</client_name></cl_name><session_type>2</session_type></sess_mgr_register>'
printf '%s' "$xml" > "$work/in.xml"
"$tool" encode sess_mgr_register "$work/in.xml" > "$work/bytes" || fail "encode"
"$tool" encode sess_mgr_register "$work/in.xml" --hex > "$work/bytes.hex" || fail "encode --hex"
"$tool" decode sess_mgr_register "$work/bytes" > "$work/print" || fail "decode"
grep -q '^    client_name: a<&"b$' "$work/print" || fail "print form: $(cat "$work/print")"
"$tool" decode sess_mgr_register --hex "$work/bytes.hex" --xml > "$work/out.xml" || fail "decode --hex --xml"
"$tool" encode sess_mgr_register "$work/out.xml" | cmp -s - "$work/bytes" || fail "XML round trip changed the bytes"

# Bytes that do not decode: a clear message and a non-zero status.
head -c 9 "$work/bytes" > "$work/short"
if "$tool" decode sess_mgr_register "$work/short" 2> "$work/err"; then fail "short bytes decoded"; fi
grep -q "do not decode as sess_mgr_register: error 90" "$work/err" || fail "short-bytes message: $(cat "$work/err")"

# An unknown name lists the close matches.
if "$tool" decode sess_mgr_registr "$work/bytes" 2> "$work/err"; then fail "unknown type accepted"; fi
grep -q "close matches: sess_mgr_register" "$work/err" || fail "close matches: $(cat "$work/err")"
echo "tool converters: ok"

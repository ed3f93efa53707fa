#!/usr/bin/env bash
# What the tool is given instead of a message, a trace file or a library file: a directory, a
# device without end, an ELF file whose section count its size cannot back, a trace naming such a
# library. Each is answered with status 1 and a message naming it, quickly and in bounded memory.
set -euo pipefail
tool=$1 memory_kib=$2
# shellcheck source=tests/tool_test_lib.sh
source "$(dirname "$0")/tool_test_lib.sh"
# Sanitizers reserve a large address space up front, so their builds are bounded by time alone.
[ "$memory_kib" -eq 0 ] || ulimit -v "$memory_kib"

# le VALUE BYTES: VALUE as BYTES little-endian bytes.
le() {
    local s='' i
    for ((i = 0; i < $2; ++i)); do s+=$(printf '\\x%02x' $((($1 >> (8 * i)) & 255))); done
    printf "$s"
}
str16() { le ${#1} 2; printf '%s' "$1"; }

# elf COUNT FILE: a 128-byte ELF file, the file header and section 0 alone, with e_shnum 0 so that
# section 0's size is the section count.
elf() {
    { printf '\x7fELF\x02\x01\x01'; le 0 9; le 3 2; le 62 2; le 1 4; le 0 16; le 64 8; le 0 4
      le 64 2; le 0 4; le 64 2; le 0 4                     # e_ehsize .. e_shstrndx
      le 0 24; le 0 8; le "$1" 8; le 0 24; } > "$2"        # section 0: size = COUNT
}

# trace LIBRARY FILE: a trace file whose one table names LIBRARY, and one emission of it.
trace() {
    { printf 'MGXTRACE'; le 1 4; le 0 4
      le $((1 + 10 + 14 + 23 + 2 + ${#1})) 4; le 1 1; le 0 2; le 1 4; le 0 4
      str16 mgx_ovrin_sm; str16 .ovrin_sm_trace_texts; str16 "$1"
      le 26 4; le 2 1; le 1700000000000000000 8; le 42 4; le 0 2; le 0 2; le 0 4; le $((1 << 24)) 4; le 0 1
    } > "$2"
}

mkdir "$work/dir"
elf $((1 << 40)) "$work/e40.so"
elf $((1 << 59)) "$work/e59.so"
elf 50000000 "$work/e5e7.so"
[ "$(stat -c %s "$work/e40.so")" -eq 128 ] || fail "the crafted ELF file is not 128 bytes"
trace "$work/e40.so" "$work/names-e40.trc"
trace "$work/e5e7.so" "$work/names-e5e7.trc"
trace /dev/zero "$work/names-zero.trc"
trace "$work/dir" "$work/names-dir.trc"

# expect PATTERN ARGS...: the tool given ARGS exits 1 within the time limit, saying PATTERN.
expect() {
    local pattern=$1 status=0
    shift
    timeout 20 "$tool" "$@" > /dev/null 2> "$work/err" || status=$?
    [ "$status" -eq 1 ] || fail "ovrin-sm $*: status $status, not 1: $(cat "$work/err")"
    grep -qF -- "$pattern" "$work/err" || fail "ovrin-sm $*: said: $(cat "$work/err")"
}

t=sess_mgr_register
for what in "$work/dir:Is a directory" "/dev/zero:a character device"; do
    path=${what%%:*} why=${what#*:}
    expect "cannot read $path: $why" decode $t "$path"
    expect "cannot read $path: $why" encode $t "$path" --hex
    expect "cannot read $path: $why" manifest "$path"
    expect "cannot read $path: $why" trace "$path"
    expect "cannot read $path: $why" trace "$work/names-e40.trc" --library "$path"
done
expect "standard input is larger than 64 MiB, the input limit" decode $t < /dev/zero
expect "standard input is larger than 64 MiB, the input limit" encode $t - < /dev/zero

expect "$work/e40.so: 1099511627776 section headers at byte 64 lie outside the file (128 bytes)" manifest "$work/e40.so"
expect "$work/e59.so: 576460752303423488 section headers at byte 64" manifest "$work/e59.so"
expect "$work/e5e7.so: 50000000 section headers at byte 64" manifest "$work/e5e7.so"
expect "$work/e5e7.so: 50000000 section headers" trace "$work/names-e40.trc" --library "$work/e5e7.so"

# A trace naming a library that cannot be read: its lines show message numbers, the status is 1.
expect "texts of mgx_ovrin_sm: $work/e40.so: 1099511627776 section headers" trace "$work/names-e40.trc"
expect "texts of mgx_ovrin_sm: $work/e5e7.so: 50000000 section headers" trace "$work/names-e5e7.trc"
expect "texts of mgx_ovrin_sm: cannot read /dev/zero: a character device" trace "$work/names-zero.trc"
expect "texts of mgx_ovrin_sm: cannot read $work/dir: Is a directory" trace "$work/names-dir.trc"
timeout 20 "$tool" trace "$work/names-dir.trc" > "$work/lines" 2> /dev/null || true
grep -q 'ALERT mgx_ovrin_sm #0: message 0$' "$work/lines" || fail "the emission is not shown by number: $(cat "$work/lines")"
# Documents that cost the strict check of encode what they hold, not more. An entity of 1 MiB
# referred to 2000 times would be 2 GiB expanded: the check never expands it, and the library
# refuses the value that refers to it.
{ printf '<!DOCTYPE %s [<!ENTITY e "' $t; head -c 1048576 /dev/zero | tr '\0' x; printf '">]>'
  printf '<%s><cl_name><cl_name_len>5</cl_name_len><client_name>' $t; printf '&e;%.0s' $(seq 2000)
  printf '</client_name></cl_name></%s>' $t; } > "$work/entity.xml"
expect "Invalid value at /$t/cl_name/client_name" encode $t "$work/entity.xml"
# 9000 distinct unknown names (the reader takes 10000): the first 20 are shown (the first with its
# closest member), the rest counted.
awk -v t=$t 'BEGIN { printf "<%s>", t; for (i = 0; i < 9000; ++i) printf "<sesion_type%d/>", i; printf "</%s>", t }' \
    > "$work/unknown.xml"
expect "and 8980 more" encode $t "$work/unknown.xml"
[ "$(grep -c "has no member" "$work/err")" -eq 20 ] || fail "unknown names: $(head -c 2000 "$work/err")"
grep -qF "/$t/sesion_type0: $t has no member sesion_type0; did you mean session_type?" "$work/err" ||
    fail "unknown names: $(head -n 3 "$work/err")"
# An unknown name given many times is one problem, and counted once.
awk -v t=$t 'BEGIN { printf "<%s>", t; for (i = 0; i < 30; ++i) printf "<sesion_type%d/><sesion_type%d/>", i % 21, i % 21; printf "</%s>", t }' \
    > "$work/again.xml"
expect "and 1 more" encode $t "$work/again.xml"
[ "$(grep -c "has no member" "$work/err")" -eq 20 ] || fail "unknown names given again: $(head -c 2000 "$work/err")"
echo "tool inputs: ok"

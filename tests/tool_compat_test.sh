#!/usr/bin/env bash
# ovrin-sm compat over catalogue pairs made here: every kind of change with its verdict and the
# exact line a user reads, status 0 when nothing breaks and 1 when something does; a catalogue
# that does not read is named with its line.
set -euo pipefail
tool=$1 source=$2 library=$3 runtime=$4
# shellcheck source=tests/tool_test_lib.sh
source "$(dirname "$0")/tool_test_lib.sh"

cat > "$work/old.types" <<'TYPES'
enum colour
  RED 0
  GREEN 1
  BLUE 2

record point variants 2
  x u_int32
  y u_int16
  tag u_int8[3]
  c colour

union pick discriminator which
  which colour
  member p point select GREEN

record gone
  v u_int32
TYPES
# edit FILE 'PYTHON REPLACEMENTS': a copy of the old catalogue with the replacements made.
edit() {
    python3 -c 'import sys; s = open(sys.argv[1]).read()
for a, b in zip(sys.argv[3::2], sys.argv[4::2]): s = s.replace(a.replace("|", "\n"), b.replace("|", "\n"))
open(sys.argv[2], "w").write(s)' "$work/old.types" "$work/$1" "${@:2}"
}
# expect STATUS FILE: compat old FILE exits STATUS and prints exactly what follows on stdin.
expect() {
    local status=0
    "$tool" compat "$work/old.types" "$work/$2" > "$work/out" 2> "$work/err" || status=$?
    [ "$status" -eq "$1" ] || fail "compat $2: status $status, not $1: $(cat "$work/out" "$work/err")"
    diff - "$work/out" >&2 || fail "compat $2 printed otherwise"
}

cp "$work/old.types" "$work/same.types"
expect 0 same.types <<< "0 changes, 0 breaking"

edit added.types "point variants 2" "point variants 3" "  c colour|" "  c colour|  z u_int32 from 2|"
expect 0 added.types <<'OUT'
compatible: point.z: added at the end in variant 2
1 change, 0 breaking
OUT

edit many.types "  y u_int16|" "  y u_int32|" "u_int8[3]" "u_int8[4]" "  BLUE 2|" "  BLUE 3 wire 2|  WHITE 4 wire 3|" \
    "select GREEN" "select BLUE" "record gone|  v u_int32|" "record fresh|  w u_int32|" "  c colour|" "  c colour|  z u_int32|"
expect 1 many.types <<'OUT'
breaking: colour.BLUE: renumbered from 2 (wire 2) to 3 (wire 2)
compatible: colour.WHITE: added
breaking: point.y: was u_int16, now u_int32
breaking: point.tag: was u_int8[3], now u_int8[4]
breaking: point.z: added at the end in variant 0, which point already had: older peers read the wrong bytes (add it in a new variant)
breaking: pick.p: was member point select GREEN, now member point select BLUE
breaking: gone: removed
compatible: fresh: added (a record)
8 changes, 6 breaking
OUT

# docs/tool.md shows this run.
awk '/^\$ ovrin-sm compat old.types new.types$/ {found = 1; next} found && /^```/ {exit} found {print}' \
    "$source/docs/tool.md" | diff - "$work/out" >&2 || fail "docs/tool.md's compat example differs from the run"

edit moved.types "  x u_int32|  y u_int16|" "  y u_int16|  x u_int32|" "  RED 0|  GREEN 1|  BLUE 2|" "  RED 0|  GREEN 1|" \
    "point variants 2" "point variants 1"
expect 1 moved.types <<'OUT'
breaking: colour.BLUE: removed
breaking: point: has 1 variants, had 2
breaking: point.x: moved from position 1 to 2
3 changes, 3 breaking
OUT

edit shifted.types "  x u_int32|" "  w u_int8|  x u_int32|" "record gone|" "union gone discriminator which|  which colour|  member v2 point select RED|record gone2|"
expect 1 shifted.types <<'OUT'
breaking: point.w: inserted before x
breaking: gone: was a record, now a union
compatible: gone2: added (a record)
3 changes, 2 breaking
OUT

edit renamed.types "  x u_int32|" "  xx u_int32|" "  c colour|" ""
expect 1 renamed.types <<'OUT'
breaking: point.x: renamed to xx (the same on the wire; XML documents name it otherwise)
breaking: point.c: removed
2 changes, 2 breaking
OUT

# A library file holds the catalogue it was built from; a library without one is named.
"$tool" compat "$library" "$source/catalogue/ovrin_sm.types" > "$work/out" || fail "the library against its catalogue"
[ "$(cat "$work/out")" = "0 changes, 0 breaking" ] || fail "the library against its catalogue: $(cat "$work/out")"
status=0
"$tool" compat "$runtime" "$work/old.types" > /dev/null 2> "$work/err" || status=$?
[ "$status" -eq 1 ] && grep -qx "ovrin-sm: $runtime holds no catalogue section" "$work/err" || fail "libmgx: status $status"

# A catalogue that does not read: its file and line; two operands are needed.
edit broken.types "  y u_int16|" "  y no_such_type|"
status=0
"$tool" compat "$work/old.types" "$work/broken.types" > /dev/null 2> "$work/err" || status=$?
[ "$status" -eq 1 ] && grep -qx "$work/broken.types:8: error: unknown type 'no_such_type'" "$work/err" ||
    fail "a broken catalogue: status $status: $(cat "$work/err")"
status=0
"$tool" compat "$work/old.types" > /dev/null 2> "$work/err" || status=$?
[ "$status" -eq 2 ] && grep -q "two catalogue files are needed: OLD NEW" "$work/err" || fail "one operand: status $status"
echo "compat: ok"

#!/usr/bin/env bash
# The trace file end to end: both demo processes append their emissions to one binary file, and
# the tool decodes it with the texts read from the library file (or a copy of it, or none).
set -euo pipefail
tool=$1 library=$2 runtime=$3 source=${4:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
line='^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{6}Z \[[0-9]+\] (EMERG|ALERT|CRIT|ERR|WARNING|NOTICE|INFO|DEBUG) mgx_ovrin_sm #[0-9]+: '

# A damaged frame makes the receiver's decoder trace; the demo itself then fails, as it should.
if "$tool" demo --quiet --corrupt 3 --trace "$work/demo.trc" > /dev/null; then fail "the damaged exchange passed"; fi
"$tool" trace "$work/demo.trc" > "$work/lines" 2> "$work/err" || fail "trace: $(cat "$work/err")"
[ -s "$work/lines" ] || fail "no emissions decoded"
if grep -Evq "$line" "$work/lines"; then fail "line shape: $(grep -Ev "$line" "$work/lines" | head -n 3)"; fi
grep -Eq 'DEBUG mgx_ovrin_sm #[0-9]+: offset_jump read_len [0-9]+ offset_jump_base [0-9]+ _mgx_variant_jump [0-9]+$' \
    "$work/lines" || fail "the decoder's jump trace is missing: $(head -n 3 "$work/lines")"
[ ! -s "$work/err" ] || fail "unexpected warnings: $(cat "$work/err")"

# docs/tool.md's example is what the demo writes (times and process ids aside).
if [ -n "$source" ]; then
    "$tool" demo --quiet --trace "$work/plain.trc" > /dev/null || fail "the plain demo failed"
    strip() { sed -E 's/^[^ ]+ \[[0-9]+\] //'; }
    "$tool" trace "$work/plain.trc" | strip > "$work/plain.lines"
    awk '/^\$ ovrin-sm trace demo.trc$/ {found = 1; next} found && /^```/ {exit} found {print}' "$source/docs/tool.md" |
        strip > "$work/shown.lines"
    [ -s "$work/shown.lines" ] && cmp -s "$work/plain.lines" "$work/shown.lines" ||
        fail "docs/tool.md's trace example differs from the demo's: $(diff "$work/shown.lines" "$work/plain.lines")"
fi

# Off the device: a copy of the library named explicitly gives the same lines.
cp "$library" "$work/copy.so"
"$tool" trace "$work/demo.trc" --library "$work/copy.so" | cmp -s - "$work/lines" || fail "--library changed the lines"

# Standard input for the trace, or for the library ("-" as for any file the tool reads).
"$tool" trace - < "$work/demo.trc" | cmp -s - "$work/lines" || fail "trace - changed the lines"
"$tool" trace "$work/demo.trc" --library - < "$library" | cmp -s - "$work/lines" || fail "--library - changed the lines"
"$tool" manifest - < "$library" > "$work/manifest" || fail "manifest -"
grep -q "^standard input: .ovrin_sm_manifest" "$work/manifest" || fail "manifest -: $(head -n 2 "$work/manifest")"

# A library without the texts: numbers and arguments, and a warning saying why.
"$tool" trace "$work/demo.trc" --library "$runtime" > "$work/numbers" 2> "$work/err" || fail "numbers-only decode"
grep -q "has no message texts section .ovrin_sm_trace_texts; showing message numbers" "$work/err" || fail "warning: $(cat "$work/err")"
grep -Eq ': message [0-9]+ -?[0-9]+ -?[0-9]+ -?[0-9]+$' "$work/numbers" || fail "numbers: $(head -n 3 "$work/numbers")"

# A file cut short: what precedes the cut is printed, the cut is reported, the status says so.
size=$(stat -c %s "$work/demo.trc")
head -c $((size - 3)) "$work/demo.trc" > "$work/cut.trc"
if "$tool" trace "$work/cut.trc" > "$work/cut" 2> "$work/err"; then fail "a cut file decoded cleanly"; fi
grep -q "is cut short or damaged" "$work/err" || fail "cut message: $(cat "$work/err")"
[ "$(wc -l < "$work/cut")" -eq $(($(wc -l < "$work/lines") - 1)) ] || fail "lines before the cut were lost"

# Not a trace file at all, and a missing one.
if "$tool" trace "$library" 2> "$work/err"; then fail "a library decoded as a trace"; fi
grep -q "not a trace file" "$work/err" || fail "not-a-trace message: $(cat "$work/err")"
if "$tool" trace "$work/none.trc" 2> "$work/err"; then fail "a missing file decoded"; fi
echo "trace file: ok"

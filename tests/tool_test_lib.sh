# What the tool's shell tests share, sourced after `tool` is set: a scratch directory removed at
# the end, fail, and expect STATUS PATTERN ARGS... (the document on standard input): the tool's
# status, and PATTERN on its standard error.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

expect() {
    local want=$1 pattern=$2 status=0
    shift 2
    "$tool" "$@" > "$work/out" 2> "$work/err" || status=$?
    [ "$status" -eq "$want" ] || fail "ovrin-sm $*: status $status, not $want: $(cat "$work/err")"
    grep -qF -- "$pattern" "$work/err" || fail "ovrin-sm $*: said: $(cat "$work/err")"
}

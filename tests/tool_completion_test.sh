#!/usr/bin/env bash
# The bash completion (share/ovrin-sm.bash) against the built tool: commands, each command's
# options as its help lists them, type names in a type's place, files elsewhere; and the manual
# page written from the tool's help (every command has its section).
set -euo pipefail
tool=$1 source=$2 man=$3
fail() { echo "FAIL: $*" >&2; exit 1; }
# shellcheck disable=SC1091
source "$source/share/ovrin-sm.bash"
# complete WORDS...: what the completion offers for the last word.
complete_words() {
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    COMPREPLY=()
    _ovrin_sm
    echo "${COMPREPLY[*]}"
}
check() { # check EXPECTED WORDS...
    local want=$1 got
    shift
    got=$(complete_words "$@")
    [ "$got" = "$want" ] || fail "completing '$*': '$got', not '$want'"
}
check "decode demo" "$tool" de
check "--count --corrupt --clients" "$tool" demo --c
check "kill,stall kill,silent kill,stranger" "$tool" demo --clients 3 --faults kill,s
check "sess_mgr_register" "$tool" decode sess_mgr_reg
check "sess_mgr_register" "$tool" types sess_mgr_reg
check "--hex --xml --json --pretty --tracked --allow-trailing --help" "$tool" decode --
check "--json-skeleton" "$tool" types sess_mgr_register --js
check "encode" "$tool" help en
check "" "$tool" demo --count ""
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
touch "$work/message.bin"
check "$work/message.bin" "$tool" decode sess_mgr_register "$work/mess"
check "$work/message.bin" "$tool" trace x --library "$work/mess"

for command in types manifest decode encode trace demo compat; do
    grep -qx ".SS $command" "$man" || fail "the manual page has no section for $command"
done
grep -q 'allow\\-trailing' "$man" && grep -q 'json\\-skeleton' "$man" || fail "the manual page lacks options"
echo "completion and manual page: ok"

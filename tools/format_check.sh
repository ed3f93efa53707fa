#!/usr/bin/env bash
# Checks that every tracked hand-written C and C++ file is laid out as .clang-format says, and names
# the files that are not, with the number of lines clang-format would change in each.
#   tools/format_check.sh          check (exit 1 when a file differs)
#   tools/format_check.sh --fix    rewrite the files that differ, in place
# Only files git tracks are read: build directories and anything untracked are left alone.
# The layout is clang-format 14's (Debian 12's clang-format package): OVRIN_CLANG_FORMAT names
# another binary. Without clang-format 14 the check cannot judge the layout and exits 77 (ctest's
# skip).
set -euo pipefail
cd "$(dirname "$0")/.."

fix=0
case "${1:-}" in
    "") ;;
    --fix) fix=1 ;;
    *) echo "usage: tools/format_check.sh [--fix]" >&2; exit 2 ;;
esac

skip() {
    echo "format check skipped: $*" >&2
    exit 77
}

tool=${OVRIN_CLANG_FORMAT:-}
if [ -z "$tool" ]; then
    for candidate in clang-format-14 clang-format; do
        if command -v "$candidate" >/dev/null; then tool=$candidate; break; fi
    done
fi
[ -n "$tool" ] && command -v "$tool" >/dev/null ||
    skip "clang-format is not installed (Debian: apt-get install clang-format; tools/dev.sh installs it)"
version=$("$tool" --version | sed -n 's/.*clang-format version \([0-9]*\)\..*/\1/p')
[ "$version" = 14 ] ||
    skip "$tool is version ${version:-unknown}; the layout is clang-format 14's, and another version lays" \
         "some lines out differently (set OVRIN_CLANG_FORMAT to a clang-format 14)"
git rev-parse --is-inside-work-tree >/dev/null 2>&1 || skip "not a git checkout, so there is no list of tracked files"

files=()
while IFS= read -r -d '' f; do
    case "$f" in build*/*) continue ;; esac
    [ -f "$f" ] && files+=("$f") # a tracked file deleted in the working tree is not there to check
done < <(git ls-files -z -- '*.c' '*.cc' '*.cpp' '*.h' '*.hpp')
((${#files[@]})) || { echo "format check: no C or C++ files tracked" >&2; exit 1; }

# The files that differ, from the places clang-format reports (FILE:LINE:COLUMN: error: code should
# be clang-formatted). A failure that names no file (a broken .clang-format, an unreadable file) is
# no verdict on the layout.
report=$(mktemp)
trap 'rm -f "$report"' EXIT
status=0
"$tool" --dry-run --Werror "${files[@]}" 2>"$report" || status=$?
mapfile -t differ < <(sed -n 's/^\(.*\):[0-9]*:[0-9]*: error: code should be clang-formatted.*/\1/p' "$report" | sort -u)
if ((status != 0 && ${#differ[@]} == 0)); then
    cat "$report" >&2
    echo "format check: $tool failed (above)" >&2
    exit 1
fi

if ((${#differ[@]} == 0)); then
    echo "format check: the ${#files[@]} C and C++ files follow .clang-format"
    exit 0
fi
if ((fix)); then
    "$tool" -i "${differ[@]}"
    printf 'reformatted %s\n' "${differ[@]}"
    exit 0
fi
echo "format check: ${#differ[@]} of ${#files[@]} C and C++ files differ from .clang-format (lines it would change):"
for f in "${differ[@]}"; do
    echo "  $f ($("$tool" "$f" | diff "$f" - | grep -c '^<' || true))"
done
echo "see each difference with: $tool FILE | diff FILE -; fix them all with: tools/dev.sh format --fix"
exit 1

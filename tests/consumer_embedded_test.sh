#!/usr/bin/env bash
# The library built as a part of another project: tests/consumer/embedded brings the source tree
# in with FetchContent and with add_subdirectory. Both configure with the library's tests and
# benchmarks off; the add_subdirectory build links consumer.c against the alias ovrin_sm::ovrin_sm
# and runs it. docs/getting-started.md must show the project file as it is.
#
#   consumer_embedded_test.sh SOURCE_DIR WORK_DIR C_COMPILER CXX_COMPILER
set -euo pipefail

source=$(realpath "$1")
work=$2
cc=$3
cxx=$4
rm -rf "$work"
mkdir -p "$work"

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

project=tests/consumer/embedded/CMakeLists.txt
awk -v file="$project" 'index($0, "`" file "`") {found = 1; next}
                        found && /^```/ {if (inside) exit; inside = 1; next}
                        inside {print}' "$source/docs/getting-started.md" >"$work/shown"
cmp -s "$work/shown" "$source/$project" || {
    diff "$work/shown" "$source/$project" | head -n 20
    fail "docs/getting-started.md does not show $project as it is"
}

generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
for with in FetchContent add_subdirectory; do
    echo "== $with"
    dir=$work/$with
    cmake -S "$source/tests/consumer/embedded" -B "$dir" "${generator[@]}" -DOVRIN_SM_WITH="$with" \
        -DOVRIN_SM_SOURCE_DIR="$source" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
        >"$dir.log" 2>&1 || { cat "$dir.log"; fail "the project does not configure with $with"; }
    for option in OVRIN_TESTS OVRIN_BENCH; do
        grep -qx "$option:BOOL=OFF" "$dir/CMakeCache.txt" || fail "$option is not off by default for a sub-project"
    done
done

# One build is enough to show the targets and include directories work: it compiles the library.
dir=$work/add_subdirectory
cmake --build "$dir" --target consumer >"$dir.build.log" 2>&1 || { tail -n 40 "$dir.build.log"; fail "the consumer does not build"; }
"$dir/consumer" >"$work/run.txt" || { cat "$work/run.txt"; fail "the consumer failed"; }
grep -q "decoded intact for client 'consumer'" "$work/run.txt" || fail "the consumer printed no round trip"
echo "package.embedded: passed"

#!/usr/bin/env bash
# The installed package, used as a consumer would use it: installs the build tree into a fresh
# prefix, checks what was installed (only under the prefix; SONAMEs; no C++ symbols exported; no
# path back into the build tree), runs the installed tool, then builds tests/consumer/consumer.c
# and consumer.cpp (the same program through the C++ interface) through find_package(ovrin_sm) and
# through pkg-config and runs them. consumer.c ends by checking
# that its handle holds no allocation. docs/getting-started.md must show the program as it is.
# When the package holds the linked-in form (OVRIN_LINKED_IN), tests/consumer/linked_in builds one
# program against both forms and runs it over the fuzz targets' wire seeds: the outputs must match.
# CXX names the C++ compiler for that build.
#
#   consumer_test.sh BUILD_DIR SOURCE_DIR C_COMPILER LIBDIR SOVERSION [SANITIZER_FLAGS [SANITIZER_LINK_FLAGS]]
#
# LIBDIR is the build's CMAKE_INSTALL_LIBDIR; SOVERSION the ABI version the SONAMEs must carry
# (MAJOR.MINOR while the major version is 0, else MAJOR). SANITIZER_FLAGS are given when the libraries are
# instrumented: a program that loads them must be built with the same sanitizers.
# SANITIZER_LINK_FLAGS are what linking such a program needs besides (clang's C++ runtime parts).
set -euo pipefail

build=$(realpath "$1")
source=$(realpath "$2")
cc=$3
libdir=$4
soversion=$5
sanitize=${6:-}
sanitize_link="$sanitize ${7:-}"

# shellcheck source=tests/package_test_lib.sh
source "$(dirname "$0")/package_test_lib.sh"
package_scratch package "$libdir"

# A real user's environment does not point the loader into the build tree.
unset LD_LIBRARY_PATH

# The real path of the library named like $2 that the loader picks for the program $1.
loaded() {
    local path
    path=$(LD_TRACE_LOADED_OBJECTS=1 "$1" | awk -v lib="$2" '$1 ~ "^" lib {print $3; exit}')
    [ -n "$path" ] || fail "$1 does not load $2"
    realpath "$path"
}

# docs/getting-started.md shows consumer.c and its CMakeLists.txt whole: the first fenced block
# after the line that names the file must be that file, byte for byte.
shown() {
    awk -v file="$1" 'index($0, "`" file "`") {found = 1; next}
                      found && /^```/ {if (inside) exit; inside = 1; next}
                      inside {print}' "$source/docs/getting-started.md" >"$work/shown"
    cmp -s "$work/shown" "$source/$1" || {
        diff "$work/shown" "$source/$1" | head -n 20
        fail "docs/getting-started.md does not show $1 as it is"
    }
}
shown tests/consumer/consumer.cpp
shown tests/consumer/consumer.c
shown tests/consumer/CMakeLists.txt

echo "== install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log"
installed=$(grep -E '^-- (Installing|Up-to-date): ' "$work/install.log" | sed -E 's/^-- [^:]*: //')
[ -n "$installed" ] || fail "cmake --install reported no files"
while read -r f; do
    [[ $f == "$prefix"/* ]] || fail "installed outside the prefix: $f"
done <<<"$installed"
lib=$prefix/$libdir
for h in mgx/contract.h mgx/runtime.h mgx/handle.hpp ovrin/message.hpp ovrin_sm/types.h ovrin_sm/ops.h ovrin_sm/ops_runtime.h \
         ovrin_sm/ovrin_sm.hpp ovrin_sm/ovrin_sm.types; do
    [ -f "$prefix/include/$h" ] || fail "$h is not installed"
done

for f in share/man/man1/ovrin-sm.1 share/bash-completion/completions/ovrin-sm; do
    [ -f "$prefix/$f" ] || fail "$f is not installed"
done

echo "== installed libraries"
for name in mgx ovrin_sm; do
    so=$lib/lib$name.so
    [ "$(readlink "$so")" = "lib$name.so.$soversion" ] || fail "lib$name.so does not link to lib$name.so.$soversion"
    soname=$(readelf -d "$so" | sed -nE 's/.*\(SONAME\).*\[(.*)\]/\1/p')
    [ "$soname" = "lib$name.so.$soversion" ] || fail "lib$name.so has SONAME '$soname'"
    cxx=$(nm -D --defined-only "$so" | awk '$3 ~ /^_Z/ {print $3}' | head -n 5)
    [ -z "$cxx" ] || fail "lib$name.so exports C++ symbols: $cxx"
    if readelf -d "$so" | grep -E 'R(UN)?PATH' | grep -qF "$build"; then
        fail "lib$name.so still searches the build tree"
    fi
    echo "lib$name.so: SONAME $soname, $(nm -D --defined-only "$so" | wc -l) symbols exported"
done

echo "== the installed tool"
tool=$prefix/bin/ovrin-sm
[ "$(loaded "$tool" libovrin_sm.so)" = "$(realpath "$lib/libovrin_sm.so.$soversion")" ] ||
    fail "ovrin-sm does not load the installed libovrin_sm"
"$tool" types >"$work/types.txt"
head -n 4 "$work/types.txt"
[ "$(wc -l <"$work/types.txt")" -eq 80 ] || fail "ovrin-sm types did not list 79 types"
"$tool" manifest >"$work/manifest.txt"
manifest_lib=$(head -n 1 "$work/manifest.txt" | sed 's/: .ovrin_sm_manifest$//')
[ "$(realpath "$manifest_lib")" = "$(realpath "$lib/libovrin_sm.so.$soversion")" ] ||
    fail "ovrin-sm manifest read $manifest_lib"

expect_intact() {
    "$1" >"$work/run.txt" || { cat "$work/run.txt"; fail "$1 failed"; }
    cat "$work/run.txt"
    grep -q "decoded intact for client 'consumer'" "$work/run.txt" || fail "$1 printed no round trip"
}

echo "== consumer through find_package(ovrin_sm)"
generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
# The shared form configures where libxml2 and zlib cannot be found: it needs neither.
cmake -S "$source/tests/consumer" -B "$work/cmake" "${generator[@]}" \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
    -DCMAKE_DISABLE_FIND_PACKAGE_LibXml2=ON -DCMAKE_DISABLE_FIND_PACKAGE_ZLIB=ON \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$sanitize" -DCMAKE_CXX_COMPILER="${CXX:-c++}" \
    -DCMAKE_CXX_FLAGS="$sanitize" -DCMAKE_EXE_LINKER_FLAGS="$sanitize_link" \
    >"$work/cmake.log" || { cat "$work/cmake.log"; fail "the consumer does not configure"; }
grep -qF "found in $prefix/" "$work/cmake.log" || { cat "$work/cmake.log"; fail "find_package did not use $prefix"; }
cmake --build "$work/cmake" >"$work/build.log" || { cat "$work/build.log"; fail "the consumer does not build"; }
[ "$(loaded "$work/cmake/consumer" libovrin_sm.so)" = "$(realpath "$lib/libovrin_sm.so.$soversion")" ] ||
    fail "the CMake-built consumer does not load the installed libovrin_sm"
expect_intact "$work/cmake/consumer"
expect_intact "$work/cmake/consumer_cxx"

echo "== consumer through pkg-config"
export PKG_CONFIG_PATH=$lib/pkgconfig
flags=$(pkg-config --cflags --libs ovrin_sm)
echo "pkg-config --cflags --libs ovrin_sm: $flags"
# shellcheck disable=SC2086 # the flags are words
"$cc" -std=c11 -Wall -Wextra -Werror -pedantic $sanitize "$source/tests/consumer/consumer.c" $flags \
    $sanitize_link -o "$work/consumer-pc"
pc_libdir=$(pkg-config --variable=libdir ovrin_sm)
export LD_LIBRARY_PATH=$pc_libdir
[ "$(loaded "$work/consumer-pc" libovrin_sm.so)" = "$(realpath "$lib/libovrin_sm.so.$soversion")" ] ||
    fail "the pkg-config consumer does not load the installed libovrin_sm"
expect_intact "$work/consumer-pc"
# shellcheck disable=SC2086
"${CXX:-c++}" -std=c++20 -Wall -Wextra -Werror -pedantic $sanitize "$source/tests/consumer/consumer.cpp" $flags \
    $sanitize_link -o "$work/consumer-cxx-pc"
expect_intact "$work/consumer-cxx-pc"

echo "== pkg-config --static: what a static link needs besides"
static_libs=$(pkg-config --static --libs ovrin_sm)
echo "pkg-config --static --libs ovrin_sm: $static_libs"
for needed in -lovrin_sm -lmgx -lxml2 -lz -lstdc++; do
    [[ " $static_libs " == *" $needed "* ]] || fail "pkg-config --static --libs ovrin_sm lacks $needed"
done
if [ -f "$lib/libovrin_sm.a" ] && [ -z "$sanitize" ]; then
    # shellcheck disable=SC2086
    "$cc" -std=c11 -static "$source/tests/consumer/consumer.c" $(pkg-config --cflags ovrin_sm) $static_libs \
        -o "$work/consumer-static" 2>"$work/static.log" || { tail -n 20 "$work/static.log"; fail "a -static program does not link"; }
    expect_intact "$work/consumer-static"
fi

if [ -f "$lib/libovrin_sm.a" ]; then
    echo "== the linked-in form: the same output as the shared libraries"
    [ -f "$lib/libmgx.a" ] || fail "libmgx.a is not installed beside libovrin_sm.a"
    seeds=("$build"/fuzz-seeds/wire/*)
    [ -f "${seeds[0]}" ] || fail "no wire seeds in $build/fuzz-seeds/wire (the fuzz_seeds fixture writes them)"
    cmake -S "$source/tests/consumer/linked_in" -B "$work/linked" "${generator[@]}" \
        -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="${CXX:-c++}" \
        >"$work/linked.log" || { cat "$work/linked.log"; fail "the linked-in consumer does not configure"; }
    cmake --build "$work/linked" >"$work/linked-build.log" 2>&1 ||
        { tail -n 40 "$work/linked-build.log"; fail "the linked-in consumer does not build"; }
    if LD_TRACE_LOADED_OBJECTS=1 "$work/linked/same_bytes_linked" | grep -qE 'lib(ovrin_sm|mgx)\.so'; then
        fail "the linked-in consumer loads a shared library of the package"
    fi
    "$work/linked/same_bytes_shared" "${seeds[@]}" >"$work/shared.txt" || fail "same_bytes_shared failed"
    "$work/linked/same_bytes_linked" "${seeds[@]}" >"$work/linked.txt" || fail "same_bytes_linked failed"
    cmp -s "$work/shared.txt" "$work/linked.txt" || {
        diff "$work/shared.txt" "$work/linked.txt" | head -n 20
        fail "the linked-in form gives other output than the shared libraries"
    }
    echo "${#seeds[@]} messages: the same bytes, clones, hashes, print and XML forms from both"
fi

ok=1
echo "package.consumer: passed"

# What the installed-package tests share, sourced once $build is set: fail, and package_scratch
# NAME DIR, which skips the test (status 77) when DIR, where the package installs, is an absolute
# directory outside any prefix a test could choose, and otherwise makes $work with $prefix inside
# it, removed when the test passes and kept (and named) when it fails (set ok=1 at the end).
fail() {
    echo "FAIL: $*" >&2
    exit 1
}

package_scratch() {
    if [[ $2 == /* ]]; then
        echo "skipped: the package installs to the absolute directory $2, outside any chosen prefix"
        exit 77
    fi
    work=$(mktemp -d "$build/tests/$1.XXXXXX")
    prefix=$work/prefix
    ok=0
    trap '[ $ok = 1 ] && rm -rf "$work" || echo "(work files kept in $work)"' EXIT
}

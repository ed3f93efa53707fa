#!/usr/bin/env bash
# The Python package as installed: installs the build tree into a fresh prefix, then imports the
# package from there with nothing pointing into the build tree: it lists the 79 types, and runs
# the program docs/getting-started.md shows on the libraries installed beside it.
#
#   installed_test.sh BUILD_DIR SOURCE_DIR PYTHON PYTHON_INSTALL_DIR
#
# PYTHON_INSTALL_DIR is the build's OVRIN_PYTHON_INSTALL_DIR (relative to the prefix).
set -euo pipefail

build=$(realpath "$1")
source=$(realpath "$2")
python=$3
pydir=$4

# shellcheck source=tests/package_test_lib.sh
source "$(dirname "$0")/../package_test_lib.sh"
package_scratch package.python "$pydir"

cmake --install "$build" --prefix "$prefix" >"$work/install.log"
[ -f "$prefix/$pydir/ovrin_sm/__init__.py" ] || fail "the package is not in $prefix/$pydir"

unset LD_LIBRARY_PATH OVRIN_SM_LIBRARY
export PYTHONPATH=$prefix/$pydir PYTHONDONTWRITEBYTECODE=1
cd "$work" # nothing is imported from the current directory

count=$("$python" -c 'import ovrin_sm; print(len(ovrin_sm.types()))')
[ "$count" = 79 ] || fail "the installed package lists $count types, not 79"

# The first python block after "## From Python", then a look at what the process loaded.
awk '/^## From Python/ {found = 1} found && /^```python/ {inside = 1; next} inside && /^```/ {exit} inside' \
    "$source/docs/getting-started.md" >"$work/example.py"
[ -s "$work/example.py" ] || fail "docs/getting-started.md shows no Python program"
cat >>"$work/example.py" <<'END'

import os, sys
prefix = os.path.realpath(sys.argv[1])
loaded = {os.path.realpath(line.split()[-1]) for line in open("/proc/self/maps")
          if "libovrin_sm.so" in line or "libmgx.so" in line}
assert len(loaded) == 2 and all(p.startswith(prefix + "/") for p in loaded), loaded
print("the installed package runs on", *sorted(loaded))
END
"$python" "$work/example.py" "$prefix" || fail "the program of docs/getting-started.md fails on the installed package"
ok=1

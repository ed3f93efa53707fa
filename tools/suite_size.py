#!/usr/bin/env python3
"""The suite's size against the rest: hand-written C and C++ sources and headers that git tracks,
blank lines and comment lines (// and /* */) left out; tests are tests/ and fuzz/. Prints the share
of the whole and the share with the generator (tools/ovrin_gen) left out of the count.

    tools/suite_size.py [CHECKOUT]
"""
import re
import subprocess
import sys


def counted(path):
    n, in_block = 0, False
    for line in open(path, errors="replace"):
        t = line.strip()
        if in_block:
            if "*/" not in t:
                continue
            in_block, t = False, t.split("*/", 1)[1].strip()
        if not t or t.startswith("//"):
            continue
        if t.startswith("/*"):
            in_block = "*/" not in t
            continue
        n += 1
    return n


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else "."
    files = subprocess.run(["git", "ls-files"], capture_output=True, text=True, cwd=root, check=True).stdout.split()
    tests = rest = generator = 0
    for f in files:
        if not re.search(r"\.(c|cc|cpp|h|hpp)$", f):
            continue
        n = counted(f"{root}/{f}")
        if f.startswith(("tests/", "fuzz/")):
            tests += n
        else:
            rest += n
            generator += n if f.startswith("tools/ovrin_gen/") else 0
    print(f"tests and fuzzers {tests}, the rest {rest} (the generator {generator}): "
          f"{100 * tests / (tests + rest):.1f} % of the whole, "
          f"{100 * tests / (tests + rest - generator):.1f} % without the generator")


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Mutation check: plants each fault of tools/mutations.txt alone in a scratch copy of the
checkout, rebuilds incrementally, runs the suite and undoes the fault; prints which tests caught
each fault (or MISSED) and the kill rate per directory. The working tree is never touched.

    tools/mutate.py [--only SUBSTRING] [--keep DIR] [--jobs N] [--asan] [--json FILE]
    tools/mutate.py --check     each fault whose original text is not in its file exactly once


A fault whose fourth column is "gate: REGEX" is also run against the gate tests that REGEX names
when the suite misses it (a fault that only makes the work grow faster than the input is seen by
the complexity gate, which the suite leaves out for its time).

A fault that no test fails on by assertion, only by a crash (a signal, an abort), is reported as
"caught only by crashes": the test that owns the behaviour should say what is wrong. With --asan the
scratch build has AddressSanitizer and UBSan, so an over-read that lands in mapped memory is seen.
"""
import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# Slow gates that only repeat what the suite checks faster, or do not build the library at all; the
# complexity gate, which proves itself on work made quadratic on purpose (complexity.gate_*).
# The layout check is left out too: a planted line is judged by what the code does, not by how it
# is laid out.
EXCLUDED_TESTS = r"soak|package|complexity|^format\.tree$"


def faults(path):
    out = []
    for number, line in enumerate(open(path), 1):
        line = line.rstrip("\n")
        if not line.strip() or line.startswith("#"):
            continue
        parts = [p.strip().replace("\\|", "|") for p in re.split(r"(?<!\\)\|", line)]
        if len(parts) < 3:
            sys.exit(f"{path}:{number}: FILE | ORIGINAL | REPLACEMENT expected")
        note = parts[3] if len(parts) > 3 else ""
        equivalent = note[len("equivalent:"):].strip() if note.startswith("equivalent:") else None
        gate = note[len("gate:"):].strip() if note.startswith("gate:") else None
        out.append({"line": number, "file": parts[0], "original": parts[1], "replacement": parts[2],
                    "equivalent": equivalent, "gate": gate})
    return out


def check(todo):
    """Lists the faults whose original text is not in the checkout's file exactly once (an edit or a
    reformat moved it); 1 if there is one."""
    stale = 0
    for f in todo:
        path = os.path.join(ROOT, f["file"])
        found = open(path).read().count(f["original"]) if os.path.isfile(path) else -1
        if found != 1:
            stale += 1
            where = "no such file" if found < 0 else f"found {found} times"
            print(f"tools/mutations.txt:{f['line']}: {f['file']}: {where}: {f['original']}")
    print(f"{stale} of {len(todo)} faults stale", file=sys.stderr)
    return 1 if stale else 0


def run(cmd, cwd, timeout):
    try:
        p = subprocess.run(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=timeout)
        return p.returncode, p.stdout
    except subprocess.TimeoutExpired as e:
        return -1, (e.stdout or b"").decode(errors="replace") if isinstance(e.stdout, bytes) else (e.stdout or "")


def failed_tests(output):
    """(name, crashed) for each failed test; crashed when ctest names a signal or abort, not a failure."""
    names, listing = [], False
    for line in output.splitlines():
        if line.startswith("The following tests FAILED"):
            listing = True
        elif listing:
            m = re.match(r"\s*\d+ - (\S+)(?: \((.*)\))?", line)
            if m:
                names.append((m.group(1), m.group(2) not in (None, "Failed", "Timeout")))
    return names


def verdict_of(code, output, failed=None):
    if code == 0:
        return "MISSED"
    failed = failed if failed is not None else failed_tests(output)
    names = [n for n, _ in failed]
    listed = ", ".join(names[:3]) + (f" (+{len(names) - 3})" if len(names) > 3 else "")
    if failed and all(crashed for _, crashed in failed):
        return "caught only by crashes: " + listed
    return "caught by " + listed


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--only", default="", help="plant only the faults whose file contains this text (or one of these, comma-separated)")
    ap.add_argument("--keep", default="", help="scratch directory to use and keep (default: a new one, removed)")
    ap.add_argument("--jobs", default=str(os.cpu_count() or 2))
    ap.add_argument("--lines", default="", help="plant only the faults on these lines of the list (\"71,88,137-160\")")
    ap.add_argument("--asan", action="store_true", help="build the scratch copy with AddressSanitizer and UBSan")
    ap.add_argument("--json", default="", help="also write every fault with every test that caught it here "
                    "(what a trim must keep: a test that alone catches a fault)")
    ap.add_argument("--check", action="store_true", help="plant nothing: list the faults that would be STALE in this "
                    "checkout (the original text not in the file exactly once) and fail if there is one")
    args = ap.parse_args()

    wanted = args.only.split(",")
    todo = [f for f in faults(os.path.join(ROOT, "tools", "mutations.txt")) if any(w in f["file"] for w in wanted)]
    if args.lines:
        lines = set()
        for part in args.lines.split(","):
            first, _, last = part.partition("-")
            lines.update(range(int(first), int(last or first) + 1))
        todo = [f for f in todo if f["line"] in lines]
    if args.check:
        sys.exit(check(todo))
    scratch = args.keep or tempfile.mkdtemp(prefix="ovrin-mutate-")
    src, build = os.path.join(scratch, "src"), os.path.join(scratch, "build-asan" if args.asan else "build")
    if not os.path.isdir(src):
        subprocess.run(["git", "clone", "-q", ROOT, src], check=True)
    # The shared libraries change with most faults: executables need not be relinked for that.
    configure = ["cmake", "-S", src, "-B", build, "-G", "Ninja", "-DOVRIN_TESTS=ON", "-DOVRIN_BENCH=OFF",
                 "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"]
    if args.asan:
        configure.append("-DOVRIN_SANITIZE=ON")
    if shutil.which("ccache"):
        configure += ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache", "-DCMAKE_C_COMPILER_LAUNCHER=ccache"]
    subprocess.run(configure, check=True, stdout=subprocess.DEVNULL)
    code, out = run(["cmake", "--build", build, "-j", args.jobs], src, 3600)
    if code != 0:
        sys.exit("the unmutated checkout does not build:\n" + out[-3000:])
    ctest = ["ctest", "--test-dir", build, "-j", args.jobs, "-E", EXCLUDED_TESTS, "--timeout", "120"]
    code, out = run(ctest, src, 3600)
    if code != 0:
        sys.exit("the unmutated suite fails:\n" + out[-3000:])

    rows, caught_by = [], {}
    for n, f in enumerate(todo, 1):
        path = os.path.join(src, f["file"])
        text = open(path).read()
        label = f"{f['file']}:{f['line']}"
        if text.count(f["original"]) != 1:
            rows.append((f, "STALE (the original text is not there once)"))
            continue
        if f["equivalent"]:
            rows.append((f, "equivalent: " + f["equivalent"]))
            continue
        start = time.time()
        try:
            open(path, "w").write(text.replace(f["original"], f["replacement"]))
            code, out = run(["cmake", "--build", build, "-j", args.jobs], src, 1800)
            if code != 0:
                failed = [l for l in out.splitlines() if l.startswith("FAILED: ")]
                if failed and all(re.match(r"FAILED: (tests|fuzz)/", l) for l in failed):
                    # The library builds; a test no longer compiles against what it exports.
                    verdict = "caught by the tests' compilation"
                else:
                    verdict = "does not build (not counted)"
                    first = next((l for l in out.splitlines() if "error" in l), out.strip().splitlines()[-1:] or [""])
                    print(f"  {label} build: {first.strip()[:300]}", file=sys.stderr, flush=True)
            else:
                code, out = run(ctest, src, 1800)
                if code == 0 and f["gate"]:
                    # A fault that only makes the work grow faster than the input: the gate it names
                    # (left out of the suite above for its time) is run for it alone.
                    code, out = run(["ctest", "--test-dir", build, "-R", f["gate"], "--timeout", "600"], src, 1800)
                failed = failed_tests(out)
                caught_by[f"{f['file']}:{f['line']}"] = [name for name, _ in failed] if code != 0 else []
                verdict = verdict_of(code, out, failed)
        finally:
            open(path, "w").write(text)
        rows.append((f, verdict))
        print(f"[{n}/{len(todo)}] {label}: {verdict} ({time.time() - start:.0f} s)", file=sys.stderr, flush=True)
    run(["cmake", "--build", build, "-j", args.jobs], src, 3600)  # leave the scratch build unmutated
    if args.json:
        with open(args.json, "w") as out:
            json.dump({"faults": [{"fault": f"{f['file']}:{f['line']}", "verdict": v,
                                   "caught_by": caught_by.get(f"{f['file']}:{f['line']}", [])} for f, v in rows]},
                      out, indent=1)

    print("| fault | file | verdict |\n|---|---|---|")
    for f, verdict in rows:
        cell = lambda text: text.replace("|", "\\|")  # a pipe would end the table cell
        print(f"| `{cell(f['original'][:60])}` -> `{cell(f['replacement'][:40])}` | {f['file']}:{f['line']} | {cell(verdict)} |")
    print("\n| directory | caught | missed | not counted | kill rate |\n|---|---|---|---|---|")
    by_dir = {}
    for f, verdict in rows:
        d = by_dir.setdefault(f["file"].split("/")[0] + "/" + (f["file"].split("/")[1] + "/" if f["file"].startswith("tools/") else ""), [0, 0, 0])
        d[0 if verdict.startswith("caught") else 1 if verdict == "MISSED" else 2] += 1
    for d, (caught, missed, other) in sorted(by_dir.items()):
        rate = f"{100 * caught / (caught + missed):.0f} %" if caught + missed else "-"
        print(f"| {d} | {caught} | {missed} | {other} | {rate} |")
    if not args.keep:
        shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    main()

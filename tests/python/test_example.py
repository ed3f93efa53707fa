"""docs/examples/client.py, the client's side of the demo in Python, runs against the built tool
and finds every request read as the demo's client sent it."""

import os
import subprocess
import sys


def test_client_example(request):
    script = os.path.join(request.config.getoption("source"), "docs", "examples", "client.py")
    run = subprocess.run([sys.executable, script, request.config.getoption("tool")], capture_output=True, text=True)
    assert run.returncode == 0, run.stdout + run.stderr
    lines = run.stdout.splitlines()
    assert sum(line.startswith("-> ") and line.endswith("read as the demo sent it") for line in lines) == 7
    assert sum(line.startswith("<- ") for line in lines) == 6

"""What a guard adds to a call, beside a pass-through that does nothing."""

import sys
import tempfile
from collections.abc import Iterator
from contextlib import ExitStack
from functools import partial
from statistics import median

from figures import Figure
from quillet.client import Client
from timing import interleaved, timed

SERVER = """
import json, sys
for line in sys.stdin:
    print('{"id": %d, "result": {"tools": [{"name": "a"}]}}' % json.loads(line)["id"], flush=True)
"""
PASS_THROUGH = """
import subprocess, sys, threading
def carry(source, target):
    for line in source: target.write(line); target.flush()
    target.close()
server = subprocess.Popen(sys.argv[1:], stdin=-1, stdout=-1)
threading.Thread(target=carry, args=[sys.stdin.buffer, server.stdin]).start()
carry(server.stdout, sys.stdout.buffer)
"""
PYTHON = [sys.executable, "-P"]


def figures() -> Iterator[Figure]:
    """The medians of a thousand calls through each."""
    server = [*PYTHON, "-c", SERVER]
    with tempfile.TemporaryDirectory() as folder, ExitStack() as stack:
        guard = [*PYTHON, "-m", "quillet", "guard", "--database", f"{folder}/db", "--timeout", "9"]
        commands = {"guard": [*guard, "--"], "pass-through": [*PYTHON, "-c", PASS_THROUGH]}
        calls = {}
        for name, command in commands.items():
            client = stack.enter_context(Client([*command, *server]))
            client.ask("tools/list")  # which has the guard know the tool
            calls[name] = timed(partial(client.call, "a"))
        samples = interleaved(1_000, calls)
    guarded, passed = (median(times) * 1e3 for times in samples.values())
    limit = round(passed + 0.3, 2)
    yield Figure("a call", guarded, passed, "ms", guarded / passed, component_under=limit)

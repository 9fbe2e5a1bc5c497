"""Kills a process amid flushes: each database is whole, and no flush that was told of is lost."""

import itertools
import os
import random
import signal
import tempfile
import time
from pathlib import Path

from quillet.config import ToolsConfig
from quillet.repository import Repository
from quillet.tool_handlers import health

KILLS = 100


def work(folder, acknowledged):
    """Records and flushes for ever, and tells after each flush how many calls are stored."""
    with Repository(folder, folder / "db") as repository:
        tracker = health.ToolHealthTracker(repository, ToolsConfig())
        for calls in itertools.count(1):
            tracker.record_success("status")
            tracker.record_call("status", None, "ok", alias_hit=False, duration_ms=1.0)
            tracker.flush()
            os.write(acknowledged, calls.to_bytes(8, "big"))


def killed(folder):
    """How many calls a process had been told are stored when it was killed."""
    reader, writer = os.pipe()
    child = os.fork()
    if child == 0:
        work(folder, writer)
    os.close(writer)
    told = os.read(reader, 8)
    time.sleep(random.uniform(0, 0.01))
    os.kill(child, signal.SIGKILL)
    os.waitpid(child, 0)
    told += os.read(reader, 65536)  # as much as a pipe holds
    os.close(reader)
    return int.from_bytes(told[-8:], "big")


def main():
    flushes = 0
    for _ in range(KILLS):
        with tempfile.TemporaryDirectory() as name:
            flushes += (acknowledged := killed(Path(name)))
            with Repository(Path(name), Path(name, "db")) as repository:
                assert repository.db.fetchall("PRAGMA integrity_check") == [("ok",)]
                tracker = health.ToolHealthTracker(repository, ToolsConfig())
                [state], [usage] = tracker._state.values(), tracker._usage.values()
                # The document is written after the row, so a kill may come between the two.
                assert acknowledged <= usage.calls <= state.call_count <= acknowledged + 1
    print(f"{KILLS} kills amid {flushes:,} flushes: every database whole, none of them lost")


if __name__ == "__main__":
    main()

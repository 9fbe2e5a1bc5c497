"""What a start costs with 10,000, 100,000 and 1,000,000 usage keys in a database file.

Every start has a process of its own; the median of five.
"""

import tempfile
import time
from multiprocessing import get_context
from pathlib import Path
from statistics import median

from quillet.config import ToolsConfig
from quillet.repository import Repository
from quillet.tool_handlers import health

SIZES = (10_000, 100_000, 1_000_000)
STARTS = 5
TOOLS = 100


class Tool:
    def action(self, name):
        return self


health.TOOLS = {f"tool_{n}": Tool() for n in range(TOOLS)}


def store(folder, keys):
    """Fills the folder's database; returns the size of the usage document in bytes."""
    with Repository(folder) as repository:
        tracker = health.ToolHealthTracker(repository, ToolsConfig())
        for n in range(keys):
            tool, action = f"tool_{n % TOOLS}", f"action_{n // TOOLS}"
            tracker.record_success(tool)
            tracker.record_call(tool, action, "ok", alias_hit=False, duration_ms=n / 7)
        tracker.flush()
        size = "SELECT length(value) FROM schema_info WHERE key = ?"
        return repository.db.fetchone(size, ("tool_usage",))[0]


def start(folder):
    """The seconds that one start takes."""
    with Repository(folder) as repository:
        started = time.perf_counter()
        tracker = health.ToolHealthTracker(repository, ToolsConfig())
        elapsed_s = time.perf_counter() - started
        assert not tracker.has_unsaved_changes
        return elapsed_s


if __name__ == "__main__":
    print("usage keys   document       start")
    for keys in SIZES:
        with tempfile.TemporaryDirectory() as name:
            size = store(Path(name), keys)
            with get_context("spawn").Pool(1, maxtasksperchild=1) as processes:
                starts = [processes.apply(start, (Path(name),)) for _ in range(STARTS)]
            print(f"{keys:10,} {size / 1e6:7.1f} MB {median(starts) * 1e3:8.0f} ms")

"""Runs every operation, and its failing paths, in a loop: the interpreter's references stay flat.

For the debug interpreter, which counts them: `make check` runs it.
"""

import gc
import json
import logging
import sys
from types import SimpleNamespace

from conftest import Spec
from quillet.config import ToolsConfig
from quillet.tool_handlers import health
from test_status_reports import KEYS, census
from test_tracker import WRONG
from test_usage_mirror import UNREADABLE, element

ROUNDS = 50


class Database:
    """Gives the stored rows and document, and fails to write on demand."""

    def __init__(self, rows=(), document=None, fails=()):
        self.rows, self.document, self.fails = rows, document, fails
        self.db = self

    def fetchall(self, sql):
        return [] if "fetchall" in self.fails else self.rows if self.rows else 1 / 0

    def fetchone(self, sql, parameters):
        return (self.document,)

    def execute(self, sql, values):
        return 1 / 0 if "execute" in self.fails else None

    def executemany(self, sql, rows):
        return 1 / 0 if "executemany" in self.fails else None


def start(*args, cooldown=0.0, **kwargs):
    return health.ToolHealthTracker(Database(*args, **kwargs), ToolsConfig(1, cooldown))


def attempt(operation, *args, **kwargs):
    try:
        return operation(*args, **kwargs)
    except Exception as error:
        return error.with_traceback(None)


# What a tracker can be asked for; the memory's sweep lets each of them fail.
STEPS = {
    "record_success": lambda t: t.record_success("b"),
    "record_error": lambda t: t.record_error("a", "\u20ac" * 600),
    "record_error, odd text": lambda t: t.record_error("\udcff", "\udcff"),
    "is_disabled": lambda t: t.is_disabled("a"),
    "record_call": lambda t: t.record_call("a", "\udcff", "ok", alias_hit=True, duration_ms=1),
    "flush": lambda t: t.flush(),
    "get_health_summary": lambda t: t.get_health_summary(),
    "views": lambda t: (t._state, t._usage, t._dirty, t._usage_dirty, t.has_unsaved_changes),
    "start": lambda t: type(t)(t._repo, t.limits),
}


def use_up(t):
    for step in [*STEPS.values(), lambda t: t.__init__(None)]:
        attempt(step, t)


def with_collaborators(operation, **objects):
    kept = {name: getattr(health, name) for name in objects}
    vars(health).update(objects)
    attempt(operation)
    vars(health).update(kept)


ROW = ("a", 1, 1, "e", None, None)
STATS = SimpleNamespace(get_all_stats=lambda: [dict.fromkeys(KEYS, 1.5)])
BAD_STATS = SimpleNamespace(get_all_stats=lambda: [{}])
OPERATIONS = {
    "records, reads and writes": lambda: use_up(start([ROW, ("gone", *ROW[1:])], "[]")),
    "a disabled tool": lambda: use_up(start(cooldown=1e9)),
    "failing writes": lambda: [use_up(start(fails=[f])) for f in ("execute", "executemany")],
    "wrong arguments": lambda: [attempt(getattr(start(), o), *a, **k) for o, a, k, _ in WRONG],
    "wrong rows": lambda: [attempt(start, [ROW, row]) for row in (
        ("a", "x", 0, None, None, None), ("a", 2**70, 0, None, None, None), ("a",), 5,
        ("a", 0, 0, object(), None, None), ("a", 0, 0, b"", 5, None))],
    "documents": lambda: [use_up(start(document=text)) for text in (
        json.dumps([element(), element("a", "x"), element("a", 5), element("gone"), element()]),
        *(u if isinstance(u, str) else json.dumps(u) for u in UNREADABLE if len(u) < 99))],
    "a failing is_slow_call": lambda: with_collaborators(
        lambda: use_up(start()), is_slow_call=lambda *_: 1 / 0),
    "a failing registry": lambda: with_collaborators(
        lambda: start([ROW], json.dumps([element()])), TOOLS=None),
    "no settings": lambda: with_collaborators(
        lambda: health.ToolHealthTracker(Database()), ToolsConfig=lambda: 1 / 0),
    "no __init__": lambda: use_up(health.ToolHealthTracker.__new__(health.ToolHealthTracker)),
    "status reports": lambda: [
        attempt(health.handle_get_tool_performance_stats),
        with_collaborators(health.handle_get_tool_performance_stats,
                           get_timing_collector=lambda: BAD_STATS),
        *(attempt(health.thread_census_report, *args) for args in (
            (1, census(5, 5, {"a": 5})), (1.5,), (1, 5), (1, None), ()))],
    "functions": lambda: [attempt(f, value) for value in (None, 0, 1.5, 10**400, "2023-1-5 3:4:5")
                          for f in (health._epoch, health._sqlite_time, health._known)],
}  # fmt: skip


def growth(operation):
    totals = []
    for _ in range(3):
        for _ in range(ROUNDS):
            operation()
        gc.collect()
        totals.append(sys.gettotalrefcount())
    return totals[2] - totals[1]


def main():
    logging.disable()
    vars(health).update(
        TOOLS={"a": Spec("x"), "b": Spec()}, is_slow_call=lambda tool, action: False,
        ToolsConfig=ToolsConfig, get_timing_collector=lambda: STATS,
        thread_census=lambda: census(None, 1))  # fmt: skip
    leaks = {name: growth(operation) / ROUNDS for name, operation in OPERATIONS.items()}
    for name, references in leaks.items():
        print(f"{references:8.2f} references a round: {name}")
    return any(references >= 0.5 for references in leaks.values())


if __name__ == "__main__":
    sys.exit(main())

"""Lets every single allocation of each operation fail, Python's and C++'s.

Whatever fails, the operation has happened or has not; memory, marks and mirror agree; nothing that
is stored is lost; and the next operations work. For `make check`, with failing_new preloaded.
"""

import ctypes
import itertools
import logging
import sys
from dataclasses import astuple

import _testcapi
from conftest import Spec
from leaks import STEPS
from quillet.config import ToolsConfig
from quillet.tool_handlers import health

fail_new = ctypes.CDLL(None).fail_new
fail_new.restype = ctypes.c_bool


class Database:
    """Keeps the rows and the document; a write happens as a whole or not at all."""

    def __init__(self):
        self.rows, self.document, self.db = {}, None, self

    def fetchall(self, sql):
        return list(self.rows.values())

    def fetchone(self, sql, parameters):
        return self.document and (self.document,)

    def execute(self, sql, parameters):
        self.document = parameters[1]

    def executemany(self, sql, rows):
        names = {row[0]: row for row in rows}
        kept = {name: row for name, row in self.rows.items() if name not in names}
        self.rows = kept if sql.startswith("DELETE") else kept | names


def full_tracker():
    """Some tools and calls stored, one tool disabled, and changes that are not stored yet."""
    database = Database()
    t = health.ToolHealthTracker(database, ToolsConfig(2, 1e9))
    for name in ("stored", "a", "a", "a"):
        t.record_error(name, "e")
        t.record_call(name, None, "ok", alias_hit=False, duration_ms=1)
    t.flush()
    t.record_success("changed")
    t.record_call("stored", None, "ok", alias_hit=False, duration_ms=1)
    return database, t


def memory(t):
    """All but the times."""
    states = {
        name: (*astuple(s)[:3], s.disabled_at is None, s.consecutive_errors)
        for name, s in t._state.items()
    }
    return states, t._usage


def check_the_mirror(database, t):
    """Whatever memory and mirror do not share is marked as changed."""
    stored = health.ToolHealthTracker(database, t.limits)
    for name, state in memory(t)[0].items():
        assert name in t._dirty or memory(stored)[0].get(name, ())[:4] == state[:4], name
    assert t._usage_dirty or stored._usage == t._usage


def failures(step, arm, disarm):
    """Runs the step with the first allocation failing, the second, and so on, until none does."""
    passed = 0
    for n in itertools.count(1):
        database, t = full_tracker()
        before, rows = memory(t), database.rows
        arm(n)
        try:
            step(t)
            failed = False
        except MemoryError:
            failed = True
        failed = disarm() or failed
        yield database, t, before, rows, failed
        # Some failures are got over, by the interpreter itself or as a history that is left out.
        passed = 0 if failed else passed + 1
        if passed == 300:
            return


def sweep(step, arm, disarm):
    _, t = full_tracker()
    step(t)
    after = memory(t)
    count = 0
    for database, t, before, rows, failed in failures(step, arm, disarm):
        assert memory(t) in ((before, after) if failed else (after,))
        assert rows.keys() <= database.rows.keys()
        check_the_mirror(database, t)
        t.record_error("next", "e")
        t.record_call("next", None, "ok", alias_hit=False, duration_ms=None)
        t.flush()
        assert not t.has_unsaved_changes
        check_the_mirror(database, t)
        count += failed
    return count


def main():
    logging.disable()
    names = ("a", "b", "\udcff", "stored", "changed", "next")
    vars(health).update(
        TOOLS={name: Spec("\udcff") for name in names}, is_slow_call=lambda tool, action: False
    )
    for name, step in STEPS.items():
        python = sweep(
            step,
            lambda n: _testcapi.set_nomemory(n, n + 1),
            lambda: bool(_testcapi.remove_mem_hooks()),
        )
        cpp = sweep(step, fail_new, lambda: not fail_new(0))
        print(f"{python:4} failed allocations of Python's, {cpp:3} of C++'s: {name}")


if __name__ == "__main__":
    sys.exit(main())

"""Lets every single allocation of each operation fail, Python's and C++'s (failing_new preloaded).

Whatever fails, the operation has happened or has not; memory, marks and mirror agree; nothing that
is stored is lost; and the next operations work.
"""

import ctypes
import logging
from dataclasses import astuple

import _testcapi
from conftest import Spec, Stored
from quillet.config import ToolsConfig
from quillet.tool_handlers import health

fail_new = ctypes.CDLL(None).fail_new
fail_new.restype = ctypes.c_bool


STEPS = {
    "record_success": lambda t: t.record_success("b"),
    "record_error": lambda t: t.record_error("a", "\u20ac" * 600),
    "record_error, odd text": lambda t: t.record_error("\udcff", "\udcff"),
    "is_disabled": lambda t: t.is_disabled("a"),
    "record_call": lambda t: t.record_call("a", "\udcff", "ok", alias_hit=True, duration_ms=1),
    "flush": lambda t: t.flush(),
    "get_health_summary": lambda t: t.get_health_summary(),
    "_usage_rows": lambda t: t._usage_rows("a"),
    "views": lambda t: (t._state, t._usage, t._dirty, t._usage_dirty, t.has_unsaved_changes),
    "start": lambda t: type(t)(t._repo, t.limits),
}


def full_tracker():
    """Some tools and calls stored, one tool disabled, and changes that are not stored yet."""
    t = health.ToolHealthTracker(Stored(), ToolsConfig(2, 1e9))
    for name in ("stored", "a", "a", "a"):
        t.record_error(name, "e")
        t.record_call(name, None, "ok", alias_hit=False, duration_ms=1)
    t.flush()
    t.record_success("changed")
    t.record_call("stored", None, "ok", alias_hit=False, duration_ms=1)
    return t


def memory(t):
    """All but the times."""
    states = {
        name: (*astuple(s)[:3], s.disabled_at is None, s.consecutive_errors)
        for name, s in t._state.items()
    }
    return states, t._usage


def check_the_mirror(t):
    """Whatever memory and mirror do not share is marked as changed."""
    stored = health.ToolHealthTracker(t._repo, t.limits)
    for name, state in memory(t)[0].items():
        assert name in t._dirty or memory(stored)[0].get(name, ())[:4] == state[:4], name
    assert t._usage_dirty or stored._usage == t._usage


def sweep(step, arm, disarm):
    """Runs the step with the first allocation failing, the second, and so on, until none does."""
    step(t := full_tracker())
    after = memory(t)
    count = passed = number = 0
    # Some failures are got over, by the interpreter itself or as a history that is left out.
    while passed < 300:
        t = full_tracker()
        before, rows = memory(t), t._repo.rows
        number += 1
        arm(number)
        try:
            step(t)
            failed = False
        except MemoryError:
            failed = True
        failed = disarm() or failed
        assert memory(t) in ((before, after) if failed else (after,))
        assert {row[0] for row in rows} <= {row[0] for row in t._repo.rows}
        check_the_mirror(t)
        t.record_error("next", "e")
        t.record_call("next", None, "ok", alias_hit=False, duration_ms=None)
        t.flush()
        assert not t.has_unsaved_changes
        check_the_mirror(t)
        count += failed
        passed = 0 if failed else passed + 1
    return count


def main():
    logging.disable()
    tools = dict.fromkeys(("a", "b", "\udcff", "stored", "changed", "next"), Spec("\udcff"))
    vars(health).update(TOOLS=tools, is_slow_call=lambda tool, action: False)
    for name, step in STEPS.items():
        python = sweep(step, lambda n: _testcapi.set_nomemory(n, n + 1), _testcapi.remove_mem_hooks)
        cpp = sweep(step, fail_new, lambda: not fail_new(0))
        print(f"{python:4} failed allocations of Python's, {cpp:3} of C++'s: {name}")


if __name__ == "__main__":
    main()

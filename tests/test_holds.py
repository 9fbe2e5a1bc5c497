"""Who works for long lets the other threads in, every so many entries.

With a switch interval of 1,000 s a thread gets in only where another one lets it. So who works on
without doing so shows in the marks, however fast that is: a dot for each entry that is worked on, a
bar for each time that the other thread got in.
"""

import gc
import json
import sys
import threading
import time
import tracemalloc
from functools import partial
from types import SimpleNamespace

import pytest
from conftest import MEMBERS, Spec, Stored, call
from quillet.tool_handlers import health

ENTRIES = 20_000


def full_tracker(only=None):
    """Of many tools, or of one with many outcomes."""
    tracker = health.ToolHealthTracker(Stored())
    for number in range(ENTRIES):
        tracker.record_success(f"tool {number}")
        call(tracker, only or f"tool {number}", None, f"outcome {number}")
    return tracker


@pytest.fixture
def other():
    """Another thread, which does its work each time that it gets in."""
    interval, threshold, over = sys.getswitchinterval(), gc.get_threshold(), threading.Event()
    other = SimpleNamespace(work=lambda: other.mark("|"), marks=[])
    other.mark = lambda mark=".", answer=None: other.marks.append(mark) or answer
    other.tools = SimpleNamespace(get=lambda tool: other.mark(".", Spec()))

    def repeat():
        while not over.is_set():
            other.work()
            time.sleep(1e-6)

    def mark_allocations(phase, _):
        """The objects that the collector counts: rows, answers."""
        other.mark("." * 100 * (phase == "start"))

    sys.setswitchinterval(1000)
    gc.set_threshold(100)
    gc.callbacks.append(mark_allocations)
    thread = threading.Thread(target=repeat)
    thread.start()
    yield other
    over.set()
    thread.join()
    tracemalloc.stop()
    gc.callbacks.remove(mark_allocations)
    gc.set_threshold(*threshold)
    sys.setswitchinterval(interval)


def in_turns(other, work):
    """Whether the work marks its entries, and never three quarters of ENTRIES in one go.

    Where others are let in, they may come late on a busy machine; where not, they never come.
    """
    for _ in range(30):
        other.marks.clear()
        work()
        holds = [len(hold) for hold in "".join(other.marks).split("|")]
        if sum(holds) > 0.9 * ENTRIES and max(holds) < 0.75 * ENTRIES:
            return True
    return False


@pytest.mark.parametrize("operation", ["_flush_health", "get_health_summary", "_usage_rows"])
def test_a_flush_and_a_summary_build_in_turns(other, operation, monkeypatch):
    monkeypatch.setattr(health, "is_slow_call", lambda *_: other.mark())
    one = ["one"] * (operation == "_usage_rows")
    assert in_turns(other, lambda: getattr(full_tracker(*one), operation)(*one))


def test_a_lone_call_lets_nobody_in(other):
    tracker = full_tracker()
    tracker.flush()
    other.marks.clear()
    for _ in range(ENTRIES):
        tracker.record_success("tool 1")
    assert "|" not in other.marks


def test_a_start_reads_in_turns(other, monkeypatch):
    class Row:
        def __getitem__(self, column):
            return (other.mark(".", "a") if column == 0 else None, 1, 0, None, None, None)[column]

    def elements(document):
        for n in range(ENTRIES):
            yield other.mark(".", dict(zip(MEMBERS, ("a", None, str(n), False, 1, 0, 0.0))))

    monkeypatch.setattr(health, "TOOLS", other.tools)
    monkeypatch.setattr(json, "loads", elements)
    stored = Stored([Row()] * ENTRIES, "in a form of its own")
    assert in_turns(other, lambda: health.ToolHealthTracker(stored))
    assert other.marks.count(".") >= 4 * ENTRIES


def test_a_document_is_written_beside_others(other):
    tracker, seen, counts = full_tracker(), [], []
    tracker.flush()
    tracker._repo.execute = lambda *_: None  # the document is let go of

    def look():
        # After the counts were taken, and before their document is a text of the interpreter's.
        if not tracker.has_unsaved_changes and tracemalloc.get_traced_memory()[0] < least:
            seen.append(1)

    tracemalloc.start()
    least = tracemalloc.get_traced_memory()[0] + 1_000_000
    other.work = look
    for _ in range(15):
        call(tracker)
        seen.clear()
        tracker.flush()
        counts.append(len(seen))
    assert sum(count > 3 for count in counts) > 3, counts


def test_a_document_is_read_and_a_summary_gathered_beside_others(other, monkeypatch):
    """After the work began (F), and before anything of the interpreter's is done for an entry."""
    full = full_tracker()
    full.flush()

    full._repo.fetchone = lambda *_: other.mark("F", [full._repo.document])
    monkeypatch.setattr(health, "TOOLS", other.tools)
    monkeypatch.setattr(health, "is_slow_call", lambda *_: other.mark())
    restart = partial(health.ToolHealthTracker, full._repo)
    for work in (restart, lambda: other.mark("F", full).get_health_summary()):
        counts = []
        for _ in range(15):
            other.marks.clear()
            work()
            counts.append("".join(other.marks).partition("F")[2].partition(".")[0].count("|"))
        assert sum(count > 3 for count in counts) > 3, counts

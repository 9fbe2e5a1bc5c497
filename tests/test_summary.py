"""The summary, and what may happen while it holds the tracker's lock over Python code."""

import subprocess
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from functools import partial

import pytest
from conftest import call
from quillet.tool_handlers import health


def test_equal_tools_stay_in_the_order_in_which_they_came(tracker):
    t = tracker()
    for number in range(50):
        t.record_success(f"tool {number}")
    assert [record["tool_name"] for record in t.get_health_summary()] == list(t._state)


def test_a_call_from_within_is_refused(tracker, monkeypatch):
    t, other, refused = tracker(), tracker(), []
    call(t)
    operations = [lambda: t.record_success("a"), lambda: t.is_disabled("a"), lambda: call(t)]
    operations += [t.get_health_summary, t.flush, lambda: t.has_unsaved_changes]
    operations.append(lambda: t._usage_rows("a"))

    def is_slow_call(tool, action):
        for operation in operations:
            with pytest.raises(RuntimeError, match="holds its lock") as error:
                operation()
            refused.append(error)
        call(other)  # another tracker's lock is another matter
        return 1 / 0

    monkeypatch.setattr(health, "is_slow_call", is_slow_call)
    for question in (t.get_health_summary, lambda: t._usage_rows("a")):
        with pytest.raises(ZeroDivisionError):
            question()
        assert len(refused) == len(operations)
        refused.clear()
    assert t.flush() == 1 and t._state == {}


def test_counts_are_exact_with_many_threads(tracker, monkeypatch, request):
    request.addfinalizer(partial(sys.setswitchinterval, sys.getswitchinterval()))
    sys.setswitchinterval(1e-6)
    t = tracker(errors=10**9)
    start = threading.Barrier(8)
    monkeypatch.setattr(health, "is_slow_call", lambda tool, action: time.sleep(0))

    def work(number):
        start.wait()
        for n in range(2000):
            t.is_disabled("a")
            t.record_success("a") if n % 2 else t.record_error("a", "e")
            call(t, "a", None, "ok", bool(number % 2), 1.0)
            if n % 25 == number:
                t.flush()
                t.get_health_summary()

    with ThreadPoolExecutor(8) as threads:
        list(threads.map(work, range(8)))
    t.flush()
    for seen in (t, tracker()):
        assert (seen._state["a"].call_count, seen._state["a"].error_count) == (16000, 8000)
        assert [usage.calls for usage in seen._usage.values()] == [8000, 8000]
        assert sum(usage.total_ms for usage in seen._usage.values()) == 16000.0


ENDING = """
import json, threading
from quillet.tool_handlers import health
row = dict(tool="t", outcome="ok", alias_hit=False, calls=1, timed_calls=1, total_ms=1)
document = json.dumps([{**row, "action": str(n)} for n in range(4000)])
class Slow:
    def __del__(self):
        threading.Event().wait(0.01)
class Repository:
    class db:
        fetchall = lambda sql: []
        fetchone = lambda sql, parameters: (document,)
        execute = lambda sql, parameters: Slow()
class Tools:
    get = lambda tool: Tools
    action = lambda name: name
health.TOOLS = Tools
def work():
    while True:
        t = health.ToolHealthTracker(Repository)
        t.record_call("t", None, "ok", alias_hit=False, duration_ms=None)
        t.flush()
for _ in range(8):
    threading.Thread(target=work, daemon=True).start()
threading.Event().wait(0.2)
"""
# The row goes with the IndexError that it causes, and lets go of the interpreter lock meanwhile.
ENDING_AMID_AN_ERROR = """
import sys, threading, time
from quillet.tool_handlers import health
class Row(list):
    __del__ = lambda self: time.sleep(0.2)
class Repository:
    class db:
        fetchall = lambda sql: (Row() for _ in range(1))
class Late:
    __del__ = lambda self, sleep=time.sleep: sleep(0.4)
sys.modules["late"] = Late()
threading.Thread(target=health.ToolHealthTracker, args=(Repository, 1), daemon=True).start()
time.sleep(0.05)
"""
# The answer does the same, and what goes later asks the tracker.
ENDING_AMID_AN_ANSWER = """
import sys, threading, time
from quillet.tool_handlers import health
class Answer:
    __bool__ = lambda self: False
    __del__ = lambda self: time.sleep(0.2)
class Repository:
    class db:
        fetchall = lambda sql: []
        fetchone = lambda sql, parameters: None
health.is_slow_call = lambda tool, action: Answer()
t = health.ToolHealthTracker(Repository, 1)
t.record_call("a", None, "ok", alias_hit=False, duration_ms=None)
class Late:
    __del__ = lambda self, sleep=time.sleep, t=t: (sleep(0.4), t.record_success("a"))
sys.modules["late"] = Late()
threading.Thread(target=t.get_health_summary, daemon=True).start()
time.sleep(0.05)
"""
SUBINTERPRETER = "import _testcapi; _testcapi.run_in_subinterp('')"


@pytest.mark.parametrize(
    "program", [ENDING, SUBINTERPRETER + ENDING, ENDING_AMID_AN_ERROR, ENDING_AMID_AN_ANSWER]
)
def test_the_interpreter_ends_amid_calls(program):
    """It unwinds the threads that it ends, and they do not hold its lock then."""
    for _ in range(4):
        run = subprocess.run(
            [sys.executable, "-c", program], capture_output=True, text=True, timeout=60
        )
        assert (run.returncode, run.stderr) == (0, "")

"""The summary, and what may happen while it holds the tracker's lock over Python code."""

import gc
import threading

import pytest
from conftest import call
from quillet.tool_handlers import health


def test_a_record_has_its_keys_in_order(tracker):
    t = tracker(errors=1)
    t.record_error("a", "e")
    call(t, "a", "x", duration_ms=5.35)
    call(t, "a", "x", duration_ms=0)
    call(t, "d")
    state = t._state["a"]
    time = health._sqlite_time(state.disabled_at)
    first, second = t.get_health_summary()
    row = {"action": "x", "outcome": "ok", "alias_hit": False, "calls": 2, "avg_ms": 2.67, "slow": True}
    expected = {"tool_name": "a", "call_count": 1, "error_count": 1, "last_error": "e",
                "disabled": True, "disabled_at": time, "updated_at": time, "usage": [row]}  # fmt: skip
    assert first == expected and list(first) == list(expected)
    assert list(first["usage"][0]) == list(row)
    assert second == {
        "tool_name": "d", "call_count": 0, "error_count": 0, "last_error": None, "disabled": False,
        "disabled_at": None, "updated_at": "1970-01-01 00:00:00",
        "usage": [{"action": None, "outcome": "ok", "alias_hit": False, "calls": 1,
                   "avg_ms": None, "slow": False}]}  # fmt: skip
    first["usage"].clear()
    assert t.get_health_summary()[0] == expected
    assert set(t._state) == {"a"}


def test_it_equals_a_plain_reading_of_the_memory(tracker, monkeypatch):
    asked = []
    monkeypatch.setattr(health, "is_slow_call", lambda *key: asked.append(key) or len(asked) % 2)
    t = tracker()
    assert t.get_health_summary() == []
    for n in range(300):
        tool = f"tool {n % 7}"
        call(t, tool, [None, "None", "z", "a"][n % 4], "oe"[n % 3 == 0], n % 5 == 0, n / 7)
        if n % 7 < 4:
            (t.record_error if n % 3 else t.record_success)(*(tool, "e")[: 1 + bool(n % 3)])
    order = sorted(
        dict.fromkeys([*t._state, *(key[0] for key in t._usage)]),
        key=lambda tool: [-(t._state.get(tool, health._ToolState()).error_count),
                          -(t._state.get(tool, health._ToolState()).call_count)],
    )  # fmt: skip
    summary = t.get_health_summary()
    assert [record["tool_name"] for record in summary] == order
    assert asked == [key[:2] for tool in order for key in t._usage if key[0] == tool]
    for record in summary:
        rows = [(key, usage) for key, usage in t._usage.items() if key[0] == record["tool_name"]]
        rows.sort(key=lambda row: (-row[1].calls, str(row[0][1]), row[0][2], row[0][3]))
        assert [(row["action"], row["outcome"], row["alias_hit"], row["calls"], row["avg_ms"])
                for row in record["usage"]] == [
            (*key[1:], usage.calls, round(usage.total_ms / usage.timed_calls, 2))
            for key, usage in rows]  # fmt: skip


def test_a_failing_collaborator_leaves_the_lock_free(tracker, monkeypatch):
    t = tracker()
    call(t)
    monkeypatch.setattr(health, "is_slow_call", lambda tool, action: 1 / 0)
    with pytest.raises(ZeroDivisionError):
        t.get_health_summary()
    call(t)
    assert t._usage[("a", None, "ok", False)].calls == 2


def test_a_call_from_within_is_refused(tracker, monkeypatch):
    t, other = tracker(), tracker()
    call(t)
    refused = []

    def attempt(operation, *args):
        try:
            operation(*args)
        except RuntimeError as error:
            refused.append(str(error))

    class Finalizer:
        def __del__(self):
            attempt(t.record_success, "a")

    def is_slow_call(tool, action):
        for operation in (lambda: t.is_disabled("a"), lambda: call(t), t.get_health_summary, t.flush,
                          lambda: t.has_unsaved_changes, lambda: t._state):  # fmt: skip
            attempt(operation)
        garbage = Finalizer()
        garbage.itself = garbage
        del garbage
        gc.collect()
        call(other)  # another tracker's lock is another matter
        return False

    monkeypatch.setattr(health, "is_slow_call", is_slow_call)
    t.get_health_summary()
    assert len(refused) == 7 and "holds its lock" in refused[0]
    assert t.flush() == 1 and t._state == {}


def test_others_wait_without_the_interpreter_lock(tracker, monkeypatch):
    """A summary's is_slow_call waits for threads that are waiting for the tracker."""
    t = tracker()
    call(t)
    waiting = threading.Barrier(4)
    started = []

    def work(operation):
        waiting.wait()
        operation()

    def is_slow_call(tool, action):
        if not started:
            for operation in (lambda: call(t), t.flush, lambda: t.record_success("a")):
                started.append(threading.Thread(target=work, args=(operation,)))
                started[-1].start()
            waiting.wait()
            for _ in range(100):  # lets the others run into the lock
                threading.Event().wait(0.0001)
        return False

    monkeypatch.setattr(health, "is_slow_call", is_slow_call)
    assert t.get_health_summary()[0]["usage"][0]["calls"] == 1
    for thread in started:
        thread.join()
    assert (t._usage[("a", None, "ok", False)].calls, t._state["a"].call_count) == (2, 1)


def test_counts_are_exact_with_many_threads(tracker, repository):
    t = tracker(errors=10**9)
    start = threading.Barrier(8)

    def work(number):
        start.wait()
        for n in range(400):
            t.is_disabled("a")
            t.record_success("a") if n % 2 else t.record_error("a", "e")
            call(t, "a", None, "ok", bool(number % 2), 1.0)
            if n % 100 == number:
                t.flush()
                t.get_health_summary()

    threads = [threading.Thread(target=work, args=(number,)) for number in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    t.flush()
    for seen in (t, tracker()):
        assert (seen._state["a"].call_count, seen._state["a"].error_count) == (3200, 1600)
        assert [usage.calls for usage in seen._usage.values()] == [1600, 1600]
        assert sum(usage.total_ms for usage in seen._usage.values()) == 3200.0

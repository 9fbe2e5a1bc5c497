"""The answers of the status tools that need no tracker."""

import os
import threading
from types import MappingProxyType, SimpleNamespace

import pytest
from quillet.tool_handlers import health
from quillet.utils.process import thread_census
from quillet.utils.timing import TimingCollector

KEYS = ["name", "count", "avg_ms", "p95_ms", "min_ms", "max_ms", "errors"]


def test_performance_stats_pass_the_collectors_objects_on(monkeypatch):
    records = []
    collector = SimpleNamespace(get_all_stats=lambda: records)
    monkeypatch.setitem(vars(health), "get_timing_collector", lambda: collector)
    assert health.handle_get_tool_performance_stats() == {"tools": []}
    values = ["z", 10**40, 1.23456, None, object(), "2", 0]
    records.append({"more": 1, **dict(zip(reversed(KEYS), reversed(values)))})
    records.extend(dict.fromkeys(KEYS, name) for name in "az")
    entries = health.handle_get_tool_performance_stats()["tools"]
    assert [list(entry) for entry in entries] == [KEYS] * 3
    assert all(a is b for a, b in zip(entries[0].values(), values))
    assert [entry["name"] for entry in entries] == ["z", "a", "z"]
    for key in KEYS:
        records[:] = [dict.fromkeys(KEYS, 1), {k: 1 for k in KEYS if k != key}]
        with pytest.raises(KeyError, match=key):
            health.handle_get_tool_performance_stats()
    collector.get_all_stats = lambda: (1 / 0 for _ in "a")
    with pytest.raises(ZeroDivisionError):
        health.handle_get_tool_performance_stats()


def census(os, total, names=()):
    threads = MappingProxyType(dict(names))
    return SimpleNamespace(os_threads=os, python_total=total, python_threads=threads)


@pytest.mark.parametrize(
    ("os_threads", "python_total", "budget", "warned"),
    [(None, 12, 10, 12), (None, 10, 10, None), (40, 12, 32, 40), (20, 50, 32, None),
     (32, 1, 32, None), (33, 1, 32, 33), (0, 5, 0, None), (0, 5, -1, 0), (1, 0, 0, 1),
     (10**30, 1, 10**29, 10**30), (True, 1, False, 1)],
)  # fmt: skip
def test_threads_are_measured_against_the_budget(os_threads, python_total, budget, warned):
    names = {"z": 2, "a": 1}
    report = health.thread_census_report(budget, census(os_threads, python_total, names))
    expected = {} if os_threads is None else {"os": os_threads}
    expected |= {"python": python_total, "python_by_name": names, "budget": budget}
    if warned is not None:
        expected["warning"] = (
            f"The process holds {warned} threads, more than the {int(budget)} its pools allow: "
            "threads are piling up. A thread that ran the local embedding model keeps a team of "
            "torch threads, as many as QUILLET_EMBED_THREADS allows (0 leaves torch's own size)."
        )
    assert repr(report) == repr(expected)


def test_a_census_is_taken_only_when_none_is_given(monkeypatch):
    taken = []
    monkeypatch.setitem(vars(health), "thread_census", lambda: taken.append(1) or census(None, 3))
    falsy = type("Falsy", (SimpleNamespace,), {"__bool__": lambda self: False})
    given = falsy(**vars(census(1, 1)))
    assert health.thread_census_report(2, given)["python"] == 1 and not taken
    report = health.thread_census_report(census=None, budget=2)
    assert report["python"] == 3 and type(report["python_by_name"]) is dict and taken
    with pytest.raises(TypeError, match=r"thread_census_report\(\) argument 'budget' must be int"):
        health.thread_census_report(1.5, given)
    for named in ({"budget": 1}, {"cens": 1}):
        with pytest.raises(TypeError, match=f"'{[*named][0]}'"):
            health.thread_census_report(1, **named)


def test_the_daemons_collector():
    timing = TimingCollector()
    for ms in range(1, 1101):
        timing.record("t", ms, error=ms % 10 == 0)
    for ms in (2, 1.0006, 3):
        timing.record("u", ms, error=False)
    values = [("t", 1100, 600.5, 1050, 101, 1100, 110), ("u", 3, 2.0, 3, 1.001, 3, 0)]
    assert [tuple(record[key] for key in KEYS) for record in timing.get_all_stats()] == values


def test_the_daemons_census(monkeypatch):
    names = {"pool-x_12": "pool-x", "Thread-7 (work)": "Thread (work)", "_3": "_3"}
    for name, group in names.items():
        monkeypatch.setattr(threading.current_thread(), "name", name)
        census = thread_census()
        assert census.python_threads[group] == 1
    assert census.python_total == threading.active_count()
    assert census.os_threads == len(os.listdir("/proc/self/task"))

"""Lives on and on, with all that fails: the debug interpreter's count of references stays flat."""

import gc
import logging
import sys
from contextlib import suppress
from random import Random
from types import SimpleNamespace
from unittest import mock

import pytest
from conftest import Stored
from quillet.tool_handlers import health
from test_rules import FAILURES, Life, Registry
from test_status_reports import KEYS, census
from test_tracker import WRONG

LIVES = 10


class Odd:
    __hash__ = lambda self: hash("TOOLS")  # noqa: E731
    __eq__ = lambda *_: 1 / 0  # noqa: E731


def attempt(operation, *args, **kwargs):
    with suppress(Exception):
        return operation(*args, **kwargs)


def live(seed):
    with pytest.MonkeyPatch.context() as patch:
        life = Life(Random(seed), patch, lambda step: None)
        for _ in range(60):
            life.go_on()
            life.seen(0)
    for error in FAILURES:
        error.__traceback__ = error.__context__ = None


def make_mistakes(_):
    row = ("b", 1, 1, "e", None, None)
    t = health.ToolHealthTracker(Stored())
    for operation, args, kwargs, _ in WRONG:
        attempt(getattr(t, operation), *args, **kwargs)
    for odd in ("x", 2**70, object(), b"x"):
        for column in range(6):
            edited = (*row[:column], odd, *row[column + 1 :])
            attempt(health.ToolHealthTracker, Stored([row, edited]))
    for document in ("[]]", '[{"tool": "b"}]', "5", "[" * 100_000):
        attempt(health.ToolHealthTracker, Stored((), document))
    for stats in ([dict.fromkeys(KEYS, 1.5)], [{}], 5):
        collector = SimpleNamespace(get_all_stats=lambda stats=stats: stats)
        vars(health)["get_timing_collector"] = lambda collector=collector: collector
        attempt(health.handle_get_tool_performance_stats)
    for args in ((1, census(5, 5, {"a": 5})), (1.5,), (1, 5), (1, None), ()):
        attempt(health.thread_census_report, *args)
    for value in (None, 0, 1.5, 10**400, "2023-1-5 3:4:5"):
        for function in (health._epoch, health._sqlite_time, health._known):
            attempt(function, value)
    attempt(health.ToolHealthTracker, Stored(), None)
    attempt(health.ToolHealthTracker.__new__(health.ToolHealthTracker).record_error, "a", "e")
    attempt(getattr, health, "weather")
    with mock.patch.dict(vars(health)):
        del health.TOOLS
        vars(health)[Odd()] = 1
        attempt(
            health._known, "a", None
        )  # which this interpreter ends if it goes on with the error


def growth(operation):
    totals = []
    for _ in range(3):
        for number in range(LIVES):
            operation(number)
        gc.collect()
        totals.append(sys.gettotalrefcount())
    return totals[2] - totals[1]


def main():
    logging.disable()
    vars(health).update(TOOLS=Registry(["b"]), thread_census=lambda: census(None, 1))
    grown = growth(live), growth(make_mistakes)
    print("references in %d lives: %d; in as many rounds of mistakes: %d" % (LIVES, *grown))
    return any(references >= LIVES / 2 for references in grown)


if __name__ == "__main__":
    sys.exit(main())

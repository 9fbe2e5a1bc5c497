"""The class as its callers see it: its arguments, its settings, the life of its objects."""

import copy
import gc
import inspect
import json
import os
import subprocess
import sys
import time
import weakref
from contextlib import suppress
from dataclasses import astuple
from unittest import mock

import _testcapi
import pytest
from conftest import MEMBERS, Stored, call
from quillet.config import ToolsConfig
from quillet.tool_handlers import health

NAMED = {"alias_hit": True, "duration_ms": None}
WRONG = [
    ("record_call", ("a", None, "ok"), {"alias_hit": 1}, r"argument 'duration_ms' \(pos 5\)"),
    ("record_call", ("a", None, "ok", 1, 2), {}, r"exactly 3 positional arguments \(5 given\)"),
    ("record_call", ("a", 1, "ok"), NAMED, "'action' must be str or None, not int"),
    ("record_call", ("a", None, None), NAMED, "'outcome' must be str, not None"),
    ("record_call", ("a", None, "ok"), {**NAMED, "alias_hit": 1}, "'alias_hit' must be bool"),
    ("record_call", ("a", None, "ok"), {**NAMED, "duration_ms": "1"}, "a number or None, not str"),
    ("record_call", ("a", None, "ok"), {"alias_hit": True, "duration": 1}, "'duration_ms'"),
    ("record_success", ("a", "b"), {}, r"takes at most 1 argument \(2 given\)"),
    ("record_error", ("a", ValueError("e")), {}, "'error' must be str or None, not ValueError"),
    ("is_disabled", ("a",), {"tool_name": "a"}, "2 given"),
    ("is_disabled", (b"a",), {}, "'tool_name' must be str, not bytes"),
    ("_usage_rows", (None,), {}, "'tool_name' must be str, not None"),
    ("flush", (1,), {}, "no arguments"),
    ("__init__", (1, 2, 3), {}, "3 given"),
]


@pytest.mark.parametrize(("operation", "args", "kwargs", "named"), WRONG)
def test_a_wrong_argument_is_named_and_records_nothing(tracker, operation, args, kwargs, named):
    t = tracker()
    with pytest.raises(TypeError, match=named):
        getattr(t, operation)(*args, **kwargs)
    assert (t._state, t._usage, t.has_unsaved_changes) == ({}, {}, False)


@pytest.mark.filterwarnings("ignore::DeprecationWarning")
def test_arguments_may_be_named():
    t = health.ToolHealthTracker(limits=ToolsConfig(1), repository=Stored())
    t.record_call("a", **NAMED | {"duration_ms": 1}, outcome="ok", action=None)
    legacy = getattr(_testcapi, "unicode_legacy_string", str)  # not ready yet, up to 3.11
    t.record_error("a", error=legacy("\xe9" * 501))
    assert t.is_disabled(**{"".join(["tool_", "name"]): "a"}) == (True, "\xe9" * 500)
    with pytest.raises(OverflowError):
        call(t, duration_ms=10**400)
    assert t._usage[("a", None, "ok", True)].calls == 1
    for kind in (type("Odd", (str,), {"__hash__": lambda self: 7}), str):
        t.record_success(kind("".join(["o", "dd"])))
    assert t._state["odd"].call_count == 2  # however its class hashes


def test_settings_are_those_given_and_read_when_they_are_needed():
    class Settings(type):
        __bool__ = lambda cls: False  # noqa: E731

        def __getattr__(cls, name):
            try:
                1 / 0
            except ZeroDivisionError:
                raise AttributeError(name)

    class settings(metaclass=Settings):
        disable_after_errors = 1

    t = health.ToolHealthTracker(Stored(), settings)
    assert t.limits is t._limits is settings
    t.record_error("a", "2")
    with pytest.raises(AttributeError, match="disable_cooldown_s"):
        t.is_disabled("a")
    settings.disable_cooldown_s = 50
    assert t.is_disabled("a") == (True, "2")
    del settings.disable_after_errors
    try:
        raise OSError
    except OSError:
        with pytest.raises(AttributeError, match="disable_after_errors") as raised:
            t.record_error("a", "3")
    assert isinstance(raised.value.__context__, ZeroDivisionError)
    assert raised.traceback[-1].name == "__getattr__"
    assert t._state["a"].error_count == 2  # the call failed all the same
    assert health.ToolHealthTracker(Stored(), None).limits == ToolsConfig()


def test_the_cooldown_is_any_attribute():
    class Hasty(health.ToolHealthTracker):
        def __getattribute__(self, name):
            if name != "cooldown_s":
                return super().__getattribute__(name)
            asked.append(1)
            assert len(asked) == 2 or self.is_disabled("a") == (False, None)  # and was faster
            return 0.0

    asked = []
    t = Hasty(Stored(), ToolsConfig(1, 1000.0))
    t.record_error("a", "e")
    assert t.is_disabled("a") == (False, None) and len(asked) == 2


def test_a_count_stays_at_its_limit_and_an_error_what_it_is():
    most, beyond, error = 2**63 - 1, 10**30, -(10**5000)
    document = json.dumps([dict(zip(MEMBERS, ("a", None, "ok", False, beyond, -beyond, 1.0)))])
    t = health.ToolHealthTracker(Stored([("a", beyond, -beyond, error, None, None)], document))
    t.record_success("a")
    call(t)
    assert astuple(t._state["a"])[:3] == (most, -most - 1, error)
    assert [astuple(usage)[:2] for usage in t._usage.values()] == [(most, -most - 1)]
    for odd in ((object(), "e"), (1, object())):
        with pytest.raises(TypeError):
            health.ToolHealthTracker(Stored([("a", 1, *odd, None, None)]))


def test_a_flush_looks_at_what_changed_alone():
    def took(t):
        t._repo.executemany = lambda *_: None
        t.record_success("0")
        began = time.thread_time_ns()
        t._flush_health()
        return time.thread_time_ns() - began

    few, many = health.ToolHealthTracker(Stored()), health.ToolHealthTracker(Stored())
    for number in range(100_000):
        many.record_success(str(number))
    assert min(map(took, [many] * 50)) < 10 * min(map(took, [few] * 50))


SHORT_OF_MEMORY = """
import resource, threading
from unittest import mock
from quillet.tool_handlers import health
db = mock.Mock(fetchall=lambda sql: [], fetchone=lambda *_: None, executemany=lambda *_: None)
t = health.ToolHealthTracker(mock.Mock(db=db), 1)
for number in range(200_000):
    t.record_success(str(number))
def work(operation):
    try:
        operation()
    except MemoryError:
        print("MemoryError")
with open("/proc/self/statm") as pages:
    in_use = int(pages.read().split()[0]) * resource.getpagesize()
resource.setrlimit(resource.RLIMIT_AS, (in_use + 60_000_000, -1))
for operation in (t.get_health_summary, lambda: t._state, t._flush_health):
    thread = threading.Thread(target=work, args=[operation])
    thread.start()
    thread.join()
resource.setrlimit(resource.RLIMIT_AS, (-1, -1))
assert len(t._dirty) == 200_000
"""


@pytest.mark.skipif("LD_PRELOAD" in os.environ, reason="a sanitizer takes addresses of its own")
def test_memory_that_runs_out_in_a_new_thread_is_its_error_alone():
    run = subprocess.run([sys.executable, "-c", SHORT_OF_MEMORY], capture_output=True, text=True)
    assert (run.returncode, run.stdout, run.stderr) == (0, 3 * "MemoryError\n", "")


@pytest.mark.parametrize("operation", ["fetchall", "fetchone"])
def test_an_unreadable_history_is_logged_but_no_interrupt(tracker, repository, caplog, operation):
    repository.db.failures[operation] = error = RuntimeError("no luck")
    tracker()
    assert [record.args for record in caplog.records] == [(error,)] and error.__traceback__
    repository.db.failures[operation] = KeyboardInterrupt()
    with pytest.raises(KeyboardInterrupt):
        tracker()


def test_it_answers_like_a_python_class(tracker):
    cls = health.ToolHealthTracker
    assert {c.__module__ for c in (cls, health._ToolState, health._Usage)} == {health.__name__}
    assert str(inspect.signature(cls)) == "(repository, limits=None)"
    t = tracker()
    with mock.patch.object(cls, "is_disabled", return_value="patched"):
        assert t.is_disabled("a") == "patched"
    with mock.patch.object(t, "_flush_health", return_value=40):
        call(t)
        assert t.flush() == 41
    with pytest.raises(AttributeError):
        t.limits = None
    with pytest.raises(TypeError, match="pickle"):
        copy.copy(t)
    with pytest.raises(AttributeError, match="has no attribute '_limits'"):
        cls.__new__(cls).record_error("a", "e")


def test_a_tracker_is_initialized_once():
    for stored in (Stored(), Stored([("a", "many", 0, *[None] * 3)])):
        t = health.ToolHealthTracker.__new__(health.ToolHealthTracker)
        with suppress(ValueError):
            t.__init__(stored, 1)
        with pytest.raises(RuntimeError, match="once"):
            t.__init__(Stored(), 2)
        assert t.limits == 1


@pytest.mark.parametrize("through", ["nothing", "repository", "limits", "itself"])
def test_a_tracker_goes_with_its_last_reference_or_cycle(through):
    objects = {"repository": Stored(), "limits": Stored()}
    t = objects["itself"] = health.ToolHealthTracker(**objects)
    if through != "nothing":
        objects[through].tracker = t
    t.own, gone = Stored(), []
    reference, own = weakref.ref(t, gone.append), weakref.ref(t.own)
    del t, objects
    assert through != "nothing" or gone
    gc.collect()
    assert gone == [reference] and own() is None

"""The tracker in memory, and the class as its callers see it."""

import copy
import gc
import inspect
import math
import time
import weakref
from unittest import mock

import pytest
from conftest import call
from quillet.config import ToolsConfig
from quillet.tool_handlers import health


def test_an_error_disables_at_its_own_time(tracker):
    t = tracker(errors=1)
    for _ in range(300):
        before = time.time()
        t.record_error("a", "e")
        state = t._state["a"]
        assert before <= state.disabled_at == state.updated_at <= time.time()


@pytest.mark.parametrize("cooldown", [0.0, 0, -1, False, 1e9, 10**400, math.inf, math.nan])
def test_a_cooldown_may_be_any_number(tracker, cooldown):
    t = tracker(errors=1, cooldown=cooldown)
    t.record_error("a", "e")
    t.flush()
    passed = cooldown <= 0
    assert t.is_disabled("a") == ((False, None) if passed else (True, "e"))
    assert t._dirty == ({"a"} if passed else set())


def test_the_cooldown_is_read_through_its_property(tracker):
    class Hasty(health.ToolHealthTracker):
        @property
        def cooldown_s(self):
            asked.append(1)
            assert len(asked) == 2 or self.is_disabled("a") == (False, None)  # and was faster
            return 0.0

    asked = []
    t = Hasty(tracker()._repo, ToolsConfig(1, 1000.0))
    t.record_error("a", "e")
    assert t.is_disabled("a") == (False, None) and len(asked) == 2
    assert t._state["a"].call_count == 1


def test_settings_are_read_when_they_are_needed(tracker):
    class Settings:
        disable_after_errors = float("inf")

    t = health.ToolHealthTracker(tracker()._repo, Settings)
    assert t.limits is t._limits is Settings
    for Settings.disable_after_errors in (math.inf, 10**30, 2.5):
        assert t.is_disabled("a") == (False, None)
        t.record_error("a", "2")
    with pytest.raises(AttributeError, match="disable_cooldown_s"):
        t.is_disabled("a")
    Settings.disable_cooldown_s = 50
    assert t.is_disabled("a") == (True, "2")
    del Settings.disable_after_errors
    t.flush()
    with pytest.raises(AttributeError, match="disable_after_errors"):
        t.record_error("a", "3")
    assert t._state["a"].error_count == 4
    assert health.ToolHealthTracker(t._repo).limits == ToolsConfig()


TEXTS = ["", "é", "\ud800", "\ud83d\ude00", "\U0001f600", "a\0b", "\udcff" * 501]


@pytest.mark.parametrize("text", TEXTS)
def test_any_text_comes_back_unchanged(tracker, text):
    t = tracker(errors=1)
    t.record_error(text, text)
    call(t, text, text, text)
    assert t.is_disabled(text) == (True, text[:500])
    assert list(t._usage) == [(text, text, text, False)]
    assert t.get_health_summary()[0]["usage"][0]["action"] == text


NAMED = {"alias_hit": True, "duration_ms": None}
WRONG = [
    ("record_call", ("a", None, "ok"), {"alias_hit": True}, "duration_ms"),
    ("record_call", ("a", 1, "ok"), NAMED, "'action' must be str or None, not int"),
    ("record_call", ("a", None, None), NAMED, "'outcome' must be str, not None"),
    ("record_call", ("a", None, "ok"), {**NAMED, "alias_hit": 1}, "'alias_hit' must be bool"),
    ("record_call", ("a", None, "ok"), {**NAMED, "duration_ms": "1"}, "a number or None, not str"),
    ("record_success", ("a", "b"), {}, "2 given"),
    ("record_error", ("a", ValueError("e")), {}, "'error' must be str or None, not ValueError"),
    ("is_disabled", ("a",), {"tool_name": "a"}, "2 given"),
    ("is_disabled", (b"a",), {}, "'tool_name' must be str, not bytes"),
    ("flush", (1,), {}, "no arguments"),
    ("__init__", (1, 2, 3), {}, "3 given"),
]


@pytest.mark.parametrize(("operation", "args", "kwargs", "named"), WRONG)
def test_a_wrong_argument_is_named_and_records_nothing(tracker, operation, args, kwargs, named):
    t = tracker()
    with pytest.raises(TypeError, match=named):
        getattr(t, operation)(*args, **kwargs)
    assert (t._state, t._usage, t.has_unsaved_changes) == ({}, {}, False)


def test_arguments_may_be_named(tracker):
    t = health.ToolHealthTracker(limits=ToolsConfig(1), repository=tracker()._repo)
    t.record_call(
        **{"duration_ms": 1, "alias_hit": False}, tool_name="a", outcome="ok", action=None
    )
    t.record_error("a", error="e")
    assert t.is_disabled(**{"".join(["tool_", "name"]): "a"}) == (True, "e")
    with pytest.raises(OverflowError):
        call(t, duration_ms=10**400)
    with pytest.raises(TypeError, match="keywords must be strings"):
        health.ToolHealthTracker(None, **{10**9: 2})
    assert t._usage[("a", None, "ok", False)].calls == 1


def test_it_answers_like_a_python_class(tracker):
    cls = health.ToolHealthTracker
    assert cls.__module__ == health.__name__
    assert str(inspect.signature(cls)) == "(repository, limits=None)"
    t = tracker()
    with mock.patch.object(cls, "is_disabled", return_value="patched"):
        assert t.is_disabled("a") == "patched"
    with mock.patch.object(t, "_flush_health", return_value=40):
        call(t)
        assert t.flush() == 41
    t.note = "mine"
    with pytest.raises(AttributeError):
        t.limits = None
    with pytest.raises(TypeError, match="pickle"):
        copy.copy(t)


def test_a_tracker_is_initialized_once(tracker):
    t = health.ToolHealthTracker.__new__(health.ToolHealthTracker)
    assert t.is_disabled("a") == (False, None)
    with pytest.raises(AttributeError, match="has no attribute '_limits'"):
        t.record_error("a", "e")
    with pytest.raises(RuntimeError, match="already"):
        tracker().__init__(None)


def test_a_cycle_of_tracker_and_repository_is_collected(tracker):
    class Repository:
        db = tracker()._repo.db

    repository = Repository()
    repository.tracker = health.ToolHealthTracker(repository)
    repository.tracker.itself = repository.tracker
    gone = weakref.ref(repository.tracker)
    del repository
    gc.collect()
    assert gone() is None

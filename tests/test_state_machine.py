"""The whole tracker against a small model: random calls, flushes, failures and restarts."""

import json
import tempfile
from pathlib import Path
from types import SimpleNamespace

import pytest
from conftest import MEMBERS, Spec, SpyRepository
from hypothesis import settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, initialize, invariant, precondition, rule
from quillet.repository import Repository
from quillet.tool_handlers import health

tools = st.sampled_from(["a", "b", "c", "d"])
actions = st.none() | st.sampled_from(["x", "None", "\u20ac"])
durations = st.none() | st.sampled_from([0.0, 0.0625, 12.3456, 1e16])
ERRORS = RuntimeError("no luck"), KeyboardInterrupt()


class Tracker(RuleBasedStateMachine):
    folder = monkeypatch = None  # of the test

    @initialize()
    def begin(self):
        self.repository = Repository(Path(tempfile.mkdtemp(dir=self.folder)))
        self.spy = SpyRepository(self.repository)
        self.registry = {tool: Spec("x", "None", "\u20ac") for tool in "abcd"}
        self.monkeypatch.setattr(health, "TOOLS", self.registry)
        self.asked = []
        is_slow = lambda *key: self.asked.append(key) or key[1] == "x"  # noqa: E731
        self.monkeypatch.setattr(health, "is_slow_call", is_slow)
        self.settings = SimpleNamespace(disable_after_errors=2, disable_cooldown_s=1e9)
        self.states, self.usage = {}, {}
        self.dirty, self.usage_dirty = set(), False
        self.rows, self.document = {}, {}  # what is stored
        self.tracker = health.ToolHealthTracker(self.spy, self.settings)

    def teardown(self):
        self.repository.__exit__()

    def changed(self, tool, **fields):
        fresh = {"call_count": 0, "error_count": 0, "last_error": None, "disabled": False, "run": 0}
        self.states.setdefault(tool, fresh).update(fields)
        self.dirty.add(tool)

    @rule(tool=tools)
    def succeed(self, tool):
        self.tracker.record_success(tool)
        calls = self.states.get(tool, {"call_count": 0})["call_count"]
        self.changed(tool, call_count=calls + 1, run=0, disabled=False)

    @rule(tool=tools, error=st.none() | st.text(max_size=3) | st.just("\u20ac" * 501))
    def fail(self, tool, error):
        self.tracker.record_error(tool, error)
        self.changed(tool)
        state = self.states[tool]
        for count in ("call_count", "error_count", "run"):
            state[count] += 1
        state["last_error"] = (error or "")[:500]
        state["disabled"] |= state["run"] >= self.settings.disable_after_errors

    @rule(tool=tools, passed=st.booleans())
    def ask(self, tool, passed):
        state = self.states.get(tool, {"disabled": False})
        expected = (
            (True, state["last_error"]) if state["disabled"] and not passed else (False, None)
        )
        self.settings.disable_cooldown_s = 0.0 if passed else 1e9
        assert self.tracker.is_disabled(tool) == expected
        if state["disabled"] and passed:
            self.changed(tool, disabled=False, run=0)

    @rule(
        key=st.tuples(tools, actions, st.sampled_from(["ok", "\udcff"]), st.booleans()),
        ms=durations,
    )
    def count(self, key, ms):
        self.tracker.record_call(*key[:3], alias_hit=key[3], duration_ms=ms)
        calls, timed, total = self.usage.get(key, (0, 0, 0.0))
        self.usage[key] = (calls + 1, timed + (ms is not None), total + (ms or 0.0))
        self.usage_dirty = True

    @rule()
    def flush(self):
        expected = len(self.dirty) + (len(self.usage) if self.usage_dirty else 0)
        assert self.tracker.flush() == expected
        self.stored_health()
        if self.usage_dirty:
            self.document = {k: (c, t, round(ms, 3)) for k, (c, t, ms) in self.usage.items()}
        self.usage_dirty = False

    def stored_health(self):
        self.rows |= {tool: {**self.states[tool], "run": 0} for tool in self.dirty}
        self.dirty.clear()

    @rule(error=st.sampled_from(ERRORS), write=st.sampled_from(["executemany", "execute"]))
    def flush_in_vain(self, error, write):
        self.spy.db.failures[write] = error
        if write == "executemany" and self.dirty or write == "execute" and self.usage_dirty:
            with pytest.raises(type(error)) as raised:
                self.tracker.flush()
            assert raised.value is error
            if write == "execute":
                self.stored_health()
        del self.spy.db.failures[write]

    @rule(served=st.sets(tools, min_size=1))
    def restart(self, served):
        self.registry.clear()
        self.registry.update({tool: Spec("x", "\u20ac") for tool in served})
        self.tracker = health.ToolHealthTracker(self.spy, self.settings)
        self.rows = {tool: row for tool, row in self.rows.items() if tool in served}
        self.states = {tool: dict(row) for tool, row in self.rows.items()}
        known = lambda key: key[0] in served and key[1] != "None"  # noqa: E731
        self.usage = {key: usage for key, usage in self.document.items() if known(key)}
        self.usage_dirty = len(self.usage) < len(self.document)
        self.dirty = set()

    @precondition(lambda self: self.document)
    @rule(edit=st.sampled_from(["double", "spoil", "reverse"]))
    def edit_the_document(self, edit):
        elements = [dict(zip(MEMBERS, key + usage)) for key, usage in self.document.items()]
        if edit == "double":
            elements += [{**elements[0], "calls": "7", "more": None}]
            first = next(iter(self.document))
            self.document[first] = (7, *self.document[first][1:])
        elif edit == "spoil":
            del elements[-1]["total_ms"]
            self.document = {}
        else:
            elements.reverse()
            self.document = dict(reversed(self.document.items()))
        sql = "UPDATE schema_info SET value = ? WHERE key = 'tool_usage'"
        self.repository.db.execute(sql, (json.dumps(elements, indent=1),))

    @invariant()
    def memory_is_as_modelled(self):
        shown = {
            tool: {"call_count": s.call_count, "error_count": s.error_count,
                   "last_error": s.last_error, "disabled": s.disabled_at is not None,
                   "run": s.consecutive_errors}
            for tool, s in self.tracker._state.items()}  # fmt: skip
        usage = {
            key: (u.calls, u.timed_calls, u.total_ms) for key, u in self.tracker._usage.items()
        }
        assert shown == self.states
        assert list(usage.items()) == list(self.usage.items())
        assert (self.tracker._dirty, self.tracker._usage_dirty) == (self.dirty, self.usage_dirty)
        assert self.tracker.has_unsaved_changes == bool(self.dirty or self.usage_dirty)

    @invariant()
    def summary_is_as_modelled(self):
        none = health._ToolState()
        state_of = lambda tool: self.tracker._state.get(tool, none)  # noqa: E731
        names = dict.fromkeys([*self.tracker._state, *(key[0] for key in self.usage)])
        names = sorted(names, key=lambda t: (-state_of(t).error_count, -state_of(t).call_count))
        expected = []
        for tool in names:
            rows = [(key, *usage) for key, usage in self.usage.items() if key[0] == tool]
            rows.sort(key=lambda row: (-row[1], str(row[0][1]), row[0][2], row[0][3]))
            state = state_of(tool)
            expected.append({
                "tool_name": tool, "call_count": state.call_count, "error_count": state.error_count,
                "last_error": state.last_error, "disabled": state.disabled_at is not None,
                "disabled_at": health._sqlite_time(state.disabled_at),
                "updated_at": health._sqlite_time(state.updated_at),
                "usage": [{"action": key[1], "outcome": key[2], "alias_hit": key[3], "calls": calls,
                           "avg_ms": round(total / timed, 2) if timed else None,
                           "slow": key[1] == "x"} for key, calls, timed, total in rows],
            })  # fmt: skip
        self.asked.clear()
        assert self.tracker.get_health_summary() == expected
        assert self.asked == [key[:2] for tool in names for key in self.usage if key[0] == tool]


def test_any_sequence_of_operations(tmp_path, monkeypatch):
    Tracker.folder, Tracker.monkeypatch = tmp_path, monkeypatch
    Tracker.TestCase.settings = settings(max_examples=60, stateful_step_count=30, deadline=None)
    Tracker.TestCase("runTest").runTest()

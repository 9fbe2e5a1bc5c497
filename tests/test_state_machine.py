"""The tracker against the plain class of bench/: random calls, flushes, failures and restarts."""

import json
import tempfile
import time
from contextlib import contextmanager
from dataclasses import astuple
from pathlib import Path
from random import Random
from types import SimpleNamespace

import plain_tracker
from conftest import Spec, SpyRepository
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from quillet.repository import Repository
from quillet.tool_handlers import health

TOOLS = ("b", "a", "ab")
ACTIONS = ("x", "None", "\u20ac")
ERROR_TEXTS = (None, "", "no luck", "\u20ac" * 501)
FAILURES = RuntimeError("no luck"), KeyboardInterrupt()
DURATIONS = (None, 0.0, 0.0625, 12.3456, 1e16)


def repeat_first(document):
    document += [{**element, "calls": "7", "more": None} for element in document[:1]]


def spoil(document):
    document.append({"tool": "a"})


class Life:
    """A tracker and a plain one, each with a database of its own, to which the same happens."""

    def __init__(self, random, monkeypatch, folder):
        self.choice, self.monkeypatch = random.choice, monkeypatch
        folders = [Path(tempfile.mkdtemp(dir=folder)) for _ in range(2)]
        self.repositories = [SpyRepository(Repository(folder)) for folder in folders]
        self.settings = SimpleNamespace(disable_after_errors=self.choice([0, 1, 2, 3]))
        self.asked = [], []
        monkeypatch.setattr(health, "is_slow_call", self.is_slow_call(0))
        monkeypatch.setattr(plain_tracker, "time", SimpleNamespace(time=self.clock))
        self.start()

    def is_slow_call(self, number):
        return lambda *call: self.asked[number].append(call) or call[1] == "x"

    def clock(self):
        """The plain one's: what the other, which goes first, read for the same operation."""
        states = self.trackers[0]._state.values()
        return max([self.begun, *(state.updated_at for state in states)])

    def start(self, gone=None):
        spec = Spec(*(action for action in ACTIONS if action != gone))
        registry = {tool: spec for tool in TOOLS if tool != gone}
        self.monkeypatch.setattr(health, "TOOLS", registry)
        ours, plain = self.repositories
        self.trackers = (
            health.ToolHealthTracker(ours, self.settings),
            plain_tracker.PlainTracker(plain, self.settings, registry, self.is_slow_call(1)),
        )

    @contextmanager
    def failing(self, operation, error=FAILURES[0]):
        for repository in self.repositories:
            repository.db.failures = {operation: error}
        yield
        for repository in self.repositories:
            repository.db.failures = {}

    def both(self, operation, *args, **kwargs):
        print(operation, args, kwargs)
        self.begun = time.time()
        outcomes = []
        for tracker in self.trackers:
            try:
                outcomes.append(getattr(tracker, operation)(*args, **kwargs))
            except (RuntimeError, KeyboardInterrupt) as error:
                outcomes.append(error)
        assert outcomes[0] == outcomes[1]

    def succeed(self):
        self.both("record_success", self.choice(TOOLS))

    def fail(self):
        self.both("record_error", self.choice(TOOLS), self.choice(ERROR_TEXTS))

    def ask(self):
        self.settings.disable_cooldown_s = self.choice([0.0, 1e9])
        self.both("is_disabled", self.choice(TOOLS))

    def count(self):
        key = self.choice(TOOLS), self.choice((None, *ACTIONS)), self.choice(["ok", "\udcff"])
        keywords = {"alias_hit": self.choice([False, True]), "duration_ms": self.choice(DURATIONS)}
        self.both("record_call", *key, **keywords)

    def flush(self):
        with self.failing(self.choice([None, "executemany", "execute"]), self.choice(FAILURES)):
            self.both("flush")

    def restart(self):
        gone = self.choice([None, "a", "ab", "None"])
        edit = self.choice([None, repeat_first, spoil, list.reverse])
        read = self.choice([None, None, "fetchall", "fetchone", "executemany"])
        print("restart", gone, edit, read)
        for db in (repository.db.db for repository in self.repositories if edit):
            for key, text in db.fetchall("SELECT key, value FROM schema_info"):
                edit(document := json.loads(text))
                sql = "UPDATE schema_info SET value = ? WHERE key = ?"
                db.execute(sql, (json.dumps(document, indent=1), key))
        with self.failing(read):
            self.start(gone)

    def seen(self, number):
        tracker = self.trackers[number]
        self.asked[number].clear()
        return {
            "state": [(tool, *astuple(state)) for tool, state in tracker._state.items()],
            "usage": [(key, *astuple(usage)) for key, usage in tracker._usage.items()],
            "flags": (tracker._dirty, tracker._usage_dirty, tracker.has_unsaved_changes),
            "summary": tracker.get_health_summary(),
            "asked": self.asked[number],
            "database": self.repositories[number].db.calls,
        }


OPERATIONS = 4 * [Life.fail] + 3 * [Life.ask, Life.count] + [Life.succeed, Life.flush, Life.restart]


@settings(max_examples=100, deadline=None, suppress_health_check=list(HealthCheck))
@given(seed=st.integers(0, 2**32))
def test_any_sequence_of_operations(tmp_path, monkeypatch, seed):
    random = Random(seed)
    life = Life(random, monkeypatch, tmp_path)
    for _ in range(60):
        random.choice(OPERATIONS)(life)
        assert life.seen(0) == life.seen(1)

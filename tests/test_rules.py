"""The tracker against the plain class of bench/: random lives, and each odd thing stored."""

import json
import math
import time
from itertools import product
from random import Random
from types import SimpleNamespace

import plain_tracker
import pytest
from conftest import MEMBERS, SpyRepository, Stored
from hypothesis import HealthCheck, Phase, given, note, settings
from hypothesis import strategies as st
from quillet.config import ToolsConfig
from quillet.tool_handlers import health

ODD = 'a\0\n"\\\x7f\xe9\u20ac\U0001f600\udcff'
ERRORS = None, "", "no luck", "so what", "\u20ac" * 501
FAILURES = RuntimeError("no luck"), KeyboardInterrupt()
DURATIONS = None, 0, 0.0, 0.0625, 1.0005, 41.87650000001, 2e13 / 3, -1e15, 1e16, math.inf, math.nan
COOLDOWNS = 1e9, 1e9, 0.0, False, -1, 10**400, -(10**400), math.inf, math.nan
RUNS = 0, 1, 2, 2.5, 3, math.inf, 10**400


def compact(value):
    return json.dumps(value, separators=(",", ":"))


def repeat_first(document):
    document += [{**element, "calls": 7} for element in document[:1]]


def spoil(document):
    document.append({"tool": "b"})


class Registry:
    """Has these tools, each with every action but one."""

    def __init__(self, tools, gone=None):
        self.tools, self.gone = tools, gone

    def get(self, tool):
        return self if tool in self.tools else None

    def action(self, name):
        return 0 if isinstance(name, str) and name != self.gone else None


class Life:
    """A tracker and a plain one, each with a database of its own, to which the same happens."""

    def __init__(self, random, monkeypatch, tell):
        self.random, self.choice = random, random.choice
        self.monkeypatch, self.tell = monkeypatch, tell
        self.repositories = [SpyRepository(Stored()) for _ in range(2)]
        self.tools = [self.text() for _ in range(4)]
        # Few of the rest, so that they meet again.
        self.actions = random.choices([None, "x", "None", self.text(), self.text()], k=3)
        self.durations = random.choices([*DURATIONS, random.uniform(0, 100)], k=2)
        self.settings = SimpleNamespace(disable_after_errors=self.choice(RUNS))
        self.said = [repository.calls for repository in self.repositories]  # to anybody
        for module, said in zip((health, plain_tracker), self.said):
            monkeypatch.setattr(module.logger, "warning", lambda *told, to=said: to.append(told))
        monkeypatch.setattr(health, "is_slow_call", self.is_slow_call(0))
        monkeypatch.setattr(plain_tracker, "time", SimpleNamespace(time=self.clock))
        self.start()

    def is_slow_call(self, number):
        return lambda *call: self.said[number].append(call) or call[1] == "x"

    def clock(self):
        """The plain one's: what the other, which goes first, read for the same operation."""
        states = self.trackers[0]._state.values()
        now = max([self.begun, *(state.updated_at for state in states)])
        assert now <= time.time()
        return now

    def start(self, gone=None):
        registry = Registry([tool for tool in self.tools if tool != gone], gone)
        self.monkeypatch.setattr(health, "TOOLS", registry)
        ours, plain = self.repositories
        self.trackers = (
            health.ToolHealthTracker(ours, self.settings),
            plain_tracker.PlainTracker(plain, self.settings, registry, self.is_slow_call(1)),
        )

    def let_fail(self, operation, error=FAILURES[0]):
        for repository in self.repositories:
            repository.failures = {operation: error}

    def both(self, operation, *args, **kwargs):
        self.tell(f"{operation} {args} {kwargs}")
        self.begun = time.time()
        outcomes = []
        for tracker in self.trackers:
            try:
                outcomes.append(repr(getattr(tracker, operation)(*args, **kwargs)))
            except (RuntimeError, KeyboardInterrupt) as error:
                outcomes.append(error)
        assert outcomes[0] == outcomes[1]

    def text(self):
        any_one = chr(self.random.randrange(0x110000))
        return "".join(self.random.choices(ODD + any_one, k=self.choice([0, 1, 3])))

    def succeed(self):
        self.both("record_success", self.choice(self.tools))

    def fail(self):
        self.both("record_error", self.choice(self.tools), self.choice([*ERRORS, self.text()]))

    def ask(self):
        self.settings.disable_cooldown_s = self.choice(COOLDOWNS)
        self.both("is_disabled", self.choice(self.tools))

    def count(self):
        call = self.choice(self.tools), self.choice(self.actions), self.choice(["ok", "\udcff"])
        hit, duration_ms = self.choice([False, True]), self.choice(self.durations)
        self.both("record_call", *call, alias_hit=hit, duration_ms=duration_ms)

    def look(self):
        self.both("_usage_rows", self.choice(self.tools))

    def flush(self):
        self.let_fail(self.choice([None, "executemany", "execute"]), self.choice(FAILURES))
        self.both("flush")

    def restart(self):
        gone = self.choice([None, *self.tools[:2], *self.actions])
        edit = self.choice([None, repeat_first, spoil, list.reverse])
        write = self.choice([json.dumps, compact])
        read = self.choice([None, None, "fetchall", "fetchone", "executemany"])
        self.tell(f"restart {gone!r} {edit} {write} {read}")
        for stored in (repository.spied for repository in self.repositories):
            if edit and stored.document:
                edit(document := json.loads(stored.document))
                stored.document = write(document)
        self.let_fail(read)
        self.start(gone)

    def go_on(self):
        self.random.choice(OPERATIONS)(self)

    def seen(self, number):
        tracker, said = self.trackers[number], self.said[number]
        seen = repr((memory(tracker), tracker.get_health_summary(), said))
        said.clear()
        return seen


def memory(tracker):
    def fields(record):
        return repr(record).partition("(")[2]

    return (
        tracker.has_unsaved_changes,  # first: as after a flush that failed
        [(tool, fields(state)) for tool, state in tracker._state.items()],
        [(key, fields(usage)) for key, usage in tracker._usage.items()],
        (sorted(tracker._dirty), tracker._usage_dirty),
    )


RARE = [Life.succeed, Life.look, Life.flush, Life.restart]
OPERATIONS = 4 * [Life.fail, Life.count] + 3 * [Life.ask] + RARE


# Any smaller seed is another life, so none is looked for. Of a wider range, mostly small ones
# would be drawn.
@settings(max_examples=1000, phases=[Phase.explicit, Phase.generate], database=None, deadline=None,
          suppress_health_check=list(HealthCheck))  # fmt: skip
@given(seed=st.integers(0, 2**24 - 1))
def test_any_sequence_of_operations(monkeypatch, seed):
    """Each run lives other lives; one that failed is lived again with `@example(seed=...)`."""
    life = Life(Random(seed), monkeypatch, note)
    for _ in range(60):
        life.go_on()
        assert life.seen(0) == life.seen(1)


@pytest.fixture
def start(monkeypatch, caplog):
    """Starts both over the same stored things, and checks that they make the same of them."""
    registry = Registry(["a", "b", "5", "True"], "gone")
    monkeypatch.setattr(health, "TOOLS", registry)

    def lived(stored, tracker_class, *arguments):
        repository = SpyRepository(Stored(*stored))
        caplog.clear()
        try:
            tracker = tracker_class(repository, ToolsConfig(3, 1e12), *arguments)
        except Exception as error:
            return type(error)
        read = memory(tracker), [(record.msg, record.args) for record in caplog.records]
        asked = [tracker.is_disabled(tool) for tool in "ab"]
        tracker.record_call("a", None, "ok", alias_hit=False, duration_ms=1)
        return repr((read, asked, tracker.flush(), repository.calls))

    def start(*stored):
        other = lived(stored, plain_tracker.PlainTracker, registry, lambda *_: False)
        assert lived(stored, health.ToolHealthTracker) == other, stored

    return start


def test_stored_rows(start):
    odd = [None, 0, 5, -3, 0.0, 2.9, -2.9, 2**63 - 2, b"", b"\xff", "", "x", " +1_0 ", "1.5"]
    odd += ["2023-1-5 3:4:5", "2023-02-30 00:00:00", "1970-01-01 00:00:00"]
    for column, value in product(range(6), odd):
        row = ["b", 7, 3, "e", "2023-11-14 22:13:20", "2023-11-14 22:13:21"]
        row[column] = value
        start([("a", 1, 1, None, None, None), row, ("gone", 1, 1, None, None, None)])


ELEMENT = dict(zip(MEMBERS, ("a", "x", "ok", True, 3, 2, 3.5)))
WHOLE = """[]| {} |""||5|null|{"a":1}|"text"|[5]|[[]]|[]]|[]\0""".split("|")


def test_stored_documents(start):
    odd = [None, True, False, 0, 5, 2.9, -2.9, -0.0, math.inf, math.nan, 2**63 - 1, [], {}]
    odd += ["", "no", "gone", " 7 ", "1_000", "1,5", " -INFINITY ", "\U0001f600"]
    for member, value in product(MEMBERS, odd):
        edited = {**ELEMENT, member: value}
        start((), json.dumps([ELEMENT, edited, {**edited, "action": None, "more": 1}]))
        start((), compact([edited]))
    for member in MEMBERS:
        start((), json.dumps([ELEMENT, {m: v for m, v in ELEMENT.items() if m != member}]))
    for document in [None, b"[5]", 5, *WHOLE, "[" * 10**5]:
        start((), document)


def test_a_document_with_any_one_character_changed(start):
    text = compact([{**ELEMENT, "tool": "\U0001f600"}])
    for at, new in product(range(len(text)), ["", *'0-."u}],\0\xe9']):
        for edited in (text[:at], text[:at] + new + text[at:], text[:at] + new + text[at + 1 :]):
            start((), edited)


def test_times():
    random = Random()
    for _ in range(5000):
        whole = random.randrange(-30_610_224_000, 253_402_300_799)  # years of four digits
        for fraction in (0, 0.5, 0.9999994, 0.9999996, 0.0000004, random.random()):
            moment = whole + fraction
            assert health._sqlite_time(moment) == plain_tracker.timestamp(moment), moment
        assert health._epoch(health._sqlite_time(whole)) == whole
    for between in map(chr, range(0x3100)):
        text = f"2023-11-14{between}22:13:20"
        assert health._epoch(text) == plain_tracker.epoch(text), text
    texts = "2023-11-14 22:13:20", "0001-01-31 09:59:59"
    for text, at, new in product(texts, range(20), ["", *"0123569 -:.T\0\udc80"]):
        for edited in (text[:at] + new + text[at:], text[:at] + new + text[at + 1 :]):
            assert health._epoch(edited) == plain_tracker.epoch(edited), edited
    assert health._sqlite_time(-62135596800) == "0001-01-01 00:00:00"
    assert health._sqlite_time(None) is None
    for wrong in (-62135596801, 253402300799.9999999, 1e300, math.nan, 10**400):
        with pytest.raises(ValueError):
            health._sqlite_time(wrong)

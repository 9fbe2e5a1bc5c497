"""The usage document: what is read at a start, and what a flush writes."""

import json
import re
from functools import partial
from unittest import mock

import pytest
from conftest import MEMBERS, call
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from quillet.tool_handlers import health

SELECT = "SELECT value FROM schema_info WHERE key = ?"
REPLACE = "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)"


def element(tool="a", action=None, outcome="ok", alias_hit=False, calls=1, timed=0, total=0.0):
    return dict(zip(MEMBERS, (tool, action, outcome, alias_hit, calls, timed, total)))


@pytest.fixture
def document(db):
    """Reads the stored document, or stores one."""

    def access(value=...):
        if value is not ...:
            db.execute(REPLACE, (health.TOOL_USAGE_KEY, value))
        return (db.fetchone(SELECT, (health.TOOL_USAGE_KEY,)) or [None])[0]

    return access


# As text is stored as UTF-8, a surrogate reaches the document only as an escape.
texts = st.text(st.characters(blacklist_categories=()))
counts = st.integers(-(2**63), 2**63 - 1)
totals = st.floats() | st.integers(-8000, 8000).map(lambda n: n / 16) | st.floats(-1e17, 1e17)
usage = st.builds(element, texts, st.none() | texts, texts, st.booleans(), counts, counts, totals)


@settings(max_examples=300, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(st.lists(usage, max_size=5, unique_by=lambda row: json.dumps(list(row.values())[:4])))
def test_the_document_is_read_and_written_as_by_the_json_library(tracker, document, daemon, rows):
    class Everything:
        get = action = lambda self, name: self

    compact = partial(json.dumps, separators=(",", ":"))
    with mock.patch.object(health, "TOOLS", Everything()):
        document(compact([{**row, "more": None} for row in rows]))  # left to the interpreter
        by_json = tracker()
        document(compact(rows))
        t = tracker()
    assert repr(t._usage) == repr(by_json._usage)
    expected = {tuple(row.values())[:4]: row for row in json.loads(json.dumps(rows))}
    for key in [*expected, ("a", None, "ok", False)]:
        call(t, *key)  # under the same key as what was read
        expected.setdefault(key, element(calls=0))
        expected[key]["calls"] = min(expected[key]["calls"] + 1, 2**63 - 1)
    assert t.flush() == len(expected)
    written = [{**row, "total_ms": round(row["total_ms"], 3)} for row in expected.values()]
    assert document() == compact(written)
    with mock.patch("json.loads") as loads:
        tracker()
    assert not loads.called or re.search(r"\\ud[89ab]|NaN|Infinity", document())


def test_a_flush_is_one_write_of_every_count(tracker, repository, document):
    t = tracker()
    call(t, duration_ms=41.87650000001)
    call(t, "b", outcome="\ud800")
    repository.db.calls.clear()
    assert t._flush_usage() == 2
    assert repository.db.calls == [("execute", REPLACE, (health.TOOL_USAGE_KEY, document()))]
    assert t._usage[("a", None, "ok", False)].total_ms == 41.87650000001
    assert t._flush_usage() == 0 and len(repository.db.calls) == 1


@pytest.mark.parametrize("stored", [None, b"[]", "[]", " {} ", '""'])
def test_an_empty_document_loads_nothing(tracker, document, caplog, stored):
    if stored is not None:
        document(stored)
    t = tracker()
    assert (t._usage, t.has_unsaved_changes, t.flush()) == ({}, False, 0)
    assert not caplog.records


UNREADABLE = [
    "", "[", "5", "null", "true", '{"a": 1}', '"text"', "[5]", "[[]]", "[null]", "[" * 100_000,
    [{**element(), "action": []}], [{**element(), "action": {}}],
    [element(), {key: value for key, value in element().items() if key != "timed_calls"}],
    [element(calls=None)], [element(calls="1.5")], [element(calls=[])], [element(calls=2**63)],
    [element(calls=float("inf"))], [element(timed="x")], [element(total=None)],
    [element(total="1,5")], [element(total=10**400)], "[]]",
]  # fmt: skip


@pytest.mark.parametrize("stored", UNREADABLE)
def test_an_unreadable_document_is_logged_and_left_out(tracker, document, caplog, stored):
    text = document(stored if isinstance(stored, str) else json.dumps(stored))
    t = tracker()
    assert (t._usage, t.has_unsaved_changes) == ({}, False)
    [record] = caplog.records
    assert record.msg == "Could not read the tool usage counts: %s"
    assert isinstance(record.args[0], Exception)
    assert document() == text
    call(t)
    assert t.flush() == 1 and len(json.loads(document())) == 1


def test_members_are_converted_as_python_does(tracker, document, daemon):
    daemon.update({"5": daemon["b"], "True": daemon["b"]})
    document(json.dumps([
        element(5, outcome=2.5, alias_hit="no", calls=2.9, timed=" 7 ", total="1.5"),
        element(True, outcome=None, alias_hit=0, calls=-2.9, timed="1_000", total=True),
        {**element("b", alias_hit=[], calls=True, timed=False, total=" -INFINITY "), "more": 1},
    ]))  # fmt: skip
    t = tracker()
    assert t._usage == {
        ("5", None, "2.5", True): health._Usage(2, 7, 1.5),
        ("True", None, "None", False): health._Usage(-2, 1000, 1.0),
        ("b", None, "ok", False): health._Usage(1, 0, float("-inf")),
    }
    assert not t.has_unsaved_changes


def test_what_the_registry_no_longer_has_is_dropped(tracker, document):
    gone = [element("gone"), element("a", "gone"), element("b", "x"), element("a", 5), element([])]
    kept = [element("a", "x"), element("b", calls=2), element("a"), element("b", calls=3)]
    document(json.dumps(gone + kept))
    t = tracker()
    assert [(key[:2], usage.calls) for key, usage in t._usage.items()] == [
        (("a", "x"), 1), (("b", None), 3), (("a", None), 1)]  # fmt: skip
    assert t.has_unsaved_changes and t.flush() == 3
    assert not tracker().has_unsaved_changes  # a repeated key alone changes nothing
    document(json.dumps(gone))
    t = tracker()
    assert t.has_unsaved_changes and t.flush() == 0
    assert document() == "[]"
